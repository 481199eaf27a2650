// QVLLogModel: where log lines go. Every message goes to the system log
// (a datagram to /dev/log that never blocks the caller); once a log file is
// open, each message is also appended to it as "<date> <message>\n" with the
// UTC date in "2026-11-22 21:04:05 +0000" form, written in one write(2) under
// the model's lock so that lines of concurrent writers never interleave. The file stays open for the life of
// the model (the shared one lives as long as the process).
//
// Observers see every message that goes to the system log (so every logged
// message, without the date), in order, on the thread that logged it and
// outside the file lock. `qvlmanifest verify` prints them; the tests' log
// capture (QVLLogCapture) collects them. An observer must not log.
//
// The process uses sharedInstance(), which reads the real clock and writes
// to the system log. A model made with other Services (a fixed clock, a recording
// system log) is for tests and tools that want lines of their own.
//
// Thread-safety: every method may be called from any thread; the file stream
// is set at start, before other threads log.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/QVLFormat.h"
#include "base/UniqueFd.h"

namespace qvl {

class QVLLogModel {
  public:
    using Observer = std::function<void(std::string_view message)>;

    struct Services {
        // Unix seconds, for line dates and expiry; empty: the real-time clock.
        std::function<double()> clock;
        // Receives each system-log copy; empty: the daemon at /dev/log, when one listens.
        std::function<void(std::string_view message)> systemLog;
    };

    explicit QVLLogModel(Services services = {});
    ~QVLLogModel();
    QVLLogModel(const QVLLogModel&) = delete;
    QVLLogModel& operator=(const QVLLogModel&) = delete;

    static QVLLogModel& sharedInstance();

    // Writes one line (the variadic, formatting form is QVLLog).
    void logMessage(std::string_view message);
    // Formats the message straight into the line and writes it.
    void logFormatted(std::string_view format, const QVLLogArg* args, size_t count);

    // Opens `path` for appending (creating its parent folders), replacing any
    // earlier stream. Returns whether a stream was opened. The folder may be
    // one that others can write, so the file is opened without following a
    // link at its name or at the folder's, without blocking, and used only
    // when it is a regular file of this process's user with no other hard
    // link; otherwise one line says why and lines go to the system log only.
    bool enableLogToFile(const std::string& path);
    // Lines go to (a copy of) the standard error stream, for tools.
    bool enableLogToStandardError();
    bool logToFileEnabled() const;

    // "<folder>/<prefix>-YYYYMMDD.log" for today's local date.
    static std::string fileNameForTodayUnder(const std::string& folder, const std::string& prefix);

    // Creates the folder, tests that it is writable, removes entries whose
    // creation date is older than `expireDays` days (an entry without a
    // recorded birth time is kept), then opens today's file as
    // enableLogToFile does. All of it works through one descriptor of the
    // folder, never following a link in it.
    bool enableLogToFilesUnder(const std::string& folder, const std::string& prefix, long expireDays);
    // The same, but an entry named "finish-demo-retore.log" is never removed.
    bool enableLogToFilesUnder_skipFinishDemoRestore(const std::string& folder, const std::string& prefix,
                                                     long expireDays);

    // The date text of a log line for a given time (seconds since 1970).
    static std::string dateText(double unixSeconds);

    // Sends a message to the system log only (used directly for the expiry
    // messages, which are written before the file is open).
    void systemLog(std::string_view message);

    // Adds an observer; the token removes it again.
    uint64_t addObserver(Observer observer);
    void removeObserver(uint64_t token);

  private:
    bool enableLogToFilesUnder(const std::string& folder, const std::string& prefix, long expireDays,
                               bool skipFinishDemoRestore);
    void removeExpiredEntries(int folderFd, const std::string& folder, long expireDays,
                              bool skipFinishDemoRestore);
    bool openLogFile(int folderFd, const std::string& name, const std::string& path);
    void install(UniqueFd fd);
    // Says once why file logging is off; always false.
    bool fileLoggingOff(const std::string& path, int err);
    // Ends `line` (date, space, message from `messageStart`), writes it to
    // the file and copies the message to the system log.
    void emitLine(std::string& line, size_t messageStart);
    // Starts a line with the date and a space; answers where the message goes.
    size_t startLine(std::string& line) const;
    double now() const;

    struct ObserverEntry {
        uint64_t token;
        Observer observer;
    };
    using ObserverList = std::vector<ObserverEntry>;

    const Services services_;
    UniqueFd logFd_;           // the log file or standard error; invalid: none
    mutable std::mutex lock_;  // orders file writes; the model's lock
    std::mutex observerLock_;
    // Replaced whole on every change, so a message reads the list without
    // holding the lock while observers run.
    std::shared_ptr<const ObserverList> observers_;
    // How many observers there are, read without the lock: a line logged
    // while there are none (the helper's case) skips the list altogether.
    std::atomic<size_t> observerCount_{0};
    uint64_t nextToken_ = 1;
};

// Keeps an observer on a model for its own lifetime.
class QVLLogObservation {
  public:
    QVLLogObservation(QVLLogModel& model, QVLLogModel::Observer observer)
        : model_(model), token_(model.addObserver(std::move(observer))) {}
    ~QVLLogObservation() { model_.removeObserver(token_); }
    QVLLogObservation(const QVLLogObservation&) = delete;
    QVLLogObservation& operator=(const QVLLogObservation&) = delete;

  private:
    QVLLogModel& model_;
    uint64_t token_;
};

}  // namespace qvl
