// ListenerEndpoint: a listening socket of the server side. It accepts pending
// connections in bounded batches, takes each peer's audit token and hands the
// new connection to the listener's handler. After an accept failure such as
// EMFILE it reports an "other error" and rests for a moment instead of waking
// up again at once for the same pending connection. Closing it removes the
// socket file it made. Internal to the library.
//
// Thread-safety: as Endpoint; accepting runs on the delivery thread.
#pragma once

#include <string>

#include "platform/zrp/Endpoint.h"

namespace qvl::zrp {

class ListenerEndpoint final : public Endpoint {
  public:
    // `path` is the socket file this listener made; empty when it was handed
    // over by socket activation.
    ListenerEndpoint(DeliveryQueue& queue, uint64_t id, UniqueFd fd, std::string path);

    void send(const Dictionary&) override {}
    const AuditToken& auditToken() const override {
        static const AuditToken kNone;
        return kNone;
    }
    bool isListener() const override { return true; }
    void onReadable() override;

  private:
    void onClose() override;

    std::string path_;
};

}  // namespace qvl::zrp
