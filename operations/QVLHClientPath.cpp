#include "operations/QVLHClientPath.h"

#include <string_view>
#include <vector>

#include "platform/fs/FileSystem.h"

namespace qvl {
namespace {

// Folders made on the way get at most the usual default mode, so a helper
// started with an empty umask can't make them writable by everyone.
constexpr uint32_t kNewFolderMode = 0755;

std::vector<std::string_view> namesOf(std::string_view path) {
    std::vector<std::string_view> names;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        const std::string_view name = path.substr(start, end - start);
        if (!name.empty() && name != ".") names.push_back(name);
        start = end + 1;
    }
    return names;
}

}  // namespace

std::optional<QVLHClientPath> QVLHClientPath::parse(const std::string& path, std::string* why) {
    std::vector<std::string_view> names = namesOf(path);
    for (std::string_view name : names) {
        if (name == "..") {
            *why = "it has a \"..\" component";
            return std::nullopt;
        }
    }
    // "/var/x" and "/private/var/x" name the same item; the trusted folder
    // itself and the folders above it are never a client's to change.
    size_t skip = 0;
    if (!names.empty() && names[0] == "var") skip = 1;
    if (names.size() >= 2 && names[0] == "private" && names[1] == "var") skip = 2;
    if (path.empty() || path[0] != '/' || skip == 0 || names.size() == skip) {
        *why = "it is not below /private/var";
        return std::nullopt;
    }
    QVLHClientPath confined;
    for (size_t i = skip; i < names.size(); ++i) {
        if (i + 1 == names.size()) {
            confined.parentRelative_ = confined.relative_;
            confined.name_ = names[i];
        }
        if (!confined.relative_.empty()) confined.relative_ += "/";
        confined.relative_ += names[i];
    }
    return confined;
}

bool QVLHClientPath::within(const std::string& folder) const {
    return relative_ == folder || relative_.starts_with(folder + "/");
}

UniqueFd QVLHClientPath::openParent(platform::FileSystem& files, bool create) const {
    return files.openFolderBeneath(kTrustedFolder, parentRelative_, create, kNewFolderMode);
}

}  // namespace qvl
