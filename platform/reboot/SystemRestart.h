// SystemRestart: the restart of the device. On the device a restart ends
// everything; on a development host the helper runs in a sandbox with its own
// PID namespace, where reboot(2) ends that namespace the same way. In the
// host's initial PID namespace reboot(2) would restart the machine itself, so
// there the layer refuses, logs why and returns.
//
// SystemRestart is the narrow interface the operations use; LinuxSystemRestart
// is the real one. Its two system calls are seams so that the refusal can be
// tested without any risk of restarting the machine running the test.
//
// Thread-safety: no state; safe from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace qvl::platform {

// The fixed inode number of the kernel's initial PID namespace.
inline constexpr uint64_t kInitialPidNamespaceInode = 0xEFFFFFFCu;

// The inode of the calling process's PID namespace, or nullopt when it can't
// be read (no /proc, for example).
std::optional<uint64_t> currentPidNamespaceInode();

// A restart may only be asked for from a PID namespace that is known and is
// not the initial one; an unknown namespace counts as the host's.
bool restartAllowedInNamespace(std::optional<uint64_t> pidNamespaceInode);

class SystemRestart {
  public:
    virtual ~SystemRestart() = default;
    // Restarts. Returns only when no restart happened.
    virtual void restart() = 0;
};

class LinuxSystemRestart final : public SystemRestart {
  public:
    using NamespaceProbe = std::function<std::optional<uint64_t>()>;
    using RebootCall = std::function<int()>;

    // The defaults are the real probe and reboot(RB_AUTOBOOT).
    LinuxSystemRestart();
    LinuxSystemRestart(NamespaceProbe probe, RebootCall call);

    void restart() override;

  private:
    NamespaceProbe probe_;
    RebootCall call_;
};

}  // namespace qvl::platform
