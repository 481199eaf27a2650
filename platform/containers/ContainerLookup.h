// ContainerLookup: where the system containers of the device live. A system
// data container (class 12) of identifier I is the folder
// <root>/Data/System/I, a system group container (class 13) the folder
// <root>/Shared/SystemGroup/I, with <root> "/private/var/db/platform/containers"
// on the device. The lookup creates a missing container (mode 0755, owned by
// root) and reports whether it existed before; in read-only mode (tools run
// outside a device) a missing container counts as one that did not exist and
// nothing is created.
//
// A container is excluded from backup when its folder carries the extended
// attribute "user.ostrel.backup.exclude" with the value "1".
//
// Thread-safety: the lookup keeps no state besides its fixed root and
// read-only flag; calls may come from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qvl::platform {

enum class ContainerClass : int {
    kSystemData = 12,
    kSystemGroup = 13,
};

struct ContainerInfo {
    std::string path;
    bool existed = false;
};

// The narrow interface the domain checker uses, so tests can swap in a fake.
class ContainerLookup {
  public:
    virtual ~ContainerLookup() = default;
    // The container of `identifier` in `containerClass`; nullopt when there is
    // no answer (a bad identifier, an unknown class, a failure to create it).
    virtual std::optional<ContainerInfo> containerPath(std::string_view identifier,
                                                       ContainerClass containerClass) = 0;
    // The excluded-from-backup flag of the folder at `path`; nullopt when it
    // cannot be read (no such folder).
    virtual std::optional<bool> excludedFromBackup(const std::string& path) = 0;
};

class FileContainerLookup : public ContainerLookup {
  public:
    static constexpr const char* kDefaultRoot = "/private/var/db/platform/containers";
    static constexpr const char* kExcludeAttribute = "user.ostrel.backup.exclude";

    // The process-wide lookup over kDefaultRoot, creating missing containers.
    static FileContainerLookup& sharedInstance();

    explicit FileContainerLookup(std::string root = kDefaultRoot, bool readOnly = false);

    bool readOnly() const { return readOnly_; }
    const std::string& root() const { return root_; }

    std::optional<ContainerInfo> containerPath(std::string_view identifier,
                                               ContainerClass containerClass) override;
    std::optional<bool> excludedFromBackup(const std::string& path) override;

    // Whether `identifier` can name a container folder: not empty, not "." or
    // "..", no "/" and no NUL, at most 255 bytes.
    static bool validIdentifier(std::string_view identifier);

  private:
    std::string root_;
    const bool readOnly_;
};

}  // namespace qvl::platform
