#include "platform/reboot/SystemRestart.h"

#include <sys/reboot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/QVLLog.h"

namespace qvl::platform {

std::optional<uint64_t> currentPidNamespaceInode() {
    struct stat st;
    if (::stat("/proc/self/ns/pid", &st) != 0) return std::nullopt;
    return static_cast<uint64_t>(st.st_ino);
}

bool restartAllowedInNamespace(std::optional<uint64_t> pidNamespaceInode) {
    return pidNamespaceInode.has_value() && *pidNamespaceInode != kInitialPidNamespaceInode;
}

LinuxSystemRestart::LinuxSystemRestart()
    : LinuxSystemRestart(currentPidNamespaceInode, [] { return ::reboot(RB_AUTOBOOT); }) {}

LinuxSystemRestart::LinuxSystemRestart(NamespaceProbe probe, RebootCall call)
    : probe_(std::move(probe)), call_(std::move(call)) {}

void LinuxSystemRestart::restart() {
    const std::optional<uint64_t> ns = probe_ ? probe_() : std::nullopt;
    if (!restartAllowedInNamespace(ns)) {
        QVLLog("reboot: refusing to restart: %s", ns ? "this process runs in the host's initial PID namespace"
                                                     : "the PID namespace can't be determined");
        return;
    }
    // The device's kernel flushes the file systems on a restart; reboot(2)
    // here does not, so flush first.
    ::sync();
    if (call_() != 0) {
        const int err = errno;
        QVLLog("reboot: the restart call failed: %s (%d)", std::strerror(err), err);
    }
}

}  // namespace qvl::platform
