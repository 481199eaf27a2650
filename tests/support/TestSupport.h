// TestSupport: fixtures shared by the tests: a temporary tree on a disk file
// system (user extended attributes need one), small file helpers, the SHA-1
// of bytes, a dictionary built in one expression, running a command (a tool
// under test, or another for a cross-check), the source tree's files, and
// whether the test runs inside the device sandbox.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "plist/PlistValue.h"

namespace qvl::testing {

// A fresh folder under `parent` (by default /var/tmp, on a disk), removed
// with everything in it at the end (immutable flags are lifted first).
class TempTree {
  public:
    explicit TempTree(const std::string& parent = "/var/tmp");
    ~TempTree();
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& relative) const { return root_ + "/" + relative; }
    // Each creates the item (and its missing folders) and answers its path.
    std::string file(const std::string& relative, const std::string& content = "", mode_t mode = 0644) const;
    std::string folder(const std::string& relative, mode_t mode = 0755) const;
    std::string symlink(const std::string& relative, const std::string& target) const;
    std::string fifo(const std::string& relative) const;
    std::string socket(const std::string& relative) const;
    // lstat of an item, which must exist.
    struct stat stat(const std::string& relative) const;
    bool exists(const std::string& relative) const;

  private:
    std::string root_;
};

// lstat of `path`, which must exist.
struct stat lstatOf(const std::string& path);
std::string readText(const std::string& path);
void writeText(const std::string& path, const std::string& text);
plist::Data sha1Of(const std::string& bytes);
// Runs a shell command and returns its standard output.
std::string commandOutput(const std::string& command);

// How a program run by a test ended and what it printed.
struct ToolRun {
    int status = -1;  // exit status, or -1 when it did not exit
    std::string out, err;
    bool says(std::string_view text) const { return out.find(text) != std::string::npos; }
    bool logs(std::string_view text) const { return err.find(text) != std::string::npos; }
};
// Runs a shell command line with its input from /dev/null.
ToolRun runTool(const std::string& commandLine);

// The dictionary of `entries`, in their order.
plist::Dictionary dict(std::initializer_list<std::pair<std::string, plist::Value>> entries);
// A file record as the device manifest writes it, owned by mobile (501).
plist::Dictionary record(const char* type = "NSFileTypeRegular", int64_t mode = 0644,
                         std::string target = "");
// `r` with the attribute `key` set, or removed when `value` is nullopt.
plist::Dictionary withAttribute(plist::Dictionary r, std::string_view key, std::optional<plist::Value> value);
// The dictionary at `key` of `d`, which must be there.
plist::Dictionary& sub(plist::Dictionary& d, const std::string& key);
// A file of the source tree under test, and one of its development PKI (pki/out/).
std::string sourcePath(const std::string& relative);
std::string pkiPath(const std::string& name);

// One partition row of "plexactl gpt show": its first and last block, its
// unique GUID and its name.
struct GptRow {
    uint64_t first, last;
    std::string unique, name;
    bool operator==(const GptRow&) const = default;
};
// The partition rows of the output of "plexactl gpt show", by index.
std::map<int, GptRow> gptShowRows(const std::string& output);

void setUserAttribute(const std::string& path, const std::string& name, const std::string& value);
// Whether this process runs inside the device sandbox (tools/qvl-sandbox),
// where the device's fixed paths are its own to change.
bool inDeviceSandbox();

}  // namespace qvl::testing
