#include "platform/nvram/NvramStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <utility>

#include "base/DescriptorIO.h"
#include "base/FolderAccess.h"
#include "base/UniqueFd.h"

namespace qvl::platform {
namespace {

using Fd = UniqueFd;

int errnoOr(int fallback) {
    return errno != 0 ? errno : fallback;
}

std::string_view asText(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// A fresh temporary name per write: the pid keeps concurrent helpers apart,
// the counter concurrent threads.
std::string temporaryName() {
    static std::atomic<unsigned> counter{0};
    return ".nvram-tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
}

// Opens the store's folder. The folders above it are the system's; the store
// folder itself is not followed if it is a link, so that should its parent
// ever be writable by others, the variables can't be led elsewhere.
int openStoreFolder(const std::string& path, Fd* out) {
    std::string_view trimmed(path);
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.remove_suffix(1);
    const size_t slash = trimmed.rfind('/');
    std::string parent = ".";
    if (slash != std::string_view::npos) parent = slash == 0 ? "/" : std::string(trimmed.substr(0, slash));
    Fd above(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!above.valid()) return errnoOr(ENOENT);
    return openFolderAt(above.get(), std::string(trimmed.substr(slash + 1)), false, 0, out);
}

}  // namespace

FileNvramStore::FileNvramStore(std::string folder) : folder_(std::move(folder)) {}

bool FileNvramStore::validVariableName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

bool FileNvramStore::registryEntryExists(std::string_view path) const {
    if (path != kNvramOptionsNodePath) return false;
    Fd dir;
    return openStoreFolder(folder_, &dir) == 0;
}

int FileNvramStore::setOptionsProperty(std::string_view name, std::span<const uint8_t> value) {
    if (name == kNvramDeleteProperty) return deleteVariable(asText(value));
    if (name == kNvramSyncNowProperty) return syncVariable(asText(value));
    return writeVariable(name, value);
}

int FileNvramStore::writeVariable(std::string_view name, std::span<const uint8_t> value) {
    if (!validVariableName(name)) return EINVAL;
    if (value.size() > kMaxNvramValueSize) return E2BIG;
    Fd dir;
    if (int err = openStoreFolder(folder_, &dir)) return err;

    std::string tmp;
    int fd = -1;
    for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
        tmp = temporaryName();
        fd = ::openat(dir.get(), tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST) return errnoOr(EIO);
    }
    if (fd < 0) return EEXIST;
    Fd file(fd);

    int err = writeAll(file.get(), value);
    if (err == 0 && ::fsync(file.get()) != 0) err = errnoOr(EIO);
    if (err == 0 && ::renameat(dir.get(), tmp.c_str(), dir.get(), std::string(name).c_str()) != 0) {
        err = errnoOr(EIO);
    }
    if (err != 0) {
        // The variable keeps its old value; only the temporary goes.
        ::unlinkat(dir.get(), tmp.c_str(), 0);
        return err;
    }
    // Make the rename itself durable.
    ::fsync(dir.get());
    return 0;
}

int FileNvramStore::deleteVariable(std::string_view name) {
    if (!validVariableName(name)) return EINVAL;
    Fd dir;
    if (int err = openStoreFolder(folder_, &dir)) return err;
    if (::unlinkat(dir.get(), std::string(name).c_str(), 0) != 0) return errnoOr(EIO);
    ::fsync(dir.get());
    return 0;
}

int FileNvramStore::syncVariable(std::string_view name) {
    if (!validVariableName(name)) return EINVAL;
    Fd dir;
    if (int err = openStoreFolder(folder_, &dir)) return err;
    // Only a variable the store wrote: a fifo planted at the name would
    // block the sync, a link lead it elsewhere.
    RegularFileOptions options;
    options.requireOwnedBySelf = true;
    Fd file;
    if (int err = openRegularFileAt(dir.get(), std::string(name), options, &file)) return err;
    if (::fsync(file.get()) != 0 || ::fsync(dir.get()) != 0) return errnoOr(EIO);
    return 0;
}

}  // namespace qvl::platform
