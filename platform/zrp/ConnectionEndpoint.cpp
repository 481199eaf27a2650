#include "platform/zrp/ConnectionEndpoint.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include "platform/zrp/DeliveryQueue.h"
#include "platform/zrp/SocketIO.h"

namespace qvl::zrp {

namespace {
// Reads per connection per wake-up, so one busy client can't starve the rest.
constexpr int kReadsPerWakeup = 16;
}  // namespace

ConnectionEndpoint::ConnectionEndpoint(DeliveryQueue& queue, uint64_t id, UniqueFd fd, AuditToken token)
    : Endpoint(queue, id, std::move(fd)), token_(std::move(token)) {}

ConnectionEndpoint::~ConnectionEndpoint() {
    queue_.releaseBuffer(in_.size());
}

void ConnectionEndpoint::dropInput() {
    queue_.releaseBuffer(in_.size());
    std::vector<uint8_t>().swap(in_);
    pendingFds_.clear();
}

void ConnectionEndpoint::invalidate() {
    dropInput();
    if (!close()) return;
    deliver(Event::error(Event::Error::ConnectionInvalid));
    forgetHandler();
}

void ConnectionEndpoint::send(const Dictionary& message) {
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

void ConnectionEndpoint::onReadable() {
    std::vector<uint8_t>& scratch = queue_.scratch();
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
        if (!queue_.reserveBuffer(static_cast<size_t>(n))) return invalidate();
        const uint64_t chunkStart = inOffset_ + in_.size();
        in_.insert(in_.end(), scratch.begin(), scratch.begin() + n);
        if (!fds.empty() && !attachDescriptors(std::move(fds), chunkStart, chunkStart + n))
            return invalidate();
        if (!deliverFrames()) return invalidate();
        // A read that did not fill the buffer took all there was: asking
        // again would only answer "nothing" on every request. The watch is
        // level-triggered, so what comes meanwhile wakes the queue at once.
        if (static_cast<size_t>(n) < scratch.size()) return;
    }
}

// The kernel hands descriptors over with the read that contains the first byte
// of the sendmsg() they came with, and ends that read after it. Since a sender
// writes one frame per sendmsg(), they belong to the last frame that starts
// inside this chunk.
bool ConnectionEndpoint::attachDescriptors(std::vector<UniqueFd> fds, uint64_t chunkStart,
                                           uint64_t chunkEnd) {
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

std::vector<UniqueFd> ConnectionEndpoint::takeDescriptorsFor(uint64_t frameStart, bool& ok) {
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

bool ConnectionEndpoint::deliverFrames() {
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
    queue_.releaseBuffer(consumed);
    in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(consumed));
    inOffset_ += consumed;
    if (in_.empty() && in_.capacity() > kReadChunkSize) std::vector<uint8_t>().swap(in_);
    return ok;
}

uint32_t ConnectionEndpoint::pollEvents() const {
    return EPOLLIN | EPOLLRDHUP;
}

}  // namespace qvl::zrp
