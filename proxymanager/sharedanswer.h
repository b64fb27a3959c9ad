// Answers that several own: the cache, and every thread for the answer that it was given last.
#ifndef PROXYMANAGER_SHAREDANSWER_H
#define PROXYMANAGER_SHAREDANSWER_H

#include "common.h"

// One owner's share of an answer, whose strings are released with the last share. Owners are counted behind the last
// entry of the list, so that the record itself, and its list, are what the C interface promises. An answer without a
// list has no strings and needs no count.
class SharedAnswer
{
public:
    SharedAnswer() = default;
    SharedAnswer(const SharedAnswer &) = delete;
    SharedAnswer &operator=(const SharedAnswer &) = delete;
    ~SharedAnswer()
    {
        if (record_.proxyUrlList)
            release(record_);
    }

    // Becomes the owner of a new answer with NULL entries. Throws when there is no memory for the list: an answer
    // without it would mean a direct connection.
    void begin(ProxyMode mode, int count);
    // Becomes another owner of an answer, in place of the present one.
    void share(const ProxyUrlInformation &answer);
    ProxyUrlInformation &record() { return record_; }

    // Counts whoever keeps a record as another owner, until release, which resets the record.
    static void retain(const ProxyUrlInformation &answer);
    static void release(ProxyUrlInformation &answer);

    // What the calling thread was given last, which it may read until it asks again or ends. Made at the first use;
    // throws std::bad_alloc.
    static SharedAnswer &latest();
    static void releaseLatest();

private:
    ProxyUrlInformation record_{};
};

#endif
