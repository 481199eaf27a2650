// Endpoint: what the delivery thread knows of a listener or of an accepted
// connection on the server side: its descriptor, its event handler and
// whether it was resumed, closed or cancelled. ListenerEndpoint and
// ConnectionEndpoint build on it. Internal to the library.
//
// Thread-safety: setEventHandler, resume, cancel, pause and unpause may be
// called from any thread (a mutex guards the descriptor, the handler and the
// flags). deliver and onReadable run on the delivery thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "base/UniqueFd.h"
#include "platform/zrp/ZRP.h"

namespace qvl::zrp {

class DeliveryQueue;

class Endpoint : public Connection {
  public:
    Endpoint(DeliveryQueue& queue, uint64_t id, UniqueFd fd);

    void setEventHandler(EventHandler handler) override;
    void resume() override;
    void cancel() override;

    uint64_t id() const { return id_; }

    // Runs the handler for one event, unless the endpoint was cancelled. The
    // handler is copied first so that it may cancel or replace itself.
    // Answers whether a handler ran.
    bool deliver(const Event& event);

    // The descriptor has something to read (delivery thread).
    virtual void onReadable() = 0;

    // Stops watching the descriptor for a while, and starts again.
    void pause();
    void unpause();

  protected:
    // Stops watching and closes the descriptor. Answers false when it was
    // already closed.
    bool close();

    // Drops the handler, which usually holds a reference to this endpoint.
    void forgetHandler();

    virtual uint32_t pollEvents() const;
    virtual void onClose() {}

    DeliveryQueue& queue_;
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

}  // namespace qvl::zrp
