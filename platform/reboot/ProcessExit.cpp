#include "platform/reboot/ProcessExit.h"

#include <unistd.h>

#include <cstdio>

#if defined(__SANITIZE_ADDRESS__)
#define QVL_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QVL_LEAK_CHECK 1
#endif
#endif
#ifdef QVL_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace qvl::platform {

void exitProcess(int status) {
    std::fflush(nullptr);
#ifdef QVL_LEAK_CHECK
    // _exit skips the check a sanitizer build runs at exit; run it here.
    __lsan_do_leak_check();
#endif
    ::_exit(status);
}

}  // namespace qvl::platform
