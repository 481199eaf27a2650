// TerminationSignal: turns SIGTERM into a byte on a pipe that the delivery
// thread watches, so that the signal arrives as an event on the listeners
// instead of as work inside a signal handler. Internal to the library.
//
// Thread-safety: install() may be called from any thread and installs the
// handler once; the handler itself only writes to the pipe, which is
// async-signal-safe. drain() belongs to the delivery thread.
#pragma once

#include <mutex>
#include <string>

#include "base/UniqueFd.h"

namespace qvl::zrp {

class TerminationSignal {
  public:
    // Makes the pipe; valid() tells whether that worked.
    TerminationSignal();

    bool valid() const { return read_.valid(); }
    int readFd() const { return read_.get(); }

    // Routes SIGTERM to the pipe from now on.
    bool install(std::string* error);

    // Empties the pipe after a wake-up.
    void drain();

    // With nobody left to hear it, SIGTERM does what it does by default.
    static void actAsByDefault();

  private:
    UniqueFd read_, write_;
    std::mutex mu_;
    bool installed_ = false;
};

}  // namespace qvl::zrp
