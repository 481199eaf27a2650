// QVLProgressUpdater: turns an amount of work done into whole percentages and
// sends each percentage as it rises. A walk sets the total with
// initializePercentageWithTotal and reports each piece of work with
// updatePercentageWithIncrement; a percentage is sent only when it is greater
// than the last one sent, so at most one message goes out per whole percent
// and 0 is never sent. Nothing caps the value at 100.
//
// Where the percentages go is given at construction: a tool sends them to its
// progress bar. The shared instance is connected once, at start, by the
// process entry, which routes them to its client. Without a sender they are
// dropped.
//
// Thread-safety: each property is read and written atomically on its own, and
// the sender may be set from any thread, but an update as a whole is not
// atomic: one thread drives an updater at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>

namespace qvl {

class QVLProgressUpdater {
  public:
    using ProgressSender = std::function<void(int64_t percent)>;

    explicit QVLProgressUpdater(ProgressSender sender = {}) : sender_(std::move(sender)) {}
    QVLProgressUpdater(const QVLProgressUpdater&) = delete;
    QVLProgressUpdater& operator=(const QVLProgressUpdater&) = delete;

    static QVLProgressUpdater& sharedInstance();

    void initializePercentageWithTotal(int64_t total);
    void updatePercentageWithIncrement(int64_t increment);

    int64_t total() const { return total_.load(); }
    int64_t finished() const { return finished_.load(); }
    int32_t reportedPercent() const { return reportedPercent_.load(); }

    // Connects the shared instance to the helper's client (the process entry
    // does this once, before the first request).
    void setProgressSender(ProgressSender sender);

  private:
    void send(int32_t percent);

    std::atomic<int64_t> total_{0};
    std::atomic<int64_t> finished_{0};
    std::atomic<int32_t> reportedPercent_{0};
    std::mutex senderLock_;
    ProgressSender sender_;
};

}  // namespace qvl
