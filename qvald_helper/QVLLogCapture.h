// QVLLogCapture: test helper that collects every message logged through
// QVLLog (and every direct system-log message) while it lives, so tests can
// check log lines word for word. Captures nest: the previous capture is
// restored on destruction and still sees the messages.
//
// Thread-safety: messages may arrive from any thread.
#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "qvald_helper/QVLLogModel.h"

namespace qvl {

class QVLLogCapture {
  public:
    QVLLogCapture() {
        auto& model = QVLLogModel::sharedInstance();
        previous_ = model.captureForTesting();
        model.setCaptureForTesting([this](std::string_view message) {
            {
                std::lock_guard<std::mutex> guard(mutex_);
                lines_.emplace_back(message);
            }
            if (previous_) previous_(message);
        });
    }
    ~QVLLogCapture() { QVLLogModel::sharedInstance().setCaptureForTesting(previous_); }
    QVLLogCapture(const QVLLogCapture&) = delete;
    QVLLogCapture& operator=(const QVLLogCapture&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }
    bool contains(std::string_view line) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
    }
    // Whether some line begins with `prefix`.
    bool containsPrefix(std::string_view prefix) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return std::any_of(lines_.begin(), lines_.end(),
                           [&](const std::string& l) { return l.compare(0, prefix.size(), prefix) == 0; });
    }
    void clear() {
        std::lock_guard<std::mutex> guard(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::function<void(std::string_view)> previous_;
};

}  // namespace qvl
