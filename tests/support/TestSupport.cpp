#include "tests/support/TestSupport.h"

#include <ftw.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/reboot/SystemRestart.h"

namespace qvl::testing {
namespace {

int liftFlagAndRemove(const char* path, const struct stat* st, int, FTW*) {
    if (S_ISREG(st->st_mode) || S_ISDIR(st->st_mode))
        platform::LinuxFileSystem::sharedInstance().setImmutableFlag(path, false);
    ::remove(path);
    return 0;
}

std::string made(const std::string& path, int rc, const char* what) {
    if (rc != 0) throw std::runtime_error(std::string(what) + " " + path + ": " + std::strerror(errno));
    return path;
}

// The standard output of `command`, and its wait status in *status.
std::string pipeOutput(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return output;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) output.append(buffer, n);
    *status = ::pclose(pipe);
    return output;
}

}  // namespace

TempTree::TempTree(const std::string& parent) {
    std::string pattern = parent + "/qvl-test-XXXXXX";
    root_ = made(pattern, ::mkdtemp(pattern.data()) ? 0 : -1, "mkdtemp");
}

TempTree::~TempTree() {
    ::nftw(root_.c_str(), liftFlagAndRemove, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempTree::file(const std::string& relative, const std::string& content, mode_t mode) const {
    std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
    writeText(path(relative), content);
    return made(path(relative), ::chmod(path(relative).c_str(), mode), "chmod");
}

std::string TempTree::folder(const std::string& relative, mode_t mode) const {
    std::filesystem::create_directories(path(relative));
    return made(path(relative), ::chmod(path(relative).c_str(), mode), "chmod");
}

std::string TempTree::symlink(const std::string& relative, const std::string& target) const {
    std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
    return made(path(relative), ::symlink(target.c_str(), path(relative).c_str()), "symlink");
}

std::string TempTree::fifo(const std::string& relative) const {
    return made(path(relative), ::mkfifo(path(relative).c_str(), 0644), "mkfifo");
}

std::string TempTree::socket(const std::string& relative) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path(relative).c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int rc = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::close(fd);
    return made(path(relative), rc, "bind");
}

struct stat TempTree::stat(const std::string& relative) const {
    return lstatOf(path(relative));
}

bool TempTree::exists(const std::string& relative) const {
    struct stat st;
    return ::lstat(path(relative).c_str(), &st) == 0;
}

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

// In blocks, into room made once: a disk image of tens of megabytes reads in
// moments even in a sanitized build, where growing the text as it comes takes
// seconds.
std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string text;
    std::error_code unknownSize;
    if (const auto size = std::filesystem::file_size(path, unknownSize); !unknownSize) text.reserve(size);
    char buffer[1 << 16];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) text.append(buffer, size_t(in.gcount()));
    return text;
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

plist::Data sha1Of(const std::string& bytes) {
    plist::Data digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha1(), nullptr);
    digest.resize(length);
    return digest;
}

std::string commandOutput(const std::string& command) {
    int status = 0;
    return pipeOutput(command, &status);
}

ToolRun runTool(const std::string& commandLine) {
    ToolRun run;
    char errPath[] = "/tmp/qvl-tool-stderr-XXXXXX";
    const int errFd = ::mkstemp(errPath);
    if (errFd < 0) return run;
    ::close(errFd);
    int status = -1;
    run.out = pipeOutput("(" + commandLine + ") 2>" + errPath + " </dev/null", &status);
    run.status = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.err = readText(errPath);
    ::unlink(errPath);
    return run;
}

plist::Dictionary dict(std::initializer_list<std::pair<std::string, plist::Value>> entries) {
    plist::Dictionary d;
    for (const auto& [key, value] : entries) d.set(key, value);
    return d;
}

plist::Dictionary record(const char* type, int64_t mode, std::string target) {
    return dict({{"QVLManifestFileAttributes", dict({{"NSFileType", type},
                                                     {"NSFilePosixPermissions", mode},
                                                     {"NSFileOwnerAccountID", 501},
                                                     {"NSFileGroupOwnerAccountID", 501},
                                                     {"NSFileOwnerAccountName", "mobile"},
                                                     {"NSFileGroupOwnerAccountName", "mobile"}})},
                 {"QVLManifestFileExtendedAttributes", plist::Dictionary()},
                 {"QVLManifestFileHash", plist::Data(20, 0xab)},
                 {"QVLManifestSymbolicLinkTargetFile", std::move(target)}});
}

plist::Dictionary& sub(plist::Dictionary& d, const std::string& key) {
    return *d.find(key)->asDictionary();
}

plist::Dictionary withAttribute(plist::Dictionary r, std::string_view key,
                                std::optional<plist::Value> value) {
    plist::Dictionary& attributes = sub(r, "QVLManifestFileAttributes");
    if (value)
        attributes.set(std::string(key), std::move(*value));
    else
        attributes.erase(key);
    return r;
}

std::string sourcePath(const std::string& relative) {
    const char* dir = std::getenv("QVL_SOURCE_DIR");
    return std::string(dir ? dir : ".") + "/" + relative;
}

std::string pkiPath(const std::string& name) {
    return sourcePath("pki/out/" + name);
}

std::map<int, GptRow> gptShowRows(const std::string& output) {
    static const std::regex row(R"(^(\d+)\s+(\d+)\s+(\d+)\s+\d+\s+\S{36}\s+(\S{36})\s+(.*)$)");
    std::map<int, GptRow> rows;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_match(line, m, row))
            rows[std::stoi(m[1])] = {std::stoull(m[2]), std::stoull(m[3]), m[4], m[5]};
    }
    return rows;
}

void setUserAttribute(const std::string& path, const std::string& name, const std::string& value) {
    made(path, ::lsetxattr(path.c_str(), ("user." + name).c_str(), value.data(), value.size(), 0),
         "setxattr");
}

bool inDeviceSandbox() {
    const auto ns = platform::currentPidNamespaceInode();
    char target[64] = {};
    return ns && *ns != platform::kInitialPidNamespaceInode && ::access("/opt/qvl/src", F_OK) == 0 &&
           ::readlink("/var", target, sizeof target - 1) > 0 && std::string(target) == "private/var";
}

}  // namespace qvl::testing
