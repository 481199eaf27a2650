// ConnectionEndpoint: a connection accepted by a listener. On the delivery
// thread it reads what the peer sent, assembles frames with the descriptors
// that came with them and delivers each message; a peer that goes away or
// sends an invalid frame gets the connection closed and its handler one
// ConnectionInvalid. Bytes of unfinished frames are charged to the delivery
// queue's budget. Internal to the library.
//
// Thread-safety: send() may be called from any thread, one frame at a time;
// reading happens on the delivery thread only.
#pragma once

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/zrp/Endpoint.h"

namespace qvl::zrp {

class ConnectionEndpoint final : public Endpoint {
  public:
    ConnectionEndpoint(DeliveryQueue& queue, uint64_t id, UniqueFd fd, AuditToken token);
    ~ConnectionEndpoint() override;

    void send(const Dictionary& message) override;
    const AuditToken& auditToken() const override { return token_; }
    bool isListener() const override { return false; }

    // Reads what the peer sent and delivers the complete frames.
    void onReadable() override;

  private:
    uint32_t pollEvents() const override;
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

}  // namespace qvl::zrp
