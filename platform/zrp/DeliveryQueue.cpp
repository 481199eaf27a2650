#include "platform/zrp/DeliveryQueue.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <thread>

#include "platform/zrp/SocketIO.h"

namespace qvl::zrp {

namespace {

// Bytes of unfinished frames held for all connections together. One frame is
// at most 16 MiB; past this budget the connection that asks for more is
// dropped rather than letting a crowd of slow senders exhaust memory.
constexpr size_t kMaxBufferedTotal = 64u << 20;
// How long a listener rests after an accept failure.
constexpr long kRestNanoseconds = 100'000'000;

// epoll ids of the queue's own descriptors; endpoints count up from the first.
constexpr uint64_t kSignalId = 2;
constexpr uint64_t kRestTimerId = 3;
constexpr uint64_t kFirstEndpointId = 16;

}  // namespace

DeliveryQueue& DeliveryQueue::sharedInstance() {
    static DeliveryQueue* queue = new DeliveryQueue();
    return *queue;
}

DeliveryQueue::DeliveryQueue() : nextId_(kFirstEndpointId), scratch_(kReadChunkSize) {
    epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
    restTimer_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!epoll_ || !restTimer_ || !sigterm_.valid()) {
        startError_ = errnoText("cannot set up the ZRP service");
        return;
    }
    watch(sigterm_.readFd(), kSignalId, EPOLLIN);
    watch(restTimer_.get(), kRestTimerId, EPOLLIN);
    std::thread([this] { run(); }).detach();
}

bool DeliveryQueue::ready(std::string* error) {
    std::lock_guard lock(mu_);
    if (!startError_.empty() && error) *error = startError_;
    return startError_.empty();
}

void DeliveryQueue::add(const std::shared_ptr<Endpoint>& e) {
    std::lock_guard lock(mu_);
    endpoints_[e->id()] = e;
}

void DeliveryQueue::remove(uint64_t id) {
    std::shared_ptr<Endpoint> keep;  // released outside the lock
    std::lock_guard lock(mu_);
    auto it = endpoints_.find(id);
    if (it == endpoints_.end()) return;
    keep = std::move(it->second);
    endpoints_.erase(it);
}

std::shared_ptr<Endpoint> DeliveryQueue::find(uint64_t id) {
    std::lock_guard lock(mu_);
    auto it = endpoints_.find(id);
    return it == endpoints_.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<Endpoint>> DeliveryQueue::snapshot() {
    std::lock_guard lock(mu_);
    std::vector<std::shared_ptr<Endpoint>> all;
    for (auto& [id, e] : endpoints_) all.push_back(e);
    return all;
}

bool DeliveryQueue::watch(int fd, uint64_t id, uint32_t events) {
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = id;
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) == 0;
}

void DeliveryQueue::unwatch(int fd) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void DeliveryQueue::restListener(uint64_t listenerId) {
    {
        std::lock_guard lock(mu_);
        restingListeners_.push_back(listenerId);
    }
    itimerspec delay{};
    delay.it_value.tv_nsec = kRestNanoseconds;
    ::timerfd_settime(restTimer_.get(), 0, &delay, nullptr);
}

bool DeliveryQueue::reserveBuffer(size_t n) {
    if (buffered_.load() + n > kMaxBufferedTotal) return false;
    buffered_ += n;
    return true;
}

void DeliveryQueue::run() {
    epoll_event events[64];
    for (;;) {
        const int n = ::epoll_wait(epoll_.get(), events, 64, -1);
        for (int i = 0; i < n; ++i) dispatch(events[i]);
    }
}

void DeliveryQueue::dispatch(const epoll_event& ev) {
    if (ev.data.u64 == kSignalId) return onSignal();
    if (ev.data.u64 == kRestTimerId) return onRestOver();
    if (std::shared_ptr<Endpoint> e = find(ev.data.u64)) e->onReadable();
}

void DeliveryQueue::onSignal() {
    sigterm_.drain();
    bool heard = false;
    for (const std::shared_ptr<Endpoint>& e : snapshot())
        if (e->isListener() && e->deliver(Event::error(Event::Error::TerminationImminent))) heard = true;
    if (!heard) TerminationSignal::actAsByDefault();
}

void DeliveryQueue::onRestOver() {
    uint64_t expirations;
    [[maybe_unused]] ssize_t n = ::read(restTimer_.get(), &expirations, sizeof expirations);
    std::vector<uint64_t> resting;
    {
        std::lock_guard lock(mu_);
        resting.swap(restingListeners_);
    }
    for (uint64_t id : resting)
        if (auto e = find(id)) e->unpause();
}

}  // namespace qvl::zrp
