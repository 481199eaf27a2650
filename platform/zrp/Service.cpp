// The public face of the server side: opening a listener (bound here or handed
// over by socket activation), events, the main loop and busy transactions. The
// delivery thread is DeliveryQueue; listeners and connections are
// ListenerEndpoint and ConnectionEndpoint.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/zrp/DeliveryQueue.h"
#include "platform/zrp/ListenerEndpoint.h"
#include "platform/zrp/SocketIO.h"
#include "platform/zrp/ZRP.h"

namespace qvl::zrp {

Event Event::newConnection(std::shared_ptr<Connection> c) {
    Event e;
    e.kind_ = Kind::Connection;
    e.connection_ = std::move(c);
    return e;
}

Event Event::message(Dictionary d) {
    Event e;
    e.kind_ = Kind::Message;
    e.dictionary_ = std::move(d);
    return e;
}

Event Event::error(Error err, std::string description) {
    Event e;
    e.kind_ = Kind::Error;
    e.error_ = err;
    e.description_ = std::move(description);
    return e;
}

namespace {

// Socket activation hands over descriptor 3 when LISTEN_PID names us and
// LISTEN_FDS is 1. The variables are cleared so that children don't claim it.
UniqueFd activatedListener() {
    const char* pid = std::getenv("LISTEN_PID");
    const char* fds = std::getenv("LISTEN_FDS");
    if (!pid || !fds) return UniqueFd();
    if (std::strtol(pid, nullptr, 10) != ::getpid() || std::strcmp(fds, "1") != 0) return UniqueFd();
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");
    ::unsetenv("LISTEN_FDNAMES");
    constexpr int kActivatedFd = 3;
    ::fcntl(kActivatedFd, F_SETFD, FD_CLOEXEC);
    ::fcntl(kActivatedFd, F_SETFL, ::fcntl(kActivatedFd, F_GETFL) | O_NONBLOCK);
    return UniqueFd(kActivatedFd);
}

std::atomic<uint64_t> gOpenTransactions{0};

// Where the count is published: beside the listener's socket, so that whoever
// can see the service can see whether it is held busy.
std::mutex gTransactionsFileLock;
std::string gTransactionsFile;

// Replaces the file with the current count. The socket folder is root's, so
// a plain temporary name beside it is safe; a failure only leaves the file
// behind the count in memory, which stays the truth.
void publishTransactionCount() {
    std::lock_guard<std::mutex> guard(gTransactionsFileLock);
    if (gTransactionsFile.empty()) return;
    const std::string text = std::to_string(gOpenTransactions.load()) + "\n";
    const std::string temporary = gTransactionsFile + ".new";
    UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd.valid()) return;
    const bool written = ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!fd.closeChecked() || !written || ::rename(temporary.c_str(), gTransactionsFile.c_str()) != 0)
        ::unlink(temporary.c_str());
}

}  // namespace

std::shared_ptr<Connection> createListener(std::string_view serviceName, std::string* error,
                                           std::string_view socketDirectory) {
    DeliveryQueue& queue = DeliveryQueue::sharedInstance();
    if (!queue.ready(error) || !queue.installSigterm(error)) return nullptr;
    std::string path;
    UniqueFd fd = activatedListener();
    if (!fd) {
        std::optional<std::string> p = servicePath(serviceName, socketDirectory, error);
        if (!p) return nullptr;
        path = *p;
        fd = bindListener(path, error);
        if (!fd) return nullptr;
    }
    if (!path.empty()) {
        {
            std::lock_guard<std::mutex> guard(gTransactionsFileLock);
            gTransactionsFile = path + kTransactionsFileSuffix;
        }
        publishTransactionCount();
    }
    auto listener = std::make_shared<ListenerEndpoint>(queue, queue.nextId(), std::move(fd), std::move(path));
    queue.add(listener);
    return listener;
}

[[noreturn]] void runMainLoop() {
    for (;;) ::pause();
}

void openTransaction() {
    gOpenTransactions.fetch_add(1);
    publishTransactionCount();
}
uint64_t openTransactionCount() {
    return gOpenTransactions.load();
}

}  // namespace qvl::zrp
