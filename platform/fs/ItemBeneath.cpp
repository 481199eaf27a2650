#include "platform/fs/ItemBeneath.h"

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <vector>

#include "base/Errno.h"
#include "base/FolderAccess.h"

namespace qvl::platform {
namespace {

// The names of `relative`, "." and empty ones dropped; false for ".." or a
// name that can't be one.
bool splitNames(std::string_view relative, std::vector<std::string_view>* names) {
    size_t start = 0;
    while (start <= relative.size()) {
        size_t end = relative.find('/', start);
        if (end == std::string_view::npos) end = relative.size();
        const std::string_view name = relative.substr(start, end - start);
        start = end + 1;
        if (name.empty() || name == ".") continue;
        if (name == ".." || name.find('\0') != std::string_view::npos) return false;
        names->push_back(name);
    }
    return true;
}

}  // namespace

int openItemBeneath(int baseFd, std::string_view relative, ItemBeneath* out) {
    std::vector<std::string_view> names;
    if (!splitNames(relative, &names)) return EXDEV;
    if (names.size() > kMaxNamesBeneath) return ENAMETOOLONG;
    UniqueFd folder(::fcntl(baseFd, F_DUPFD_CLOEXEC, 0));
    if (!folder.valid()) return lastError();
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        const std::string name(names[i]);
        UniqueFd next;
        if (int err = openFolderAt(folder.get(), name, false, 0, &next)) return err;
        folder = std::move(next);
    }
    // The folder's descriptor pins the very folder reached: a path through
    // it is not looked up again from the top, so nothing renamed or relinked
    // above it later can redirect the calls made on the entry.
    std::string path = "/proc/self/fd/" + std::to_string(folder.get()) + "/";
    path.append(names.empty() ? std::string_view(".") : names.back());
    out->folder = std::move(folder);
    out->path = std::move(path);
    return 0;
}

}  // namespace qvl::platform
