#include "platform/zrp/TerminationSignal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/zrp/SocketIO.h"

namespace qvl::zrp {

namespace {

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

}  // namespace

TerminationSignal::TerminationSignal() {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    read_.reset(pipeFds[0]);
    write_.reset(pipeFds[1]);
    gSignalWriteFd.store(pipeFds[1]);
}

bool TerminationSignal::install(std::string* error) {
    std::lock_guard lock(mu_);
    if (installed_) return true;
    struct sigaction sa {};
    sa.sa_handler = onSigterm;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (::sigaction(SIGTERM, &sa, nullptr) != 0) {
        if (error) *error = errnoText("sigaction");
        return false;
    }
    installed_ = true;
    return true;
}

void TerminationSignal::drain() {
    char buf[64];
    while (::read(read_.get(), buf, sizeof buf) > 0) {
    }
}

void TerminationSignal::actAsByDefault() {
    ::signal(SIGTERM, SIG_DFL);
    ::raise(SIGTERM);
}

}  // namespace qvl::zrp
