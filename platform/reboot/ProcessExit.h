// exitProcess: the one way the helper ends itself ("quitHelper:", the
// listener's end). Standard streams are flushed (log lines already are, one
// at a time); then the process ends at once, without running the destructors
// of objects that other threads may still be using.
//
// Thread-safety: may be called from any thread; it does not return.
#pragma once

namespace qvl::platform {

[[noreturn]] void exitProcess(int status);

}  // namespace qvl::platform
