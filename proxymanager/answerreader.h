// Who may still be reading the strings of an answer that the cache gives up.
#ifndef PROXYMANAGER_ANSWERREADER_H
#define PROXYMANAGER_ANSWERREADER_H

#include "common.h"

#include <pthread.h>

// A thread that asks for proxies may read its latest answer until it asks again, or ends, whatever the cache does
// meanwhile. The reader of each such thread tells which answer that is; an answer that the cache gives up while it
// is being read goes with the last of its readers.
//
// The cache belongs to the one client of the process: turnTo and giveUp are called with its lock held.
class AnswerReader
{
public:
    AnswerReader(const AnswerReader &) = delete;
    AnswerReader &operator=(const AnswerReader &) = delete;

    // Made at the thread's first use; throws std::bad_alloc.
    static AnswerReader &ofThisThread();

    // This answer, which is in the cache, is the latest from now on.
    void turnTo(const ProxyUrlInformation &answer);
    // The calling thread does not read its latest answer any more.
    static void letGo();

    // Frees an answer that leaves the cache, or leaves it to its readers. Resets the record.
    static void giveUp(ProxyUrlInformation &answer);

private:
    AnswerReader();
    ~AnswerReader();
    static AnswerReader *present(); // the calling thread's, NULL when it has none yet
    static void end(void *reader);
    void leave();

    struct Key {
        Key();
        pthread_key_t key{};
        const bool made;
    };
    static void startAnew();
    static const Key readerKey;

    // The thread itself changes reading_, under the lock of the cache or that of the readers; giveUp, which looks at
    // all of them, has both. Once giveUp has set hasLeft_, all three change under the lock of the readers only.
    const void *reading_ = nullptr;
    bool hasLeft_ = false;
    ProxyUrlInformation left_{}; // the answer that has left the cache, with one of its readers
    AnswerReader *next_;
};

#endif
