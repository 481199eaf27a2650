// OrderedWorkPool: runs jobs on a few worker threads and hands their results
// back in the order the jobs were given. A walk uses it to read and digest
// the next files while it goes on listing folders and writing records, which
// keep their order.
//
// At most `depth` jobs are outstanding: the caller takes the oldest result
// before giving more (full() tells when). stop() drops the jobs not started
// and waits for the running ones; the destructor does the same.
//
// A job is small (a file of a few KiB), and waking a thread, or waiting for
// a lock another thread holds, costs about as much as one. So the owner
// hands jobs over half the depth at a time, workers claim them and
// hand results back through atomics, without a lock, and the owner, rather
// than sleep when the oldest result is not there yet, runs the jobs no
// worker has started itself. A thread sleeps only when there is nothing left
// for it to do, and is woken only when there is: a worker when jobs are
// handed over, the owner when the very result it waits for is done. No
// thread ever spins.
//
// Thread-safety: submit, takeOldest, full, pending and stop are for one
// thread, the owner's; jobs run on the workers and on the owner, and must be
// safe to run at the same time as each other and as the owner's work.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace qvl {

template <class Result>
class OrderedWorkPool {
  public:
    using Job = std::function<Result()>;

    OrderedWorkPool(size_t workers, size_t depth) : slots_(depth), batch_(std::max<size_t>(1, depth / 2)) {
        threads_.reserve(workers);
        for (size_t i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
    }
    ~OrderedWorkPool() { stop(); }
    OrderedWorkPool(const OrderedWorkPool&) = delete;
    OrderedWorkPool& operator=(const OrderedWorkPool&) = delete;

    size_t pending() const { return queued_ - taken_; }
    bool full() const { return pending() == slots_.size(); }

    // Queues `job`; the pool must not be full.
    void submit(Job job) {
        // The slot is the owner's until the job is handed over: no worker
        // looks at a slot past given_.
        slots_[queued_ % slots_.size()].job = std::move(job);
        ++queued_;
        if (queued_ - given_.load(std::memory_order_relaxed) >= batch_) handOver();
    }

    // The result of the oldest job not yet taken, once it is done; there
    // must be one pending.
    Result takeOldest() {
        Slot& slot = slots_[taken_ % slots_.size()];
        if (!slot.done.load(std::memory_order_acquire)) waitFor(taken_);
        Result result = std::move(*slot.result);
        slot.result.reset();
        slot.done.store(false, std::memory_order_relaxed);
        ++taken_;
        return result;
    }

    void stop() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            stopping_.store(true);
        }
        jobGiven_.notify_all();
        for (std::thread& thread : threads_) thread.join();
        threads_.clear();
    }

  private:
    static constexpr size_t kNone = ~size_t{0};

    struct Slot {
        Job job;
        std::optional<Result> result;
        std::atomic<bool> done{false};
    };

    // Makes the queued jobs visible to the workers, waking one if any sleeps.
    void handOver() {
        given_.store(queued_);
        if (idle_.load() == 0) return;
        { std::lock_guard<std::mutex> guard(lock_); }
        jobGiven_.notify_one();
    }

    // Claims the oldest job handed over and not started; false when there is
    // none (or the pool stops).
    bool claim(size_t* index) {
        size_t started = started_.load(std::memory_order_relaxed);
        for (;;) {
            if (stopping_.load(std::memory_order_relaxed) ||
                started >= given_.load(std::memory_order_acquire))
                return false;
            if (started_.compare_exchange_weak(started, started + 1, std::memory_order_acq_rel)) {
                *index = started;
                return true;
            }
        }
    }

    void run(size_t index) {
        Slot& slot = slots_[index % slots_.size()];
        {
            // The job, with what it holds open, is gone before its result is.
            const Job job = std::exchange(slot.job, nullptr);
            slot.result.emplace(job());
        }
        slot.done.store(true);
        if (awaited_.load() == index) {
            { std::lock_guard<std::mutex> guard(lock_); }
            jobDone_.notify_one();
        }
    }

    void waitFor(size_t index) {
        Slot& slot = slots_[index % slots_.size()];
        if (given_.load(std::memory_order_relaxed) < queued_) handOver();
        for (size_t next; !slot.done.load(std::memory_order_acquire) && claim(&next);) run(next);
        if (slot.done.load(std::memory_order_acquire)) return;
        std::unique_lock<std::mutex> guard(lock_);
        awaited_.store(index);
        jobDone_.wait(guard, [&] { return slot.done.load(); });
        awaited_.store(kNone, std::memory_order_relaxed);
    }

    void work() {
        for (size_t index;;) {
            if (claim(&index)) {
                // Another batch waiting: one more worker for it.
                const size_t started = started_.load();
                if (given_.load() >= started + batch_ && idle_.load() > 0) jobGiven_.notify_one();
                run(index);
                continue;
            }
            std::unique_lock<std::mutex> guard(lock_);
            idle_.fetch_add(1);
            jobGiven_.wait(guard, [&] { return stopping_.load() || started_.load() < given_.load(); });
            idle_.fetch_sub(1);
            if (stopping_.load()) return;
        }
    }

    std::vector<Slot> slots_;
    const size_t batch_;
    std::vector<std::thread> threads_;
    // Jobs queued by the owner, handed over to the workers, started (by a
    // worker or the owner) and taken back. A thread that goes to sleep says
    // so (idle_, awaited_) before it looks a last time for work or a result,
    // and the one that makes some looks after making it: with sequentially
    // consistent atomics, one of the two sees the other, and a waker takes
    // the lock before notifying, so no wake-up is lost.
    size_t queued_ = 0, taken_ = 0;
    std::atomic<size_t> given_{0}, started_{0};
    std::atomic<size_t> idle_{0};
    std::atomic<size_t> awaited_{kNone};
    std::atomic<bool> stopping_{false};
    std::mutex lock_;
    std::condition_variable jobGiven_, jobDone_;
};

}  // namespace qvl
