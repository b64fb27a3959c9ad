// A limit to the time of the whole run, whatever the program is waiting for.
#ifndef TOOLS_ATLS_POST_DEADLINE_H
#define TOOLS_ATLS_POST_DEADLINE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class Deadline
{
public:
    // passed runs on a thread of its own once that many seconds are over, unless this object goes before. 0: never.
    Deadline(double seconds, std::function<void()> passed)
    {
        const auto end =
            std::chrono::steady_clock::now() +
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
        if (seconds > 0)
            thread_ = std::thread([this, end, passed = std::move(passed)] {
                std::unique_lock<std::mutex> lock(mutex_);
                if (!gone_.wait_until(lock, end, [this] { return going_; }))
                    passed();
            });
    }
    ~Deadline()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            going_ = true;
        }
        gone_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }
    Deadline(const Deadline &) = delete;
    Deadline &operator=(const Deadline &) = delete;

private:
    std::mutex mutex_; // of going_
    std::condition_variable gone_;
    bool going_ = false;
    std::thread thread_;
};

#endif
