// The count of owners, and the latest answer of each thread.

#include "sharedanswer.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>

#include <pthread.h>

namespace
{

using Count = std::atomic<size_t>;
static_assert(sizeof(Count) == sizeof(char *) && alignof(Count) <= alignof(char *));

// NULL for an answer without a list.
Count *owners(const ProxyUrlInformation &answer)
{
    void *const behindEntries = answer.proxyUrlList ? &answer.proxyUrlList[answer.proxyUrlCount] : nullptr;
    return static_cast<Count *>(behindEntries);
}

// A thread_local object with a destructor would do, but it ends the process when there is no memory for it.
pthread_key_t latestKey{};
const bool hasKey =
    pthread_key_create(&latestKey, [](void *latest) { delete static_cast<SharedAnswer *>(latest); }) == 0;

SharedAnswer *findLatest()
{
    return static_cast<SharedAnswer *>(hasKey ? pthread_getspecific(latestKey) : nullptr);
}

} // namespace

void SharedAnswer::begin(ProxyMode mode, int count)
{
    release(record_);
    initProxyUrlInfo(&record_, mode, count > 0 ? count + 1 : 0);
    if (count <= 0)
        return;
    if (!record_.proxyUrlList)
        throw std::bad_alloc();
    record_.proxyUrlCount = count;
    new (&record_.proxyUrlList[count]) Count(1);
}

void SharedAnswer::share(const ProxyUrlInformation &answer)
{
    retain(answer);
    release(record_);
    record_ = answer;
}

void SharedAnswer::retain(const ProxyUrlInformation &answer)
{
    if (Count *const count = owners(answer))
        count->fetch_add(1, std::memory_order_relaxed);
}

void SharedAnswer::release(ProxyUrlInformation &answer)
{
    Count *const count = owners(answer);
    if (count && count->fetch_sub(1, std::memory_order_acq_rel) == 1)
        cleanupProxyUrlInfo(&answer);
    answer = {};
}

SharedAnswer &SharedAnswer::latest()
{
    if (SharedAnswer *const latest = findLatest())
        return *latest;
    auto made = std::make_unique<SharedAnswer>();
    if (!hasKey || pthread_setspecific(latestKey, made.get()) != 0)
        throw std::bad_alloc();
    return *made.release();
}

void SharedAnswer::releaseLatest()
{
    if (SharedAnswer *const latest = findLatest())
        latest->share({});
}
