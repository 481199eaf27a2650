// QVLHClientPath: a path a client hands the helper, held to the place where
// the helper may act on a client's behalf: strictly below /private/var
// ("/var" names the same folder), without a ".." component, and, when
// opened, without a symbolic link on the way below /private/var.
//
// /private/var itself is the system's and trusted as it stands (on the
// device /var leads to it through a link; on a host it may be a link to
// /var). Everything below it can be changed by clients or by "mobile", who
// could plant a link there to lead the helper elsewhere, so below it nothing
// is followed. With no link and no ".." on the way, the text of a confined
// path says exactly where it lies.
//
// Thread-safety: a value; opening reads the file system given.
#pragma once

#include <optional>
#include <string>

#include "base/UniqueFd.h"

namespace qvl::platform {
class FileSystem;
}

namespace qvl {

class QVLHClientPath {
  public:
    static constexpr const char* kTrustedFolder = "/private/var";

    // The confined path, or nullopt with the reason in `why` when the text
    // alone leads elsewhere.
    static std::optional<QVLHClientPath> parse(const std::string& path, std::string* why);

    // Below the trusted folder, names joined by "/": "a/b/c". Never empty.
    const std::string& relative() const { return relative_; }
    // The last name ("c"), and the path of the folder holding it ("a/b", or
    // "" directly below the trusted folder).
    const std::string& name() const { return name_; }
    const std::string& parentRelative() const { return parentRelative_; }
    // Whether this path is `folder` (relative to the trusted folder) or lies inside it.
    bool within(const std::string& folder) const;

    // Opens the folder that holds the item, refusing a link on the way
    // (ELOOP); with `create`, missing folders are made (mode 0755) on the
    // way. Invalid with errno set on failure.
    UniqueFd openParent(platform::FileSystem& files, bool create) const;

  private:
    std::string relative_, parentRelative_, name_;
};

}  // namespace qvl
