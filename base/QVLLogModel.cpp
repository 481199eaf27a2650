#include "base/QVLLogModel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>

#include "base/QVLLog.h"

namespace qvl {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFinishDemoRestoreLog = "finish-demo-retore.log";
constexpr const char* kWritabilityProbe = "testWritability.log";
// A line buffer grown past this by one long line is given back afterwards.
constexpr size_t kKeptLineCapacity = 4096;

double unixNow() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

bool createFolderWithIntermediates(const std::string& folder) {
    std::error_code ec;
    if (fs::is_directory(folder, ec)) return true;
    fs::create_directories(folder, ec);
    return !ec && fs::is_directory(folder, ec);
}

// The entry's creation date in Unix seconds. The birth time is used where the
// file system records one; where it does not, the modification time stands in
// for it: a log file is only appended to, so its modification time is never
// earlier than its birth and the fallback can only keep a file longer, never
// remove it early. No attributes: no date, and the entry is kept.
std::optional<double> creationDate(const std::string& path) {
    struct statx sx {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &sx) != 0)
        return std::nullopt;
    const auto& t = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_mtime;
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

std::string expandTilde(const std::string& path) {
    if (path.empty() || path[0] != '~') return path;
    const char* home = getenv("HOME");
    if (!home || (path.size() > 1 && path[1] != '/')) return path;
    return std::string(home) + path.substr(1);
}

// Whether a system-log daemon listens. Without one, syslog(3) would try (and
// fail) to connect on every call, which triples the system calls of a
// request; the answer is looked up again at most once a second, so a daemon
// that starts later is found.
bool systemLogAvailable() {
    static std::atomic<int64_t> nextCheck{0};
    static std::atomic<bool> available{false};
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    if (ts.tv_sec >= nextCheck.load(std::memory_order_relaxed)) {
        struct stat st {};
        available.store(stat("/dev/log", &st) == 0 && S_ISSOCK(st.st_mode), std::memory_order_relaxed);
        nextCheck.store(ts.tv_sec + 1, std::memory_order_relaxed);
    }
    return available.load(std::memory_order_relaxed);
}

// The date text of a second, "2026-11-22 21:04:05 +0000". Every line starts
// with it and it changes once a second, so each thread keeps the last one.
std::string_view cachedDateText(double unixSeconds) {
    struct Cache {
        bool valid = false;
        time_t second = 0;
        char text[64] = {};
    };
    thread_local Cache cache;
    const time_t t = static_cast<time_t>(std::floor(unixSeconds));
    if (!cache.valid || cache.second != t) {
        tm parts{};
        gmtime_r(&t, &parts);
        strftime(cache.text, sizeof cache.text, "%Y-%m-%d %H:%M:%S +0000", &parts);
        cache.second = t;
        cache.valid = true;
    }
    return cache.text;
}

void writeSystemLog(std::string_view message) {
    if (!systemLogAvailable()) return;
    syslog(LOG_NOTICE, "%.*s", static_cast<int>(message.size()), message.data());
}

bool writabilityTest(const std::string& folder) {
    const std::string probe = folder + "/" + kWritabilityProbe;
    const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return false;
    const bool written = write(fd, "a", 1) == 1;
    close(fd);
    unlink(probe.c_str());  // the outcome of the removal is not looked at
    return written;
}

}  // namespace

void QVLLogMessage(std::string_view message) {
    QVLLogModel::sharedInstance().logMessage(message);
}

QVLLogModel::QVLLogModel(Services services)
    : services_(std::move(services)), observers_(std::make_shared<const ObserverList>()) {}

QVLLogModel::~QVLLogModel() {
    if (logFP_) fclose(logFP_);
}

QVLLogModel& QVLLogModel::sharedInstance() {
    static QVLLogModel* model = new QVLLogModel();  // lives until exit; never destroyed mid-log
    return *model;
}

std::string QVLLogModel::dateText(double unixSeconds) {
    return std::string(cachedDateText(unixSeconds));
}

void QVLLogModel::systemLog(std::string_view message) {
    if (services_.systemLog)
        services_.systemLog(message);
    else
        writeSystemLog(message);
    std::shared_ptr<const ObserverList> observers;
    {
        std::lock_guard<std::mutex> guard(observerLock_);
        observers = observers_;
    }
    for (const ObserverEntry& entry : *observers) entry.observer(message);
}

uint64_t QVLLogModel::addObserver(Observer observer) {
    std::lock_guard<std::mutex> guard(observerLock_);
    auto list = std::make_shared<ObserverList>(*observers_);
    const uint64_t token = nextToken_++;
    list->push_back({token, std::move(observer)});
    observers_ = std::move(list);
    return token;
}

void QVLLogModel::removeObserver(uint64_t token) {
    std::lock_guard<std::mutex> guard(observerLock_);
    auto list = std::make_shared<ObserverList>(*observers_);
    std::erase_if(*list, [token](const ObserverEntry& entry) { return entry.token == token; });
    observers_ = std::move(list);
}

void QVLLogModel::logMessage(std::string_view message) {
    // Every request logs a few lines: the line is built in a buffer kept per
    // thread, so a line costs no allocation.
    thread_local std::string line;
    line.clear();
    line.append(cachedDateText(now())).append(1, ' ').append(message).append(1, '\n');
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (logFP_) {
            fwrite(line.data(), 1, line.size(), logFP_);
            fflush(logFP_);
        }
    }
    if (line.capacity() > kKeptLineCapacity) std::string().swap(line);  // a rare long line
    systemLog(message);
}

bool QVLLogModel::enableLogToFile(const std::string& requestedPath) {
    const std::string path = expandTilde(requestedPath);
    const std::string parent = fs::path(path).parent_path().string();
    if (!parent.empty() && !createFolderWithIntermediates(parent)) return false;
    // "e": the log stream must not leak into anything the helper starts.
    FILE* fp = fopen(path.c_str(), "ae");
    if (!fp) return false;
    std::lock_guard<std::mutex> guard(lock_);
    // The earlier stream, if any, is closed: the helper opens one per
    // process, and a replaced stream would otherwise leak its descriptor.
    if (logFP_) fclose(logFP_);
    logFP_ = fp;
    return true;
}

bool QVLLogModel::logToFileEnabled() const {
    std::lock_guard<std::mutex> guard(lock_);
    return logFP_ != nullptr;
}

std::string QVLLogModel::fileNameForTodayUnder(const std::string& folder, const std::string& prefix) {
    time_t t = time(nullptr);
    tm parts{};
    localtime_r(&t, &parts);
    return QVLStringWithFormat("%@/%@-%4ld%02ld%02ld.log", folder, prefix,
                               static_cast<long>(parts.tm_year + 1900), static_cast<long>(parts.tm_mon + 1),
                               static_cast<long>(parts.tm_mday));
}

bool QVLLogModel::enableLogToFilesUnder(const std::string& folder, const std::string& prefix,
                                        long expireDays) {
    return enableLogToFilesUnder(folder, prefix, expireDays, false);
}

bool QVLLogModel::enableLogToFilesUnder_skipFinishDemoRestore(const std::string& folder,
                                                              const std::string& prefix, long expireDays) {
    return enableLogToFilesUnder(folder, prefix, expireDays, true);
}

void QVLLogModel::removeExpiredEntries(const std::string& folder, long expireDays,
                                       bool skipFinishDemoRestore) {
    const double cutoff = now() - static_cast<double>(expireDays) * 86400.0;
    const std::string cutoffText = dateText(cutoff);
    std::error_code ec;
    fs::directory_iterator it(folder, ec);
    if (ec) return;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec) break;
        const std::string name = it->path().filename().string();
        if (skipFinishDemoRestore && name == kFinishDemoRestoreLog) continue;
        const std::string fullPath = folder + "/" + name;
        systemLog(QVLStringWithFormat("Checking existing log file (full path) %@ against %@", fullPath,
                                      cutoffText));
        const std::optional<double> created = creationDate(fullPath);
        if (!created || !(*created < cutoff)) continue;
        systemLog(
            QVLStringWithFormat("Removing %@ whose creation date is %@.", fullPath, dateText(*created)));
        std::error_code removeError;
        fs::remove_all(fullPath, removeError);  // a failed removal is ignored
    }
}

bool QVLLogModel::enableLogToFilesUnder(const std::string& folder, const std::string& prefix, long expireDays,
                                        bool skipFinishDemoRestore) {
    if (!createFolderWithIntermediates(folder)) return false;
    if (!writabilityTest(folder)) return false;
    removeExpiredEntries(folder, expireDays, skipFinishDemoRestore);
    return enableLogToFile(fileNameForTodayUnder(folder, prefix));
}

double QVLLogModel::now() const {
    return services_.clock ? services_.clock() : unixNow();
}

}  // namespace qvl
