#include "platform/fs/FileAccess.h"

#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/DescriptorIO.h"
#include "base/Errno.h"

namespace qvl::platform {
namespace {

// Longest part of the target's name kept in a temporary name, so that the
// temporary name stays within NAME_MAX.
constexpr size_t kTemporaryNameStem = 200;
constexpr int kTemporaryNameAttempts = 16;

// Random, so that another user of the folder can't take the names ahead of us.
std::string temporaryName(std::string_view target) {
    uint8_t random[8] = {};
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        const uint64_t fallback = static_cast<uint64_t>(::getpid()) ^ static_cast<uint64_t>(::time(nullptr));
        for (size_t i = 0; i < sizeof random; ++i) random[i] = static_cast<uint8_t>(fallback >> (8 * i));
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string name = "." + std::string(target.substr(0, kTemporaryNameStem)) + ".";
    for (uint8_t byte : random) {
        name.push_back(kHex[byte >> 4]);
        name.push_back(kHex[byte & 0xf]);
    }
    return name;
}

// "a/b/c" gives ("a/b", "c"), "c" gives (".", "c"), "/c" gives ("/", "c").
std::pair<std::string, std::string> splitFolderAndName(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace

int writeFileAtomicallyFrom(const std::string& path, const FileSystem::ContentProducer& produce,
                            std::optional<uint32_t> mode) {
    const auto [folder, name] = splitFolderAndName(path);
    if (name.empty() || name == "." || name == "..") return EISDIR;
    UniqueFd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return lastError();
    uint32_t newMode = mode.value_or(0644);
    struct stat old;
    if (!mode && ::fstatat(dir.get(), name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.st_mode))
        newMode = old.st_mode & 07777;

    std::string temp;
    UniqueFd file;
    for (int attempt = 0; attempt < kTemporaryNameAttempts && !file.valid(); ++attempt) {
        temp = temporaryName(name);
        file.reset(
            ::openat(dir.get(), temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file.valid() && errno != EEXIST) return lastError();
    }
    if (!file.valid()) return EEXIST;
    int err = ::fchmod(file.get(), newMode) == 0 ? 0 : lastError();
    if (err == 0) {
        err = produce([&](std::span<const uint8_t> bytes) { return writeAll(file.get(), bytes); });
    }
    if (err == 0 && ::fsync(file.get()) != 0) err = lastError();
    if (err == 0 && !file.closeChecked()) err = lastError();
    if (err == 0 && ::renameat(dir.get(), temp.c_str(), dir.get(), name.c_str()) != 0) err = lastError();
    if (err != 0) {
        file.reset();
        ::unlinkat(dir.get(), temp.c_str(), 0);
        return err;
    }
    // Makes the rename itself durable; a failure here leaves the new file in
    // place, so it is not reported.
    ::fsync(dir.get());
    return 0;
}

int writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                        std::optional<uint32_t> mode) {
    return writeFileAtomicallyFrom(
        path, [&](const FileSystem::ByteSink& sink) { return sink(bytes); }, mode);
}

int openFolderBeneath(const std::string& base, const std::string& relative, bool create, uint32_t mode,
                      UniqueFd* out) {
    UniqueFd current(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!current.valid()) return lastError();
    size_t start = 0;
    while (start <= relative.size()) {
        size_t end = relative.find('/', start);
        if (end == std::string::npos) end = relative.size();
        const std::string name = relative.substr(start, end - start);
        start = end + 1;
        if (name.empty() || name == ".") continue;
        if (name == "..") return EXDEV;
        UniqueFd next;
        if (int err = openFolderAt(current.get(), name, create, mode, &next)) return err;
        current = std::move(next);
    }
    *out = std::move(current);
    return 0;
}

}  // namespace qvl::platform
