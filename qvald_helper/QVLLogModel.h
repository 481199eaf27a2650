// QVLLogModel: where log lines go. Every message goes to the system log
// (syslog(3)); once a log file is open, each message is also appended to it as
// "<date> <message>\n" with the UTC date in "2026-11-22 21:04:05 +0000" form,
// written and flushed under the model's lock so that lines of concurrent
// writers never interleave. The file stays open for the life of the process.
//
// Thread-safety: every method may be called from any thread; the file stream
// is set once at start, before other threads log.
#pragma once

#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace qvl {

class QVLLogModel {
  public:
    static QVLLogModel& sharedInstance();

    // Formats and logs; the variadic form lives in QVLLog.h.
    void logMessage(std::string_view message);

    // Opens `path` for appending (creating its parent folders), replacing any
    // earlier stream. Returns whether a stream was opened.
    bool enableLogToFile(const std::string& path);
    bool logToFileEnabled() const;

    // "<folder>/<prefix>-YYYYMMDD.log" for today's local date.
    static std::string fileNameForTodayUnder(const std::string& folder, const std::string& prefix);

    // Creates the folder, tests that it is writable, removes entries whose
    // creation date is older than `expireDays` days, then opens today's file.
    bool enableLogToFilesUnder(const std::string& folder, const std::string& prefix, long expireDays);
    // The same, but an entry named "finish-demo-retore.log" is never removed.
    bool enableLogToFilesUnder_skipFinishDemoRestore(const std::string& folder, const std::string& prefix,
                                                     long expireDays);

    // The date text of a log line for a given time (seconds since 1970).
    static std::string dateText(double unixSeconds);

    // Sends a message to the system log only (used directly for the expiry
    // messages, which are written before the file is open).
    void systemLog(std::string_view message);

    // Test hooks. A capture sees every system-log message (so every logged
    // message, without the date), in order; it is called outside the file
    // lock. Pass an empty function to remove it. Tests use QVLLogCapture.
    void setCaptureForTesting(std::function<void(std::string_view)> capture);
    std::function<void(std::string_view)> captureForTesting();
    // Replaces the clock (Unix seconds) used for line dates and expiry.
    void setClockForTesting(std::function<double()> clock);
    // Closes the file stream (tests only; the helper never closes it).
    void closeLogFileForTesting();

  private:
    QVLLogModel() = default;
    bool enableLogToFilesUnder(const std::string& folder, const std::string& prefix, long expireDays,
                               bool skipFinishDemoRestore);
    static bool writabilityTest(const std::string& folder);
    void removeExpiredEntries(const std::string& folder, long expireDays, bool skipFinishDemoRestore);
    double now() const;

    FILE* logFP_ = nullptr;
    mutable std::mutex lock_;  // orders file writes; the model's lock
    mutable std::mutex captureLock_;
    std::function<void(std::string_view)> capture_;
    std::function<double()> clock_;
};

}  // namespace qvl
