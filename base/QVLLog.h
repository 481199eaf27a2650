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

template <class... Args>
void QVLLog(std::string_view format, const Args&... args) {
    QVLLogMessage(QVLStringWithFormat(format, args...));
}

}  // namespace qvl

using qvl::QVLLog;
