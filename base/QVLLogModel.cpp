#include "base/QVLLogModel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>

#include "base/Errno.h"
#include "base/FolderAccess.h"
#include "base/QVLLog.h"

namespace qvl {

namespace {

constexpr const char* kFinishDemoRestoreLog = "finish-demo-retore.log";
constexpr const char* kWritabilityProbe = "testWritability.log";
// A line buffer grown past this by one long line is given back afterwards.
constexpr size_t kKeptLineCapacity = 4096;
// Folders made for the log file get the usual default mode whatever the
// process's umask; a client opens the log folder to others when it needs to.
constexpr uint32_t kNewFolderMode = 0755;

double unixNow() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Opens the folder at `path`, making what is missing. The folders on the way
// are the program's own choice and followed as they are; the last one is
// not, since a client may open the folder that holds it to everyone
// ("prepareLogContainer:" accepts the log folder's parent).
int openLogFolder(const std::string& path, UniqueFd* out) {
    if (path.empty()) return ENOENT;
    UniqueFd current(::open(path[0] == '/' ? "/" : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!current.valid()) return lastError();
    for (size_t start = 0; start < path.size();) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const std::string name = path.substr(start, end - start);
        start = end + 1;
        if (name.empty()) continue;
        const bool last = path.find_first_not_of('/', start) == std::string::npos;
        UniqueFd next;
        if (last) {
            if (int err = openFolderAt(current.get(), name, true, kNewFolderMode, &next)) return err;
        } else {
            if (::mkdirat(current.get(), name.c_str(), kNewFolderMode) != 0 && errno != EEXIST)
                return lastError();
            next.reset(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (!next.valid()) return lastError();
        }
        current = std::move(next);
    }
    *out = std::move(current);
    return 0;
}

// Why a log folder or file is not used, for the one line that says so.
std::string reasonFor(int err) {
    switch (err) {
        case ELOOP:
            return "it is a symbolic link";
        case EINVAL:
        case ENXIO:  // a fifo without a reader, a socket
            return "it is not a regular file";
        case EISDIR:
            return "it is a folder";
        case EPERM:
            return "it belongs to another user";
        case EMLINK:
            return "it has other hard links";
        default:
            return std::strerror(err);
    }
}

// The entry's creation date in Unix seconds, read without following a link.
// Where the file system records no birth time there is no creation date
// (the modification time would say nothing about the entry's age), and the
// entry is kept, as is one whose attributes can't be read.
std::optional<double> creationDate(int folderFd, const char* name) {
    struct statx sx {};
    if (statx(folderFd, name, AT_SYMLINK_NOFOLLOW, STATX_BTIME, &sx) != 0) return std::nullopt;
    if (!(sx.stx_mask & STATX_BTIME)) return std::nullopt;
    return static_cast<double>(sx.stx_btime.tv_sec) + static_cast<double>(sx.stx_btime.tv_nsec) / 1e9;
}

std::string expandTilde(const std::string& path) {
    if (path.empty() || path[0] != '~') return path;
    const char* home = getenv("HOME");
    if (!home || (path.size() > 1 && path[1] != '/')) return path;
    return std::string(home) + path.substr(1);
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

// The system-log copy of every line: one datagram to the daemon at /dev/log,
// in the traditional "<13>Mmm dd hh:mm:ss name[pid]: message" form, over a
// socket connected once. The copy never holds up the caller: the socket does
// not block, and a copy the daemon has no room for is dropped (the log file
// keeps the line). Without a daemon, a connection is tried at most once a
// second, so one that starts later is found.
class SystemLogSocket {
  public:
    static SystemLogSocket& sharedInstance() {
        static SystemLogSocket* socket = new SystemLogSocket();  // lives until exit
        return *socket;
    }

    void send(std::string_view message) {
        // Without a daemon every line would take the lock only to learn that
        // the next try is not due yet; it learns that from two atomics.
        if (!connected_.load(std::memory_order_relaxed) && coarseSeconds() < nextAttempt_.load()) return;
        std::lock_guard<std::mutex> guard(lock_);
        if (!fd_ && !connectAtMostOnceASecond()) return;
        line_.assign(header());
        line_.append(message);
        if (::send(fd_.get(), line_.data(), line_.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 &&
            errno != EAGAIN && errno != ENOBUFS && errno != EMSGSIZE) {
            fd_.reset();  // the daemon went: connect again later
            connected_ = false;
        }
        if (line_.capacity() > kKeptLineCapacity) std::string().swap(line_);
    }

  private:
    static int64_t coarseSeconds() {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
        return ts.tv_sec;
    }

    bool connectAtMostOnceASecond() {
        const int64_t now = coarseSeconds();
        if (now < nextAttempt_) return false;
        nextAttempt_ = now + 1;
        UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        if (!fd || ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            return false;
        fd_ = std::move(fd);
        connected_ = true;
        return true;
    }

    // "<13>Nov 23 16:40:00 qvald_helper[42]: ", the local time changing once a second.
    std::string_view header() {
        const time_t now = time(nullptr);
        if (now != headerSecond_ || headerLength_ == 0) {
            tm parts{};
            localtime_r(&now, &parts);
            char stamp[32];
            strftime(stamp, sizeof stamp, "%b %e %T", &parts);
            const int n = snprintf(header_, sizeof header_, "<%d>%s %s[%d]: ", LOG_USER | LOG_NOTICE, stamp,
                                   program_invocation_short_name, static_cast<int>(::getpid()));
            headerLength_ = n > 0 ? std::min(static_cast<size_t>(n), sizeof header_ - 1) : 0;
            headerSecond_ = now;
        }
        return {header_, headerLength_};
    }

    std::mutex lock_;
    UniqueFd fd_;
    std::atomic<bool> connected_{false};   // fd_ is set; written under the lock
    std::atomic<int64_t> nextAttempt_{0};  // when to try connecting again; written under the lock
    std::string line_;
    time_t headerSecond_ = 0;
    char header_[128] = {};
    size_t headerLength_ = 0;
};

// Every request logs a few lines: each is built in a buffer kept per thread,
// so a line costs no allocation. A line logged while the thread's buffer is in
// use (by a description that logs) gets a buffer of its own.
class LineBuffer {
  public:
    LineBuffer() : nested_(inUse_), text_(nested_ ? own_ : kept_) {
        inUse_ = true;
        text_.clear();
    }
    ~LineBuffer() {
        if (nested_) return;
        inUse_ = false;
        if (kept_.capacity() > kKeptLineCapacity) std::string().swap(kept_);  // a rare long line
    }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    std::string& text() { return text_; }

  private:
    static thread_local std::string kept_;
    static thread_local bool inUse_;
    const bool nested_;
    std::string own_;
    std::string& text_;
};

thread_local std::string LineBuffer::kept_;
thread_local bool LineBuffer::inUse_ = false;

// One line, in one write(2) (a buffered stream would add its own locking and
// copy to each line and then flush it all the same). Only a short write, as
// on a full disk, takes a second one for the rest.
void writeLine(int fd, std::string_view line) {
    while (!line.empty()) {
        const ssize_t n = ::write(fd, line.data(), line.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the line is lost; the system log has its copy
        line.remove_prefix(static_cast<size_t>(n));
    }
}

void writeSystemLog(std::string_view message) {
    SystemLogSocket::sharedInstance().send(message);
}

// Writes one byte to a new file in the folder and removes it again. Whatever
// is at the probe's name first (a probe left by an interrupted start, a link,
// a hard link, a fifo) is removed as the name itself, never what it leads
// to, and the probe is then created new, so it can't be anything but ours.
int writabilityTest(int folderFd) {
    ::unlinkat(folderFd, kWritabilityProbe, 0);
    RegularFileOptions options;
    options.access = O_WRONLY;
    options.create = options.exclusive = true;
    UniqueFd probe;
    if (int err = openRegularFileAt(folderFd, kWritabilityProbe, options, &probe)) return err;
    const int err = ::write(probe.get(), "a", 1) == 1 ? 0 : lastError();
    probe.reset();
    ::unlinkat(folderFd, kWritabilityProbe, 0);  // the outcome of the removal is not looked at
    return err;
}

}  // namespace

void QVLLogMessage(std::string_view message) {
    QVLLogModel::sharedInstance().logMessage(message);
}

void QVLLogFormatted(std::string_view format, const QVLLogArg* args, size_t count) {
    QVLLogModel::sharedInstance().logFormatted(format, args, count);
}

QVLLogModel::QVLLogModel(Services services)
    : services_(std::move(services)), observers_(std::make_shared<const ObserverList>()) {}

QVLLogModel::~QVLLogModel() = default;

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
    if (observerCount_.load(std::memory_order_acquire) == 0) return;
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
    observerCount_.store(list->size(), std::memory_order_release);
    observers_ = std::move(list);
    return token;
}

void QVLLogModel::removeObserver(uint64_t token) {
    std::lock_guard<std::mutex> guard(observerLock_);
    auto list = std::make_shared<ObserverList>(*observers_);
    std::erase_if(*list, [token](const ObserverEntry& entry) { return entry.token == token; });
    observerCount_.store(list->size(), std::memory_order_release);
    observers_ = std::move(list);
}

void QVLLogModel::logMessage(std::string_view message) {
    LineBuffer buffer;
    std::string& line = buffer.text();
    const size_t messageStart = startLine(line);
    line.append(message);
    emitLine(line, messageStart);
}

void QVLLogModel::logFormatted(std::string_view format, const QVLLogArg* args, size_t count) {
    LineBuffer buffer;
    std::string& line = buffer.text();
    const size_t messageStart = startLine(line);
    QVLFormatAppend(line, format, args, count);
    emitLine(line, messageStart);
}

size_t QVLLogModel::startLine(std::string& line) const {
    line.append(cachedDateText(now())).append(1, ' ');
    return line.size();
}

void QVLLogModel::emitLine(std::string& line, size_t messageStart) {
    line.append(1, '\n');
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (logFd_) writeLine(logFd_.get(), line);
    }
    systemLog(std::string_view(line).substr(messageStart, line.size() - 1 - messageStart));
}

bool QVLLogModel::enableLogToFile(const std::string& requestedPath) {
    const std::string path = expandTilde(requestedPath);
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    UniqueFd folderFd;
    if (int err = openLogFolder(folder, &folderFd)) return fileLoggingOff(folder, err);
    return openLogFile(folderFd.get(), path.substr(slash == std::string::npos ? 0 : slash + 1), path);
}

bool QVLLogModel::openLogFile(int folderFd, const std::string& name, const std::string& path) {
    // Appended to across starts of a day, so an existing file is used, but
    // only a plain file of this process's user with no other name: anything
    // else at the name may have been put there to have our lines written
    // elsewhere.
    RegularFileOptions options;
    options.access = O_WRONLY | O_APPEND;
    options.create = true;
    options.requireOwnedBySelf = options.requireSingleLink = true;
    UniqueFd file;
    if (int err = openRegularFileAt(folderFd, name, options, &file)) return fileLoggingOff(path, err);
    install(std::move(file));
    return true;
}

bool QVLLogModel::enableLogToStandardError() {
    UniqueFd copy(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    if (!copy) return false;
    install(std::move(copy));
    return true;
}

void QVLLogModel::install(UniqueFd fd) {
    std::lock_guard<std::mutex> guard(lock_);
    // The earlier stream, if any, is closed: the helper opens one per process.
    logFd_ = std::move(fd);
}

bool QVLLogModel::fileLoggingOff(const std::string& path, int err) {
    systemLog(
        QVLStringWithFormat("Not logging to %@: %@; logging to the system log only.", path, reasonFor(err)));
    return false;
}

bool QVLLogModel::logToFileEnabled() const {
    std::lock_guard<std::mutex> guard(lock_);
    return logFd_.valid();
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

void QVLLogModel::removeExpiredEntries(int folderFd, const std::string& folder, long expireDays,
                                       bool skipFinishDemoRestore) {
    const double cutoff = now() - static_cast<double>(expireDays) * 86400.0;
    const std::string cutoffText = dateText(cutoff);
    const DirStream stream = openStream(folderFd);
    if (!stream) return;
    while (const dirent* entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (skipFinishDemoRestore && name == kFinishDemoRestoreLog) continue;
        const std::string fullPath = folder + "/" + name;
        systemLog(QVLStringWithFormat("Checking existing log file (full path) %@ against %@", fullPath,
                                      cutoffText));
        const std::optional<double> created = creationDate(folderFd, name.c_str());
        if (!created || !(*created < cutoff)) continue;
        systemLog(
            QVLStringWithFormat("Removing %@ whose creation date is %@.", fullPath, dateText(*created)));
        removeTreeAt(folderFd, name);  // a failed removal is ignored
    }
}

bool QVLLogModel::enableLogToFilesUnder(const std::string& folder, const std::string& prefix, long expireDays,
                                        bool skipFinishDemoRestore) {
    UniqueFd folderFd;
    if (int err = openLogFolder(folder, &folderFd)) return fileLoggingOff(folder, err);
    if (int err = writabilityTest(folderFd.get()))
        return fileLoggingOff(folder + "/" + kWritabilityProbe, err);
    removeExpiredEntries(folderFd.get(), folder, expireDays, skipFinishDemoRestore);
    const std::string path = fileNameForTodayUnder(folder, prefix);
    return openLogFile(folderFd.get(), path.substr(path.rfind('/') + 1), path);
}

double QVLLogModel::now() const {
    return services_.clock ? services_.clock() : unixNow();
}

}  // namespace qvl
