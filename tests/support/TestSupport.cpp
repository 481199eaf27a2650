#include "tests/support/TestSupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <linux/fs.h>
#include <openssl/evp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/reboot/SystemRestart.h"

namespace qvl::testing {
namespace {

int clearFlagsAndRemove(const char* path, const struct stat* st, int, FTW*) {
    if (S_ISREG(st->st_mode) || S_ISDIR(st->st_mode)) {
        int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0) {
            int flags = 0;
            if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL)) {
                flags &= ~FS_IMMUTABLE_FL;
                ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
            }
            ::close(fd);
        }
    }
    ::remove(path);
    return 0;
}

void makeParents(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
}

}  // namespace

TempTree::TempTree() {
    std::string pattern = "/var/tmp/qvl-metadata-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
}

TempTree::~TempTree() {
    ::nftw(root_.c_str(), clearFlagsAndRemove, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempTree::file(const std::string& relative, const std::string& content, mode_t mode) const {
    const std::string p = path(relative);
    makeParents(p);
    std::ofstream(p, std::ios::binary) << content;
    ::chmod(p.c_str(), mode);
    return p;
}

std::string TempTree::folder(const std::string& relative, mode_t mode) const {
    const std::string p = path(relative);
    std::filesystem::create_directories(p);
    ::chmod(p.c_str(), mode);
    return p;
}

std::string TempTree::symlink(const std::string& relative, const std::string& target) const {
    const std::string p = path(relative);
    makeParents(p);
    if (::symlink(target.c_str(), p.c_str()) != 0) throw std::runtime_error("symlink failed");
    return p;
}

std::string TempTree::fifo(const std::string& relative) const {
    const std::string p = path(relative);
    makeParents(p);
    if (::mkfifo(p.c_str(), 0644) != 0) throw std::runtime_error("mkfifo failed");
    return p;
}

struct stat TempTree::stat(const std::string& relative) const {
    return lstatOf(path(relative));
}

bool TempTree::exists(const std::string& relative) const {
    struct stat st;
    return ::lstat(path(relative).c_str(), &st) == 0;
}

std::string TempTree::socket(const std::string& relative) const {
    const std::string p = path(relative);
    makeParents(p);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (p.size() >= sizeof(address.sun_path)) throw std::runtime_error("socket path too long");
    std::memcpy(address.sun_path, p.c_str(), p.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int rc = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::close(fd);
    if (rc != 0) throw std::runtime_error("bind failed");
    return p;
}

plist::Data sha1Of(const std::string& bytes) {
    plist::Data digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha1(), nullptr);
    digest.resize(length);
    return digest;
}

std::string commandOutput(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return output;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) output.append(buffer, n);
    ::pclose(pipe);
    return output;
}

void setUserAttribute(const std::string& path, const std::string& name, const std::string& value) {
    const std::string full = "user." + name;
    if (::lsetxattr(path.c_str(), full.c_str(), value.data(), value.size(), 0) != 0) {
        throw std::runtime_error("setxattr " + full + " on " + path + ": " + std::strerror(errno));
    }
}

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

bool inDeviceSandbox() {
    const auto ns = platform::currentPidNamespaceInode();
    char target[64] = {};
    return ns && *ns != platform::kInitialPidNamespaceInode && ::access("/opt/qvl/src", F_OK) == 0 &&
           ::readlink("/var", target, sizeof target - 1) > 0 && std::string(target) == "private/var";
}

}  // namespace qvl::testing
