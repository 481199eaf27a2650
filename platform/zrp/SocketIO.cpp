#include "platform/zrp/SocketIO.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace qvl::zrp {

std::string errnoText(std::string_view what) {
    return std::string(what) + ": " + std::strerror(errno);
}

namespace {

bool setError(std::string* error, std::string text) {
    if (error) *error = std::move(text);
    return false;
}

std::optional<sockaddr_un> socketAddress(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return std::nullopt;
    std::memcpy(addr.sun_path, path.data(), path.size());
    return addr;
}

// mkdir -p with mode 0755 for every folder it makes.
bool makeFolders(const std::string& dir, std::string* error) {
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos != dir.size() && dir[pos] != '/') continue;
        const std::string prefix = dir.substr(0, pos);
        if (::mkdir(prefix.c_str(), 0755) == 0) {
            ::chmod(prefix.c_str(), 0755);  // whatever the umask
        } else if (errno != EEXIST) {
            return setError(error, errnoText("cannot create " + prefix));
        }
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return setError(error, "socket folder " + dir + " is not a folder");
    return true;
}

// A socket file nobody accepts on is stale. Anything else at the path is kept.
bool clearStaleSocket(const std::string& path, std::string* error) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)
        return errno == ENOENT || setError(error, errnoText("cannot stat " + path));
    if (!S_ISSOCK(st.st_mode)) return setError(error, path + " exists and is not a socket");
    std::string ignored;
    if (connectToPath(path, &ignored)) return setError(error, "a listener is already running at " + path);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        return setError(error, errnoText("cannot remove stale socket " + path));
    return true;
}

bool pidfdExited(int pidfd) {
    pollfd p{pidfd, POLLIN, 0};
    return ::poll(&p, 1, 0) != 0;  // readable (or an error): the process is gone
}

}  // namespace

std::optional<std::string> servicePath(std::string_view serviceName, std::string_view socketDirectory,
                                       std::string* error) {
    if (serviceName.empty() || serviceName == "." || serviceName == ".." ||
        serviceName.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
        setError(error, "invalid service name \"" + std::string(serviceName) + "\"");
        return std::nullopt;
    }
    std::string path(socketDirectory);
    if (path.empty()) path = ".";
    if (path.back() != '/') path += '/';
    path += serviceName;
    if (!socketAddress(path)) {
        setError(error, "socket path too long: " + path);
        return std::nullopt;
    }
    return path;
}

UniqueFd bindListener(const std::string& path, std::string* error) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !makeFolders(path.substr(0, slash), error))
        return UniqueFd();
    if (!clearStaleSocket(path, error)) return UniqueFd();
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        setError(error, errnoText("socket"));
        return UniqueFd();
    }
    const sockaddr_un addr = *socketAddress(path);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        setError(error, errnoText("cannot bind " + path));
        return UniqueFd();
    }
    // Who may talk to the service is decided per request, not by file modes.
    if (::chmod(path.c_str(), 0666) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
        setError(error, errnoText("cannot listen on " + path));
        ::unlink(path.c_str());
        return UniqueFd();
    }
    return fd;
}

UniqueFd connectToPath(const std::string& path, std::string* error) {
    std::optional<sockaddr_un> addr = socketAddress(path);
    if (!addr) {
        setError(error, "socket path too long: " + path);
        return UniqueFd();
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        setError(error, errnoText("socket"));
        return UniqueFd();
    }
    int rc;
    do {
        rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&*addr), sizeof *addr);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        setError(error, errnoText("cannot connect to " + path));
        return UniqueFd();
    }
    return fd;
}

ssize_t receiveChunk(int fd, std::vector<uint8_t>& buffer, std::vector<UniqueFd>& descriptors, bool wait) {
    iovec iov{buffer.data(), buffer.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxDescriptors)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n;
    do {
        n = ::recvmsg(fd, &msg, (wait ? 0 : MSG_DONTWAIT) | MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR && !wait);  // a wait cut short goes back to its caller's clock
    if (n < 0 && errno == EINTR) return kReceiveWouldBlock;
    if (n < 0) return (errno == EAGAIN || errno == EWOULDBLOCK) ? kReceiveWouldBlock : -1;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int received;
            std::memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            descriptors.emplace_back(received);
        }
    }
    // Descriptors the control buffer could not hold were closed by the kernel:
    // the frame they belong to can't be whole.
    if (msg.msg_flags & MSG_CTRUNC) return -1;
    return n;
}

bool sendFrame(int fd, const EncodedFrame& frame, std::chrono::milliseconds timeout) {
    // The kernel passes at most this many descriptors in one message.
    constexpr size_t kKernelMaxDescriptors = 253;
    if (frame.descriptors.size() > kKernelMaxDescriptors) return false;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // Sized by the frame, not by the protocol's limit: the encoder keeps to
    // that, and tests send more on purpose to see the receiver refuse them.
    std::vector<cmsghdr> control;
    if (!frame.descriptors.empty())
        control.resize(CMSG_SPACE(frame.descriptors.size() * sizeof(int)) / sizeof(cmsghdr) + 1);
    size_t sent = 0;
    while (sent < frame.bytes.size()) {
        iovec iov{const_cast<uint8_t*>(frame.bytes.data()) + sent, frame.bytes.size() - sent};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        if (sent == 0 && !frame.descriptors.empty()) {
            const size_t bytes = frame.descriptors.size() * sizeof(int);
            msg.msg_control = control.data();
            msg.msg_controllen = CMSG_SPACE(bytes);
            cmsghdr* c = CMSG_FIRSTHDR(&msg);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(bytes);
            std::memcpy(CMSG_DATA(c), frame.descriptors.data(), bytes);
        }
        const ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return false;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, POLLOUT, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) return false;
    }
    return true;
}

AuditToken readAuditToken(int fd) {
    AuditToken token;
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return token;
    token.pid = cred.pid;
    token.uid = cred.uid;
    token.gid = cred.gid;
    int pidfd = -1;
    len = sizeof pidfd;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &len) != 0) {
        // Older kernels: a pidfd opened now pins whatever process has the pid;
        // the peer may already have been replaced, which the newer call rules out.
        pidfd = static_cast<int>(::syscall(SYS_pidfd_open, cred.pid, 0));
    }
    if (pidfd < 0) return token;
    ::fcntl(pidfd, F_SETFD, FD_CLOEXEC);
    token.pidfd = std::make_shared<const UniqueFd>(pidfd);
    char exe[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(cred.pid) + "/exe";
    const ssize_t n = ::readlink(link.c_str(), exe, sizeof exe - 1);
    // The path counts only if the pid still named the peer after it was read.
    if (n > 0 && !pidfdExited(pidfd)) token.executablePath.assign(exe, static_cast<size_t>(n));
    return token;
}

bool AuditToken::processAlive() const {
    return pidfd && pidfd->valid() && !pidfdExited(pidfd->get());
}

}  // namespace qvl::zrp
