#include "platform/zrp/ListenerEndpoint.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/zrp/ConnectionEndpoint.h"
#include "platform/zrp/DeliveryQueue.h"
#include "platform/zrp/SocketIO.h"

namespace qvl::zrp {

namespace {
// Accepts per wake-up, so that a crowd of new clients can't starve the rest.
constexpr int kAcceptsPerWakeup = 64;
}  // namespace

ListenerEndpoint::ListenerEndpoint(DeliveryQueue& queue, uint64_t id, UniqueFd fd, std::string path)
    : Endpoint(queue, id, std::move(fd)), path_(std::move(path)) {}

void ListenerEndpoint::onReadable() {
    for (int i = 0; i < kAcceptsPerWakeup; ++i) {
        int fd;
        int err = 0;
        {
            std::lock_guard lock(mu_);
            if (closed_) return;
            fd = ::accept4(fd_->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0) err = errno;
        }
        if (fd < 0) {
            if (err == EINTR || err == ECONNABORTED) continue;
            if (err == EAGAIN || err == EWOULDBLOCK) return;
            const std::string description = std::strerror(err);
            pause();
            queue_.restListener(id_);
            deliver(Event::error(Event::Error::Other, description));
            return;
        }
        UniqueFd owned(fd);
        AuditToken token = readAuditToken(owned.get());
        auto connection =
            std::make_shared<ConnectionEndpoint>(queue_, queue_.nextId(), std::move(owned), std::move(token));
        queue_.add(connection);
        deliver(Event::newConnection(connection));
    }
}

void ListenerEndpoint::onClose() {
    if (!path_.empty()) ::unlink(path_.c_str());
}

}  // namespace qvl::zrp
