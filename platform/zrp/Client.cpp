// The blocking client side of the ZRP service.
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/zrp/SocketIO.h"
#include "platform/zrp/ZRP.h"

namespace qvl::zrp {

std::unique_ptr<Client> Client::connect(std::string_view serviceName, std::string* error,
                                        std::string_view socketDirectory) {
    std::optional<std::string> path = servicePath(serviceName, socketDirectory, error);
    if (!path) return nullptr;
    UniqueFd fd = connectToPath(*path, error);
    if (!fd) return nullptr;
    return std::unique_ptr<Client>(new Client(std::move(fd)));
}

bool Client::send(const Dictionary& message, std::string* error) {
    std::optional<EncodedFrame> frame = encodeFrame(message, error);
    if (!frame) return false;
    if (!sendFrame(fd_.get(), *frame, kSendTimeout)) {
        if (error) *error = "the service closed the connection";
        return false;
    }
    return true;
}

bool Client::sendRaw(std::span<const uint8_t> bytes) {
    EncodedFrame frame{std::vector<uint8_t>(bytes.begin(), bytes.end()), {}};
    return sendFrame(fd_.get(), frame, kSendTimeout);
}

bool Client::setReceiveTimeout(std::chrono::milliseconds timeout) {
    if (timeout == receiveTimeout_) return true;
    // Never zero: to the socket that means for ever.
    const auto wait = std::max(timeout, std::chrono::milliseconds(1));
    const timeval tv{static_cast<time_t>(wait.count() / 1000),
                     static_cast<suseconds_t>(wait.count() % 1000 * 1000)};
    if (::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) return false;
    receiveTimeout_ = timeout;
    return true;
}

Client::Received Client::receive(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // Made once: clearing 64 KiB for every answer cost more than reading it.
    if (chunk_.empty()) chunk_.resize(kReadChunkSize);
    bool firstRead = true;
    for (;;) {
        if (buffer_.size() >= kFrameHeaderSize) {
            std::optional<uint32_t> length = decodeFrameHeader(std::span(buffer_).first(kFrameHeaderSize));
            if (!length) return {Status::Invalid, {}};
            if (buffer_.size() - kFrameHeaderSize >= *length) {
                std::optional<Dictionary> message = decodeFrameBody(
                    std::span(buffer_).subspan(kFrameHeaderSize, *length), std::move(pendingDescriptors_));
                pendingDescriptors_.clear();
                buffer_.erase(buffer_.begin(), buffer_.begin() + kFrameHeaderSize + *length);
                if (!message) return {Status::Invalid, {}};
                return {Status::Message, std::move(*message)};
            }
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return {Status::Timeout, {}};
        // One read that waits, instead of a poll and then a read. The first
        // read of a call waits the caller's whole timeout, usually the same
        // as last time, so the socket's timeout rarely needs setting.
        if (!setReceiveTimeout(firstRead ? timeout : left)) return {Status::Closed, {}};
        firstRead = false;
        const ssize_t n = receiveChunk(fd_.get(), chunk_, pendingDescriptors_, true);
        if (n == kReceiveWouldBlock) continue;  // the deadline decides
        if (n <= 0) return {Status::Closed, {}};
        buffer_.insert(buffer_.end(), chunk_.begin(), chunk_.begin() + n);
    }
}

}  // namespace qvl::zrp
