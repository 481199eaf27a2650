// The entitlement service: which named entitlements a client process holds.
//
// Entitlements come from a registry of property-list files, one per program,
// in /etc/ostrel/entitlements/*.plist. Each holds "Executable" (absolute path
// of the program), optionally "UserID" (the only uid the entry applies to) and
// "Entitlements" (name -> any property value). The files are read afresh, in
// name order, for every lookup, so a change to the registry takes effect at
// once (parsed files are kept while their size, times and inode stay the
// same); a file that can't be parsed is skipped.
//
// Thread-safety: a Task is an immutable value; lookups may run on any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/zrp/ZRP.h"
#include "plist/PlistValue.h"

namespace qvl::entitlements {

inline constexpr const char* kDefaultRegistryDirectory = "/etc/ostrel/entitlements";

// A reference to a client process, made from the audit token of its connection.
class Task {
  public:
    // There is a task when the token's process still runs and its executable
    // path was read when the connection was accepted; otherwise nullopt.
    static std::optional<Task> createWithAuditToken(
        const zrp::AuditToken& token, std::string registryDirectory = kDefaultRegistryDirectory);

    // The value of entitlement `name`: taken from the first registry entry (in
    // file name order) whose "Executable" is this task's executable and whose
    // "UserID", when present, is this task's uid. nullopt when no entry
    // matches or the matching entry has no such entitlement.
    std::optional<plist::Value> valueForEntitlement(std::string_view name) const;

    const std::string& executablePath() const { return executablePath_; }
    uid_t uid() const { return uid_; }

  private:
    Task(std::string executablePath, uid_t uid, std::string registryDirectory)
        : executablePath_(std::move(executablePath)),
          uid_(uid),
          registryDirectory_(std::move(registryDirectory)) {}

    std::string executablePath_;
    uid_t uid_;
    std::string registryDirectory_;
};

}  // namespace qvl::entitlements
