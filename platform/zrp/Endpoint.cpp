#include "platform/zrp/Endpoint.h"

#include <sys/epoll.h>

#include "platform/zrp/DeliveryQueue.h"

namespace qvl::zrp {

Endpoint::Endpoint(DeliveryQueue& queue, uint64_t id, UniqueFd fd)
    : queue_(queue), id_(id), fd_(std::make_shared<UniqueFd>(std::move(fd))) {}

void Endpoint::setEventHandler(EventHandler handler) {
    std::lock_guard lock(mu_);
    if (!closed_) handler_ = std::move(handler);
}

void Endpoint::resume() {
    std::lock_guard lock(mu_);
    if (resumed_ || closed_) return;
    resumed_ = true;
    queue_.watch(fd_->get(), id_, pollEvents());
}

void Endpoint::cancel() {
    {
        std::lock_guard lock(mu_);
        cancelled_ = true;
    }
    close();
    forgetHandler();
}

bool Endpoint::deliver(const Event& event) {
    EventHandler handler;
    {
        std::lock_guard lock(mu_);
        if (cancelled_ || !resumed_ || !handler_) return false;
        handler = handler_;
    }
    handler(event);
    return true;
}

void Endpoint::pause() {
    std::lock_guard lock(mu_);
    if (!closed_ && resumed_) queue_.unwatch(fd_->get());
}

void Endpoint::unpause() {
    std::lock_guard lock(mu_);
    if (!closed_ && resumed_) queue_.watch(fd_->get(), id_, pollEvents());
}

bool Endpoint::close() {
    {
        std::lock_guard lock(mu_);
        if (closed_) return false;
        closed_ = true;
        if (resumed_) queue_.unwatch(fd_->get());
        fd_.reset();  // closes now, or when the last send lets go
    }
    onClose();
    queue_.remove(id_);
    return true;
}

void Endpoint::forgetHandler() {
    EventHandler old;
    std::lock_guard lock(mu_);
    old.swap(handler_);
}

uint32_t Endpoint::pollEvents() const {
    return EPOLLIN;
}

}  // namespace qvl::zrp
