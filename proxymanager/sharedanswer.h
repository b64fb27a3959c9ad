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
    // A new answer with a list of NULL entries. Without memory for the list the count is 0.
    SharedAnswer(ProxyMode mode, int count);
    SharedAnswer(const SharedAnswer &other) { share(other.record_); }
    SharedAnswer &operator=(const SharedAnswer &other)
    {
        share(other.record_);
        return *this;
    }
    ~SharedAnswer() { release(record_); }

    ProxyUrlInformation &record() { return record_; }
    // Becomes another owner of an answer, in place of the present one.
    void share(const ProxyUrlInformation &answer);
    // Leaves the share to whoever keeps the record, until release.
    ProxyUrlInformation detach();
    // Gives a share up and resets the record.
    static void release(ProxyUrlInformation &answer);

    // What the calling thread was given last, which it may read until it asks again or ends. Made at the first use;
    // throws std::bad_alloc.
    static SharedAnswer &latest();
    static void releaseLatest();

private:
    ProxyUrlInformation record_{};
};

#endif
