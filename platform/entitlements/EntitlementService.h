// The entitlement service: which named entitlements a client process holds.
//
// Entitlements come from a registry of property-list files, one per program,
// in /etc/ostrel/entitlements/*.plist. Each holds "Executable" (absolute path
// of the program), optionally "UserID" (the only uid the entry applies to) and
// "Entitlements" (name -> any property value). The files are read afresh, in
// name order, whenever a task is made, so a change to the registry takes
// effect at the next task (parsed files are kept while their size, times and
// inode stay the same); a file that can't be parsed is skipped.
//
// Thread-safety: a Task is an immutable value; lookups may run on any thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zrp/ZRP.h"
#include "plist/PlistValue.h"

namespace qvl::entitlements {

inline constexpr const char* kDefaultRegistryDirectory = "/etc/ostrel/entitlements";

// A reference to a client process, made from the audit token of its connection.
class Task {
  public:
    // There is a task when the token's process still runs and its executable
    // path was read when the connection was accepted; otherwise nullopt. The
    // task holds the registry as it stood then.
    static std::optional<Task> createWithAuditToken(
        const zrp::AuditToken& token, const std::string& registryDirectory = kDefaultRegistryDirectory);

    // The value of entitlement `name`: taken from the first registry entry (in
    // file name order) whose "Executable" is this task's executable and whose
    // "UserID", when present, is this task's uid. nullopt when no entry
    // matches or the matching entry has no such entitlement.
    std::optional<plist::Value> valueForEntitlement(std::string_view name) const;

    const std::string& executablePath() const { return executablePath_; }
    uid_t uid() const { return uid_; }

  private:
    // The parsed files, in name order, as one snapshot shared with the
    // registry's cache until the registry changes.
    using Registry = std::shared_ptr<const std::vector<std::shared_ptr<const plist::Value>>>;

    Task(std::string executablePath, uid_t uid, Registry registry)
        : executablePath_(std::move(executablePath)), uid_(uid), registry_(std::move(registry)) {}

    std::string executablePath_;
    uid_t uid_;
    Registry registry_;
};

}  // namespace qvl::entitlements
