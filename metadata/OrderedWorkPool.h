// OrderedWorkPool: runs jobs on a few worker threads and hands their results
// back in the order the jobs were given. A walk uses it to read and digest
// the next files while it goes on listing folders and writing records, which
// keep their order.
//
// At most `depth` jobs are outstanding: the caller takes the oldest result
// before giving more (full() tells when). stop() drops the jobs not started
// and waits for the running ones; the destructor does the same.
//
// Thread-safety: submit, takeOldest, full, pending and stop are for one
// thread, the owner's; jobs run on the workers and must be safe to run at
// the same time as each other and as the owner's work.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace qvl {

template <class Result>
class OrderedWorkPool {
  public:
    using Job = std::function<Result()>;

    OrderedWorkPool(size_t workers, size_t depth) : slots_(depth) {
        threads_.reserve(workers);
        for (size_t i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
    }
    ~OrderedWorkPool() { stop(); }
    OrderedWorkPool(const OrderedWorkPool&) = delete;
    OrderedWorkPool& operator=(const OrderedWorkPool&) = delete;

    size_t pending() const { return given_ - taken_; }
    bool full() const { return pending() == slots_.size(); }

    // Queues `job`; the pool must not be full.
    void submit(Job job) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            Slot& slot = slots_[given_ % slots_.size()];
            slot.job = std::move(job);
            slot.result.reset();
            ++given_;
        }
        jobGiven_.notify_one();
    }

    // The result of the oldest job not yet taken, once it is done; there
    // must be one pending.
    Result takeOldest() {
        std::unique_lock<std::mutex> guard(lock_);
        Slot& slot = slots_[taken_ % slots_.size()];
        jobDone_.wait(guard, [&] { return slot.result.has_value(); });
        Result result = std::move(*slot.result);
        slot.result.reset();
        ++taken_;
        return result;
    }

    void stop() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            stopping_ = true;
        }
        jobGiven_.notify_all();
        for (std::thread& thread : threads_) thread.join();
        threads_.clear();
    }

  private:
    struct Slot {
        Job job;
        std::optional<Result> result;
    };

    void work() {
        std::unique_lock<std::mutex> guard(lock_);
        for (;;) {
            jobGiven_.wait(guard, [&] { return stopping_ || started_ < given_; });
            if (stopping_) return;
            Slot& slot = slots_[started_++ % slots_.size()];
            Job job = std::move(slot.job);
            guard.unlock();
            Result result = job();
            guard.lock();
            slot.result.emplace(std::move(result));
            jobDone_.notify_all();
        }
    }

    std::vector<Slot> slots_;
    std::vector<std::thread> threads_;
    std::mutex lock_;
    std::condition_variable jobGiven_, jobDone_;
    // Counts of jobs given, started by a worker and taken back; only the
    // owner changes given_ and taken_, always under the lock.
    size_t given_ = 0, started_ = 0, taken_ = 0;
    bool stopping_ = false;
};

}  // namespace qvl
