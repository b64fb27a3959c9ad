// The readers of answers, one for each thread that has asked.

#include "answerreader.h"

#include <mutex>
#include <new>
#include <utility>

namespace
{

std::mutex readersMutex; // guards the list, and answers that have left the cache. Taken last.
AnswerReader *firstReader = nullptr;

// Any of the blocks of a record tells it from all others; NULL when there is none to free.
const void *identity(const ProxyUrlInformation &record)
{
    if (record.proxyUrlList)
        return record.proxyUrlList;
    return record.userName ? record.userName : record.password;
}

} // namespace

// A thread_local object with a destructor would do, but it ends the process when there is no memory for it.
const AnswerReader::Key AnswerReader::readerKey;

AnswerReader::Key::Key() : made(pthread_key_create(&key, end) == 0)
{
    pthread_atfork(nullptr, nullptr, startAnew);
}

// A child that was forked has none of the other threads, and finds the lock as they had it. What they read is lost to
// it.
void AnswerReader::startAnew()
{
    new (&readersMutex) std::mutex;
    firstReader = nullptr;
    if (readerKey.made)
        pthread_setspecific(readerKey.key, nullptr);
}

AnswerReader *AnswerReader::present()
{
    return static_cast<AnswerReader *>(readerKey.made ? pthread_getspecific(readerKey.key) : nullptr);
}

AnswerReader &AnswerReader::ofThisThread()
{
    if (AnswerReader *reader = present())
        return *reader;
    auto *reader = new AnswerReader;
    if (!readerKey.made || pthread_setspecific(readerKey.key, reader) != 0) {
        delete reader;
        throw std::bad_alloc();
    }
    return *reader;
}

AnswerReader::AnswerReader()
{
    const std::lock_guard<std::mutex> lock(readersMutex);
    next_ = firstReader;
    firstReader = this;
}

AnswerReader::~AnswerReader()
{
    leave();
    const std::lock_guard<std::mutex> lock(readersMutex);
    AnswerReader **link = &firstReader;
    while (*link != this)
        link = &(*link)->next_;
    *link = next_;
}

void AnswerReader::end(void *reader)
{
    delete static_cast<AnswerReader *>(reader);
}

void AnswerReader::turnTo(const ProxyUrlInformation &answer)
{
    if (hasLeft_)
        leave();
    reading_ = identity(answer);
}

void AnswerReader::letGo()
{
    if (AnswerReader *reader = present())
        reader->leave();
}

void AnswerReader::leave()
{
    if (!reading_)
        return;
    ProxyUrlInformation answer{};
    {
        const std::lock_guard<std::mutex> lock(readersMutex);
        const void *const left = identity(left_);
        std::swap(answer, left_);
        reading_ = nullptr;
        hasLeft_ = false;
        for (AnswerReader *other = left ? firstReader : nullptr; other; other = other->next_) {
            if (other->hasLeft_ && other->reading_ == left) {
                std::swap(answer, other->left_);
                break;
            }
        }
    }
    cleanupProxyUrlInfo(&answer);
}

void AnswerReader::giveUp(ProxyUrlInformation &answer)
{
    {
        const std::lock_guard<std::mutex> lock(readersMutex);
        const void *const leaving = identity(answer);
        for (AnswerReader *reader = leaving ? firstReader : nullptr; reader; reader = reader->next_) {
            if (reader->reading_ == leaving) {
                reader->hasLeft_ = true;
                std::swap(answer, reader->left_); // with the first; the others find nothing to take
            }
        }
    }
    cleanupProxyUrlInfo(&answer);
}
