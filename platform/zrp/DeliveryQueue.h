// DeliveryQueue: the one process-wide delivery thread of the server side. It
// waits on every listener and connection with epoll, and the endpoints read,
// decode and run their event handlers on it, one event at a time. Doing the
// I/O on the delivery thread keeps delivery serial and in arrival order
// without a queue that a fast client could grow: while a handler runs, unread
// requests wait in the kernel's socket buffers.
//
// It also keeps the endpoints by id, the budget of bytes buffered for
// unfinished frames, the timer that ends a listener's rest, and relays SIGTERM
// to the listeners as TerminationImminent. Internal to the library.
//
// Thread-safety: made once and never destroyed (the thread runs until the
// process ends and must not find it torn down by exit()). Every method may be
// called from any thread, except scratch(), which is the delivery thread's.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/zrp/Endpoint.h"
#include "platform/zrp/TerminationSignal.h"
#include "base/UniqueFd.h"

struct epoll_event;

namespace qvl::zrp {

class DeliveryQueue {
  public:
    static DeliveryQueue& sharedInstance();

    // False, with the reason in *error, when the thread could not be set up.
    bool ready(std::string* error);
    // Routes SIGTERM to the resumed listeners from now on.
    bool installSigterm(std::string* error) { return sigterm_.install(error); }

    uint64_t nextId() { return nextId_.fetch_add(1); }
    void add(const std::shared_ptr<Endpoint>& e);
    void remove(uint64_t id);

    bool watch(int fd, uint64_t id, uint32_t events);
    void unwatch(int fd);

    // Unpauses the listener `listenerId` when its rest after a failure is over.
    void restListener(uint64_t listenerId);

    // Budget of bytes buffered across connections; release may run on any
    // thread (a connection's last owner releases it).
    bool reserveBuffer(size_t n);
    void releaseBuffer(size_t n) { buffered_ -= n; }

    // The read buffer of the delivery thread.
    std::vector<uint8_t>& scratch() { return scratch_; }

  private:
    DeliveryQueue();
    [[noreturn]] void run();
    void dispatch(const epoll_event& ev);
    void onSignal();
    void onRestOver();
    std::shared_ptr<Endpoint> find(uint64_t id);
    std::vector<std::shared_ptr<Endpoint>> snapshot();

    std::mutex mu_;
    std::string startError_;
    UniqueFd epoll_, restTimer_;
    TerminationSignal sigterm_;
    std::atomic<uint64_t> nextId_;
    std::unordered_map<uint64_t, std::shared_ptr<Endpoint>> endpoints_;
    std::vector<uint64_t> restingListeners_;
    std::vector<uint8_t> scratch_;
    std::atomic<size_t> buffered_{0};
};

}  // namespace qvl::zrp
