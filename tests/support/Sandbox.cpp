#include "tests/support/Sandbox.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/TestSupport.h"

namespace qvl::e2e {

namespace fs = std::filesystem;

namespace {

std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out.push_back(c);
        }
    }
    return out + "'";
}

std::string envOr(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return value && *value ? value : fallback;
}

// "2026-11-22 21:04:05 +0000 " before every message in the log file.
constexpr size_t kDatePrefixLength = 26;

}  // namespace

CommandResult runCommand(const std::vector<std::string>& args) {
    std::string command;
    for (const auto& arg : args) command += shellQuote(arg) + " ";
    const testing::ToolRun run = testing::runTool(command + "2>&1");
    return {run.status, run.out};
}

Sandbox::Sandbox() : sourceDir_(envOr("QVL_SOURCE_DIR", ".")), buildDir_(envOr("QVL_BINARY_DIR", "build")) {
    char pattern[] = "/tmp/qvl-e2e-XXXXXX";
    if (::mkdtemp(pattern)) root_ = pattern;
}

Sandbox::~Sandbox() {
    // Whatever happened to the helper, leave no sandbox behind.
    if (fs::exists(root_ + "/.sandbox/wrapper.pid") && !fs::exists(root_ + "/.sandbox/ended")) {
        launcher({"stop", "--root", root_, "--signal", "KILL"});
    }
    if (!root_.empty()) {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
}

std::optional<std::string> Sandbox::unavailableReason() {
    if (::geteuid() != 0) return "the sandbox needs root";
    if (runCommand({"sh", "-c", "command -v bwrap"}).status != 0) return "bwrap is not installed";
    return std::nullopt;
}

CommandResult Sandbox::launcher(const std::vector<std::string>& args) const {
    std::vector<std::string> full = {sourceDir_ + "/tools/qvl-sandbox"};
    full.insert(full.end(), args.begin(), args.end());
    return runCommand(full);
}

bool Sandbox::start(std::string* output, const std::vector<std::string>& options) {
    if (root_.empty()) return false;
    std::vector<std::string> args = {"start", "--root", root_, "--build", buildDir_};
    args.insert(args.end(), options.begin(), options.end());
    const CommandResult result = launcher(args);
    if (output) *output = result.output;
    started_ = result.status == 0;
    return started_;
}

CommandResult Sandbox::exec(const std::vector<std::string>& args, const std::string& user) {
    std::vector<std::string> full = {"exec", "--root", root_};
    if (!user.empty()) {
        full.push_back("--user");
        full.push_back(user);
    }
    full.push_back("--");
    full.insert(full.end(), args.begin(), args.end());
    return launcher(full);
}

int Sandbox::stop(const std::string& signal) {
    if (!started_) return -1;
    const CommandResult result = launcher({"stop", "--root", root_, "--signal", signal});
    started_ = false;
    return result.output.find("main program exited with status") == std::string::npos ? -1 : result.status;
}

int Sandbox::waitForExit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const std::string statusFile = root_ + "/.sandbox/run/status";
    while (!fs::exists(statusFile)) {
        if (std::chrono::steady_clock::now() > deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::ifstream in(statusFile);
    int status = -1;
    in >> status;
    return status;
}

bool Sandbox::running() const {
    return started_ && !fs::exists(root_ + "/.sandbox/status");
}

pid_t Sandbox::helperPid() const {
    const CommandResult result = launcher({"pid", "--root", root_});
    if (result.status != 0) return -1;
    return static_cast<pid_t>(std::atol(result.output.c_str()));
}

CommandResult Sandbox::qvalctl(const std::vector<std::string>& args, const std::string& user) {
    std::vector<std::string> full = {"qvalctl"};
    full.insert(full.end(), args.begin(), args.end());
    return exec(full, user);
}

std::pair<int, std::vector<std::string>> Sandbox::request(const std::vector<std::string>& command,
                                                          const std::string& user) {
    const size_t from = logLines().size();
    const int status = qvalctl(command, user).status;
    std::vector<std::string> logged;
    bool inDictionary = false, entered = false;
    for (const std::string& line : handledSince(from)) {
        entered = entered || line.starts_with("Entering ");
        if (line == "Message handled") break;
        if (!entered) continue;
        if (inDictionary) {
            inDictionary = line != "}";
            continue;
        }
        logged.push_back(line);
        inDictionary = line.ends_with("{");
    }
    return {status, logged};
}

void Sandbox::entitleClient(int uid, const std::string& valueXML) {
    writeFile(
        "/etc/ostrel/entitlements/e2e-" + std::to_string(uid) + ".plist",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
        "<key>Executable</key><string>/opt/qvl/build/tools/qvalctl/qvalctl</string>\n"
        "<key>UserID</key><integer>" +
            std::to_string(uid) +
            "</integer>\n<key>Entitlements</key><dict><key>com.ostrel.private.quorvale.quorvaled</key>" +
            valueXML + "</dict>\n</dict>\n</plist>\n");
}

void Sandbox::writeFile(const std::string& path, const std::string& text) {
    std::ofstream(root_ + path, std::ios::binary | std::ios::trunc) << text;
}

std::string Sandbox::logFilePath() const {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char name[64];
    std::snprintf(name, sizeof name, "qvald_helper-%04d%02d%02d.log", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday);
    return root_ + "/private/var/logs/qvald/" + name;
}

std::vector<std::string> Sandbox::logLines() const {
    std::vector<std::string> lines;
    std::ifstream in(logFilePath());
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line.size() >= kDatePrefixLength ? line.substr(kDatePrefixLength) : line);
    }
    return lines;
}

bool Sandbox::waitForLogLine(const std::string& line, size_t from, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto lines = logLines();
        if (from < lines.size() && std::find(lines.begin() + from, lines.end(), line) != lines.end())
            return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::vector<std::string> Sandbox::handledSince(size_t from) const {
    waitForLogLine("Message handled", from);
    const std::vector<std::string> lines = logLines();
    return from < lines.size() ? std::vector<std::string>(lines.begin() + from, lines.end())
                               : std::vector<std::string>{};
}

size_t openDescriptorCount(pid_t pid) {
    size_t count = 0;
    std::error_code ec;
    for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
         !ec && it != fs::directory_iterator(); it.increment(ec)) {
        ++count;
    }
    return count;
}

}  // namespace qvl::e2e
