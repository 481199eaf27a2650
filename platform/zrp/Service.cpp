// The server side of the ZRP service: one process-wide delivery thread that
// waits on every listener and connection with epoll, reads and decodes frames
// and runs the event handlers itself, one event at a time. Doing the I/O on the
// delivery thread keeps delivery serial and in arrival order without a queue
// that a fast client could grow: while a handler runs, unread requests wait in
// the kernel's socket buffers.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/zrp/SocketIO.h"
#include "platform/zrp/ZRP.h"

namespace qvl::zrp {

namespace {

// Bytes of unfinished frames held for all connections together. One frame is
// at most 16 MiB; past this budget the connection that asks for more is
// dropped rather than letting a crowd of slow senders exhaust memory.
constexpr size_t kMaxBufferedTotal = 64u << 20;
// Reads per connection per wake-up, so one busy client can't starve the rest.
constexpr int kReadsPerWakeup = 16;
// Accepts per wake-up, for the same reason.
constexpr int kAcceptsPerWakeup = 64;
// After an accept failure such as EMFILE the listener rests this long instead
// of waking up again at once for the same pending connection.
constexpr long kAcceptBackoffNanoseconds = 100'000'000;

constexpr uint64_t kWakeId = 1;
constexpr uint64_t kSignalId = 2;
constexpr uint64_t kBackoffId = 3;
constexpr uint64_t kFirstEndpointId = 16;

std::atomic<int> gSignalWriteFd{-1};

void onSigterm(int) {
    const int saved = errno;
    const int fd = gSignalWriteFd.load();
    if (fd >= 0) {
        const char byte = 1;
        [[maybe_unused]] ssize_t n = ::write(fd, &byte, 1);
    }
    errno = saved;
}

std::string errnoText(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

class Service;

// What the delivery thread knows of a listener or a connection.
class Endpoint : public Connection {
  public:
    Endpoint(Service& service, uint64_t id, UniqueFd fd)
        : service_(service), id_(id), fd_(std::make_shared<UniqueFd>(std::move(fd))) {}

    void setEventHandler(EventHandler handler) override {
        std::lock_guard lock(mu_);
        if (!closed_) handler_ = std::move(handler);
    }
    void resume() override;
    void cancel() override;

    uint64_t id() const { return id_; }

    // Runs the handler for one event, unless the endpoint was cancelled. The
    // handler is copied first so that it may cancel or replace itself.
    // Answers whether a handler ran.
    bool deliver(const Event& event) {
        EventHandler handler;
        {
            std::lock_guard lock(mu_);
            if (cancelled_ || !resumed_ || !handler_) return false;
            handler = handler_;
        }
        handler(event);
        return true;
    }

    // Stops watching and closes the descriptor. Answers false when it was
    // already closed.
    bool close();

    // Drops the handler, which usually holds a reference to this endpoint.
    void forgetHandler() {
        EventHandler old;
        std::lock_guard lock(mu_);
        old.swap(handler_);
    }

  protected:
    virtual uint32_t pollEvents() const { return EPOLLIN; }
    virtual void onClose() {}

    Service& service_;
    const uint64_t id_;
    mutable std::mutex mu_;  // guards fd_, handler_ and the flags
    // Shared with a send in progress on another thread, so that closing never
    // pulls the descriptor from under it (nor lets a new file take its number).
    std::shared_ptr<UniqueFd> fd_;
    EventHandler handler_;
    bool resumed_ = false;
    bool closed_ = false;
    bool cancelled_ = false;
};

class ListenerImpl final : public Endpoint {
  public:
    ListenerImpl(Service& service, uint64_t id, UniqueFd fd, std::string path)
        : Endpoint(service, id, std::move(fd)), path_(std::move(path)) {}

    void send(const Dictionary&) override {}
    AuditToken auditToken() const override { return {}; }
    bool isListener() const override { return true; }

    void acceptPending();
    void pause();
    void unpause();

  private:
    void onClose() override {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    std::string path_;  // the socket file this listener made, if any
};

class ConnectionImpl final : public Endpoint {
  public:
    ConnectionImpl(Service& service, uint64_t id, UniqueFd fd, AuditToken token)
        : Endpoint(service, id, std::move(fd)), token_(std::move(token)) {}
    ~ConnectionImpl() override;

    void send(const Dictionary& message) override;
    AuditToken auditToken() const override { return token_; }
    bool isListener() const override { return false; }

    // Reads what the peer sent and delivers the complete frames.
    void readAvailable();

  private:
    uint32_t pollEvents() const override { return EPOLLIN | EPOLLRDHUP; }
    // Frees the input buffer; delivery thread only.
    void dropInput();
    // Closes the connection and tells the handler, once.
    void invalidate();
    // Delivers every complete frame in the buffer; false when the stream is invalid.
    bool deliverFrames();
    std::vector<UniqueFd> takeDescriptorsFor(uint64_t frameStart, bool& ok);
    // False when the descriptors belong to no frame or are too many.
    bool attachDescriptors(std::vector<UniqueFd> fds, uint64_t chunkStart, uint64_t chunkEnd);

    const AuditToken token_;
    // Unconsumed bytes; in_[0] is stream offset inOffset_. Touched only on the
    // delivery thread.
    std::vector<uint8_t> in_;
    uint64_t inOffset_ = 0;
    // Descriptors received, each with the stream offset of the frame it came with.
    std::vector<std::pair<uint64_t, UniqueFd>> pendingFds_;
    std::mutex writeMu_;
    bool writeBroken_ = false;
};

class Service {
  public:
    static Service& sharedInstance() {
        // Made once and never destroyed: the delivery thread runs until the
        // process ends and must not find its service torn down by exit().
        static Service* service = new Service();
        return *service;
    }

    bool ready(std::string* error) {
        std::lock_guard lock(mu_);
        if (!startError_.empty() && error) *error = startError_;
        return startError_.empty();
    }

    uint64_t nextId() { return nextId_.fetch_add(1); }

    void add(const std::shared_ptr<Endpoint>& e) {
        std::lock_guard lock(mu_);
        endpoints_[e->id()] = e;
    }
    void remove(uint64_t id) {
        std::shared_ptr<Endpoint> keep;  // released outside the lock
        std::lock_guard lock(mu_);
        auto it = endpoints_.find(id);
        if (it == endpoints_.end()) return;
        keep = std::move(it->second);
        endpoints_.erase(it);
    }
    std::shared_ptr<Endpoint> find(uint64_t id) {
        std::lock_guard lock(mu_);
        auto it = endpoints_.find(id);
        return it == endpoints_.end() ? nullptr : it->second;
    }

    bool watch(int fd, uint64_t id, uint32_t events) {
        epoll_event ev{};
        ev.events = events;
        ev.data.u64 = id;
        return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) == 0;
    }
    void unwatch(int fd) { ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr); }

    void armBackoff(uint64_t listenerId) {
        {
            std::lock_guard lock(mu_);
            restingListeners_.push_back(listenerId);
        }
        itimerspec delay{};
        delay.it_value.tv_nsec = kAcceptBackoffNanoseconds;
        ::timerfd_settime(backoff_.get(), 0, &delay, nullptr);
    }

    // Budget of buffered bytes across connections.
    bool reserveBuffer(size_t n) {
        if (buffered_.load() + n > kMaxBufferedTotal) return false;
        buffered_ += n;
        return true;
    }
    // May run on any thread (a connection's last owner releases it).
    void releaseBuffer(size_t n) { buffered_ -= n; }

    std::vector<uint8_t>& scratch() { return scratch_; }

    bool installSigterm(std::string* error) {
        std::lock_guard lock(mu_);
        if (sigtermInstalled_) return true;
        struct sigaction sa {};
        sa.sa_handler = onSigterm;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = SA_RESTART;
        if (::sigaction(SIGTERM, &sa, nullptr) != 0) {
            if (error) *error = errnoText("sigaction");
            return false;
        }
        sigtermInstalled_ = true;
        return true;
    }

  private:
    Service() : scratch_(kReadChunkSize) {
        epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
        wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        backoff_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        int pipeFds[2];
        if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) == 0) {
            signalRead_.reset(pipeFds[0]);
            signalWrite_.reset(pipeFds[1]);
            gSignalWriteFd.store(pipeFds[1]);
        }
        if (!epoll_ || !wake_ || !backoff_ || !signalRead_) {
            startError_ = errnoText("cannot set up the ZRP service");
            return;
        }
        watch(signalRead_.get(), kSignalId, EPOLLIN);
        watch(backoff_.get(), kBackoffId, EPOLLIN);
        std::thread([this] { run(); }).detach();
    }

    [[noreturn]] void run() {
        epoll_event events[64];
        for (;;) {
            const int n = ::epoll_wait(epoll_.get(), events, 64, -1);
            for (int i = 0; i < n; ++i) dispatch(events[i]);
        }
    }

    void dispatch(const epoll_event& ev) {
        switch (ev.data.u64) {
            case kWakeId:
                return;
            case kSignalId:
                return onSignal();
            case kBackoffId:
                return onBackoffEnd();
            default:
                break;
        }
        std::shared_ptr<Endpoint> e = find(ev.data.u64);
        if (!e) return;
        if (e->isListener())
            static_cast<ListenerImpl&>(*e).acceptPending();
        else
            static_cast<ConnectionImpl&>(*e).readAvailable();
    }

    void onSignal() {
        char buf[64];
        while (::read(signalRead_.get(), buf, sizeof buf) > 0) {
        }
        bool heard = false;
        for (const std::shared_ptr<Endpoint>& e : snapshot())
            if (e->isListener() && e->deliver(Event::error(Event::Error::TerminationImminent))) heard = true;
        if (!heard) {
            // Nobody listens for it any more: SIGTERM does what it does by default.
            ::signal(SIGTERM, SIG_DFL);
            ::raise(SIGTERM);
        }
    }

    void onBackoffEnd() {
        uint64_t expirations;
        [[maybe_unused]] ssize_t n = ::read(backoff_.get(), &expirations, sizeof expirations);
        std::vector<uint64_t> resting;
        {
            std::lock_guard lock(mu_);
            resting.swap(restingListeners_);
        }
        for (uint64_t id : resting)
            if (auto e = find(id)) static_cast<ListenerImpl&>(*e).unpause();
    }

    std::vector<std::shared_ptr<Endpoint>> snapshot() {
        std::lock_guard lock(mu_);
        std::vector<std::shared_ptr<Endpoint>> all;
        for (auto& [id, e] : endpoints_) all.push_back(e);
        return all;
    }

    std::mutex mu_;
    std::string startError_;
    UniqueFd epoll_, wake_, backoff_, signalRead_, signalWrite_;
    std::atomic<uint64_t> nextId_{kFirstEndpointId};
    std::unordered_map<uint64_t, std::shared_ptr<Endpoint>> endpoints_;
    std::vector<uint64_t> restingListeners_;
    bool sigtermInstalled_ = false;
    std::vector<uint8_t> scratch_;  // delivery thread only
    std::atomic<size_t> buffered_{0};
};

// ---------------------------------------------------------------- endpoints

void Endpoint::resume() {
    std::lock_guard lock(mu_);
    if (resumed_ || closed_) return;
    resumed_ = true;
    service_.watch(fd_->get(), id_, pollEvents());
}

bool Endpoint::close() {
    {
        std::lock_guard lock(mu_);
        if (closed_) return false;
        closed_ = true;
        if (resumed_) service_.unwatch(fd_->get());
        fd_.reset();  // closes now, or when the last send lets go
    }
    onClose();
    service_.remove(id_);
    return true;
}

void Endpoint::cancel() {
    {
        std::lock_guard lock(mu_);
        cancelled_ = true;
    }
    close();
    forgetHandler();
}

void ListenerImpl::pause() {
    std::lock_guard lock(mu_);
    if (!closed_ && resumed_) service_.unwatch(fd_->get());
}

void ListenerImpl::unpause() {
    std::lock_guard lock(mu_);
    if (!closed_ && resumed_) service_.watch(fd_->get(), id_, pollEvents());
}

void ListenerImpl::acceptPending() {
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
            service_.armBackoff(id_);
            deliver(Event::error(Event::Error::Other, description));
            return;
        }
        UniqueFd owned(fd);
        AuditToken token = readAuditToken(owned.get());
        auto connection =
            std::make_shared<ConnectionImpl>(service_, service_.nextId(), std::move(owned), std::move(token));
        service_.add(connection);
        deliver(Event::newConnection(connection));
    }
}

ConnectionImpl::~ConnectionImpl() {
    service_.releaseBuffer(in_.size());
}

void ConnectionImpl::dropInput() {
    service_.releaseBuffer(in_.size());
    std::vector<uint8_t>().swap(in_);
    pendingFds_.clear();
}

void ConnectionImpl::invalidate() {
    dropInput();
    if (!close()) return;
    deliver(Event::error(Event::Error::ConnectionInvalid));
    forgetHandler();
}

void ConnectionImpl::send(const Dictionary& message) {
    std::optional<EncodedFrame> frame = encodeFrame(message);
    if (!frame) return;
    std::lock_guard writeLock(writeMu_);
    if (writeBroken_) return;
    std::shared_ptr<UniqueFd> writer;
    {
        std::lock_guard lock(mu_);
        if (closed_) return;
        writer = fd_;
    }
    if (!sendFrame(writer->get(), *frame, kSendTimeout)) {
        // A frame cut short leaves the stream unreadable: end it, so that the
        // delivery thread sees the connection go.
        writeBroken_ = true;
        ::shutdown(writer->get(), SHUT_RDWR);
    }
}

void ConnectionImpl::readAvailable() {
    std::vector<uint8_t>& scratch = service_.scratch();
    for (int round = 0; round < kReadsPerWakeup; ++round) {
        std::vector<UniqueFd> fds;
        ssize_t n;
        {
            std::lock_guard lock(mu_);
            if (closed_) return dropInput();
            n = receiveChunk(fd_->get(), scratch, fds);
        }
        if (n == kReceiveWouldBlock) return;
        if (n <= 0) return invalidate();  // peer gone, error, or too many descriptors
        if (!service_.reserveBuffer(static_cast<size_t>(n))) return invalidate();
        const uint64_t chunkStart = inOffset_ + in_.size();
        in_.insert(in_.end(), scratch.begin(), scratch.begin() + n);
        if (!fds.empty() && !attachDescriptors(std::move(fds), chunkStart, chunkStart + n))
            return invalidate();
        if (!deliverFrames()) return invalidate();
    }
}

// The kernel hands descriptors over with the read that contains the first byte
// of the sendmsg() they came with, and ends that read after it. Since a sender
// writes one frame per sendmsg(), they belong to the last frame that starts
// inside this chunk.
bool ConnectionImpl::attachDescriptors(std::vector<UniqueFd> fds, uint64_t chunkStart, uint64_t chunkEnd) {
    uint64_t pos = inOffset_;
    std::optional<uint64_t> owner;
    while (pos < chunkEnd) {
        if (pos >= chunkStart) owner = pos;
        const size_t at = static_cast<size_t>(pos - inOffset_);
        if (in_.size() - at < kFrameHeaderSize) break;
        std::optional<uint32_t> length = decodeFrameHeader(std::span(in_).subspan(at, kFrameHeaderSize));
        if (!length) break;
        pos += kFrameHeaderSize + *length;
    }
    // Refused at once rather than held: a peer must not be able to pile up
    // descriptors in this process by sending them mid-frame.
    if (!owner || pendingFds_.size() + fds.size() > kMaxDescriptors) return false;
    for (UniqueFd& fd : fds) pendingFds_.emplace_back(*owner, std::move(fd));
    return true;
}

std::vector<UniqueFd> ConnectionImpl::takeDescriptorsFor(uint64_t frameStart, bool& ok) {
    std::vector<UniqueFd> mine;
    ok = true;
    auto it = pendingFds_.begin();
    while (it != pendingFds_.end()) {
        if (it->first < frameStart) ok = false;
        if (it->first <= frameStart) {
            mine.push_back(std::move(it->second));
            it = pendingFds_.erase(it);
        } else {
            ++it;
        }
    }
    if (mine.size() > kMaxDescriptors) ok = false;
    return mine;
}

bool ConnectionImpl::deliverFrames() {
    size_t consumed = 0;
    bool ok = true;
    while (ok) {
        const size_t avail = in_.size() - consumed;
        if (avail < kFrameHeaderSize) break;
        std::span<const uint8_t> rest = std::span(in_).subspan(consumed);
        std::optional<uint32_t> length = decodeFrameHeader(rest.first(kFrameHeaderSize));
        if (!length) {
            ok = false;
            break;
        }
        if (avail - kFrameHeaderSize < *length) break;  // wait for the rest of the body
        bool fdsOk;
        std::vector<UniqueFd> fds = takeDescriptorsFor(inOffset_ + consumed, fdsOk);
        std::optional<Dictionary> message =
            fdsOk ? decodeFrameBody(rest.subspan(kFrameHeaderSize, *length), std::move(fds)) : std::nullopt;
        consumed += kFrameHeaderSize + *length;
        if (!message) {
            ok = false;
            break;
        }
        deliver(Event::message(std::move(*message)));
        std::lock_guard lock(mu_);
        if (closed_) {  // cancelled by the handler or another thread
            dropInput();
            return true;
        }
    }
    service_.releaseBuffer(consumed);
    in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(consumed));
    inOffset_ += consumed;
    if (in_.empty() && in_.capacity() > kReadChunkSize) std::vector<uint8_t>().swap(in_);
    return ok;
}

}  // namespace

// ---------------------------------------------------------------- events

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

// ---------------------------------------------------------------- listener

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

}  // namespace

std::shared_ptr<Connection> createListener(std::string_view serviceName, std::string* error,
                                           std::string_view socketDirectory) {
    Service& service = Service::sharedInstance();
    if (!service.ready(error) || !service.installSigterm(error)) return nullptr;
    std::string path;
    UniqueFd fd = activatedListener();
    if (!fd) {
        std::optional<std::string> p = servicePath(serviceName, socketDirectory, error);
        if (!p) return nullptr;
        path = *p;
        fd = bindListener(path, error);
        if (!fd) return nullptr;
    }
    auto listener = std::make_shared<ListenerImpl>(service, service.nextId(), std::move(fd), std::move(path));
    service.add(listener);
    return listener;
}

[[noreturn]] void runMainLoop() {
    for (;;) ::pause();
}

namespace {
std::atomic<uint64_t> gOpenTransactions{0};
}

void openTransaction() {
    gOpenTransactions.fetch_add(1);
}
uint64_t openTransactionCount() {
    return gOpenTransactions.load();
}

}  // namespace qvl::zrp
