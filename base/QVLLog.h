// QVLLog: the one logging function of the system. It formats a message
// (QVLFormat.h) and hands it to the shared QVLLogModel, which sends it to the
// system log and, once file logging is on, appends it to the daily log file.
//
// Thread-safety: QVLLog may be called from any thread.
#pragma once

#include <string_view>

#include "base/QVLFormat.h"

namespace qvl {

// Logs one already formatted message through the shared QVLLogModel.
void QVLLogMessage(std::string_view message);
// Formats and logs one message through the shared QVLLogModel.
void QVLLogFormatted(std::string_view format, const QVLLogArg* args, size_t count);

template <class... Args>
void QVLLog(std::string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        QVLLogFormatted(format, nullptr, 0);
    } else {
        const std::array<QVLLogArg, sizeof...(Args)> list{QVLLogArg(args)...};
        QVLLogFormatted(format, list.data(), list.size());
    }
}

}  // namespace qvl

using qvl::QVLLog;
