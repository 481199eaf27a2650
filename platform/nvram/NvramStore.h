// NvramStore: the firmware-variable store, reached the way the device reaches
// it: a registry master port, the options node "VXDeviceTree:/options", and
// named properties of that node. Setting a property named after a variable
// creates or replaces it; two reserved property names act as commands, with
// the variable's name as their value: "VXNVRAM-DELETE-PROPERTY" deletes it,
// "VXNVRAM-SYNCNOW-PROPERTY" commits it to persistent storage at once.
//
// NvramStore is the narrow interface the operations use, so tests can put a
// refusing store in its place. FileNvramStore keeps each variable as a file
// named by the variable in one folder; the options node exists exactly when
// that folder does.
//
// Thread-safety: FileNvramStore holds no mutable state; concurrent calls are
// safe as far as the file system's own operations are (each write is an
// atomic rename).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace qvl::platform {

inline constexpr std::string_view kNvramOptionsNodePath = "VXDeviceTree:/options";
inline constexpr std::string_view kNvramDeleteProperty = "VXNVRAM-DELETE-PROPERTY";
inline constexpr std::string_view kNvramSyncNowProperty = "VXNVRAM-SYNCNOW-PROPERTY";
inline constexpr const char* kDefaultNvramFolder = "/private/var/db/platform/nvram/";
// Firmware variable space is tiny on the device; a larger value is refused
// rather than written.
inline constexpr size_t kMaxNvramValueSize = 64 * 1024;

class NvramStore {
  public:
    virtual ~NvramStore() = default;

    // Whether the registry can be reached at all.
    virtual bool masterPortAvailable() const = 0;
    // Whether the registry entry at `path` exists.
    virtual bool registryEntryExists(std::string_view path) const = 0;
    // Sets a property of the options node. Returns 0 on success, otherwise an
    // errno value telling why the store refused.
    virtual int setOptionsProperty(std::string_view name, std::span<const uint8_t> value) = 0;
};

class FileNvramStore final : public NvramStore {
  public:
    explicit FileNvramStore(std::string folder = kDefaultNvramFolder);

    bool masterPortAvailable() const override { return true; }
    bool registryEntryExists(std::string_view path) const override;
    int setOptionsProperty(std::string_view name, std::span<const uint8_t> value) override;

    // Whether `name` can name a variable file: not empty, not "." or "..",
    // no "/" and no NUL byte.
    static bool validVariableName(std::string_view name);

  private:
    int writeVariable(std::string_view name, std::span<const uint8_t> value);
    int deleteVariable(std::string_view name);
    int syncVariable(std::string_view name);

    std::string folder_;
};

}  // namespace qvl::platform
