#include "base/QVLProgressUpdater.h"

#include "base/QVLLog.h"

namespace qvl {

QVLProgressUpdater& QVLProgressUpdater::sharedInstance() {
    static QVLProgressUpdater updater;
    return updater;
}

void QVLProgressUpdater::initializePercentageWithTotal(int64_t total) {
    QVLLog("Initializing percent with total %lld", static_cast<long long>(total));
    finished_.store(0);
    total_.store(total);
    reportedPercent_.store(0);
}

void QVLProgressUpdater::updatePercentageWithIncrement(int64_t increment) {
    // Wrapping addition: a hostile sequence of increments must not be undefined behaviour.
    const int64_t finished =
        static_cast<int64_t>(static_cast<uint64_t>(finished_.load()) + static_cast<uint64_t>(increment));
    finished_.store(finished);
    const int64_t total = total_.load();
    // A total of 0 has no percentages: nothing is sent rather than dividing by it.
    if (total == 0) return;
    const __int128 wide = static_cast<__int128>(finished) * 100 / total;
    const auto percent = static_cast<int32_t>(static_cast<int64_t>(wide));
    if (percent <= reportedPercent_.load()) return;
    QVLLog("Percentage increased to %d", percent);
    send(percent);
    reportedPercent_.store(percent);
}

void QVLProgressUpdater::setProgressSender(ProgressSender sender) {
    std::lock_guard<std::mutex> guard(senderLock_);
    sender_ = std::move(sender);
}

void QVLProgressUpdater::send(int32_t percent) {
    ProgressSender sender;
    {
        std::lock_guard<std::mutex> guard(senderLock_);
        sender = sender_;
    }
    if (sender) sender(static_cast<int64_t>(percent));
}

}  // namespace qvl
