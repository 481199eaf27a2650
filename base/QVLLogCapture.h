// QVLLogCapture: test helper that collects every message a log model sends
// to the system log (so every message logged through QVLLog, and every
// direct system-log message) while it lives, so tests can check log lines
// word for word. Captures nest: each one sees every message.
//
// Thread-safety: messages may arrive from any thread.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/QVLLogModel.h"

namespace qvl {

class QVLLogCapture {
  public:
    explicit QVLLogCapture(QVLLogModel& model = QVLLogModel::sharedInstance())
        : observation_(model, [this](std::string_view message) {
              std::lock_guard<std::mutex> guard(mutex_);
              lines_.emplace_back(message);
          }) {}

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
    // Last: removed first, before the lines it writes to go.
    QVLLogObservation observation_;
};

}  // namespace qvl
