// OrderedWorkPool: runs jobs on a few worker threads and hands their results
// back in the order the jobs were given. A walk uses it to read and digest
// the next files while it goes on listing folders and writing records, which
// keep their order.
//
// At most `depth` jobs are outstanding: the caller takes the oldest result
// before giving more (full() tells when). stop() drops the jobs not started
// and waits for the running ones; the destructor does the same.
//
// Waking a thread costs about as much as a small job, so sleeping workers
// are woken once kWakeBatch jobs wait for them, or when the owner is about
// to wait for a result; and an owner that has to wait is woken once the
// next kWakeBatch results are there (or all of them). A thread with nothing
// to do sleeps, it never spins.
//
// Thread-safety: submit, takeOldest, full, pending and stop are for one
// thread, the owner's; jobs run on the workers and must be safe to run at
// the same time as each other and as the owner's work.
#pragma once

#include <algorithm>
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
    static constexpr size_t kWakeBatch = 8;

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
        size_t waiting;
        {
            std::lock_guard<std::mutex> guard(lock_);
            Slot& slot = slots_[given_ % slots_.size()];
            slot.job = std::move(job);
            slot.result.reset();
            ++given_;
            waiting = given_ - started_;
        }
        // One more worker each time another batch is waiting.
        if (waiting % std::min(kWakeBatch, slots_.size()) == 0) jobGiven_.notify_one();
    }

    // The result of the oldest job not yet taken, once it is done; there
    // must be one pending.
    Result takeOldest() {
        std::unique_lock<std::mutex> guard(lock_);
        Slot& slot = slots_[taken_ % slots_.size()];
        if (!slot.result) {
            // Jobs short of a batch may be waiting for a sleeping worker.
            if (started_ < given_) jobGiven_.notify_all();
            ownerWaiting_ = true;
            jobDone_.wait(guard, [&] { return batchDone(); });
            ownerWaiting_ = false;
        }
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

    // Whether the oldest results not taken, kWakeBatch of them or all there
    // are, are done.
    bool batchDone() const {
        const size_t end = taken_ + std::min(kWakeBatch, given_ - taken_);
        for (size_t i = taken_; i < end; ++i) {
            if (!slots_[i % slots_.size()].result) return false;
        }
        return true;
    }

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
            if (ownerWaiting_ && batchDone()) jobDone_.notify_one();
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
    bool ownerWaiting_ = false;
};

}  // namespace qvl
