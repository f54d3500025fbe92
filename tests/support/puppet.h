// A thread that does one thing after another, when told to: for orders of events that are rare and
// hard to meet by chance.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class puppet
{
  public:
    puppet() : thread_([this] { run(); }) {}
    ~puppet()
    {
        act({});
        thread_.join();
    }
    // Returns when the thread has done it. An empty action ends the thread.
    void act(std::function<void()> action)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        action_ = std::move(action);
        pending_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !pending_; });
    }

  private:
    void run()
    {
        for (bool more = true; more;) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return pending_; });
            more = static_cast<bool>(action_);
            if (more) {
                action_();
            }
            pending_ = false;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> action_;
    bool pending_ = false;
    std::thread thread_;
};
