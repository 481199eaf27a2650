#include "platform/nvram/NvramStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <utility>

#include "base/DescriptorIO.h"
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

}  // namespace

FileNvramStore::FileNvramStore(std::string folder) : folder_(std::move(folder)) {}

bool FileNvramStore::validVariableName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

bool FileNvramStore::registryEntryExists(std::string_view path) const {
    if (path != kNvramOptionsNodePath) return false;
    struct stat st;
    return ::stat(folder_.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int FileNvramStore::setOptionsProperty(std::string_view name, std::span<const uint8_t> value) {
    if (name == kNvramDeleteProperty) return deleteVariable(asText(value));
    if (name == kNvramSyncNowProperty) return syncVariable(asText(value));
    return writeVariable(name, value);
}

int FileNvramStore::writeVariable(std::string_view name, std::span<const uint8_t> value) {
    if (!validVariableName(name)) return EINVAL;
    if (value.size() > kMaxNvramValueSize) return E2BIG;
    Fd dir(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return errnoOr(ENOENT);

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
    Fd dir(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return errnoOr(ENOENT);
    if (::unlinkat(dir.get(), std::string(name).c_str(), 0) != 0) return errnoOr(EIO);
    ::fsync(dir.get());
    return 0;
}

int FileNvramStore::syncVariable(std::string_view name) {
    if (!validVariableName(name)) return EINVAL;
    Fd dir(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return errnoOr(ENOENT);
    Fd file(::openat(dir.get(), std::string(name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.valid()) return errnoOr(ENOENT);
    if (::fsync(file.get()) != 0 || ::fsync(dir.get()) != 0) return errnoOr(EIO);
    return 0;
}

}  // namespace qvl::platform
