// Sandbox: drives tools/qvl-sandbox for end-to-end tests: makes a fresh
// device root in a temporary folder, starts the real helper in it, runs
// programs inside (qvalctl, entitled as root and as "mobile" by the device
// image, is the client), reads the helper's log file and stops it.
//
// Thread-safety: one test thread at a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qvl::e2e {

struct CommandResult {
    int status = -1;     // exit status, or -1 when the command could not run
    std::string output;  // stdout and stderr together
};

class Sandbox {
  public:
    // Exit status of qvl-sandbox when root or bwrap is missing.
    static constexpr int kUnavailable = 77;

    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    // Why the sandbox can't run here (not root, no bwrap), or nullopt.
    static std::optional<std::string> unavailableReason();

    const std::string& root() const { return root_; }
    // Where the helper's socket lies, seen from the host.
    std::string socketDirectory() const { return root_ + "/private/var/run/zrp"; }

    // Starts the helper, with more launcher options when given (such as
    // "--disk IMAGE"); false (with the launcher's output in *output) on failure.
    bool start(std::string* output = nullptr, const std::vector<std::string>& options = {});
    // Runs a command inside, as `user` (name or uid) when given.
    CommandResult exec(const std::vector<std::string>& args, const std::string& user = "");
    // Signals the helper (unless it has ended), ends the sandbox and answers
    // the helper's exit status (-1 if it did not end).
    int stop(const std::string& signal = "TERM");
    // Waits for the helper to end by itself; its exit status, or -1. The
    // sandbox stays up until stop().
    int waitForExit(std::chrono::milliseconds timeout);
    // Whether the helper still runs.
    bool running() const;
    // Host PID of the helper, or -1.
    pid_t helperPid() const;

    // Runs qvalctl inside, as `user` when given, with `args` (its options
    // and the request).
    CommandResult qvalctl(const std::vector<std::string>& args, const std::string& user = "");
    // Runs qvalctl with `command`: its exit status (0 true, 1 false) and the
    // lines logged from the command's entry line until "Message handled",
    // without the rows of the dictionaries they show.
    std::pair<int, std::vector<std::string>> request(const std::vector<std::string>& command,
                                                     const std::string& user = "");
    // Adds an entitlement registry entry for qvalctl run as `uid`, holding
    // the helper's entitlement as `valueXML` (for example "<true/>").
    void entitleClient(int uid, const std::string& valueXML);
    // Writes `text` to the inside path `path`.
    void writeFile(const std::string& path, const std::string& text);
    // The host path of an inside path.
    std::string host(const std::string& path) const { return root_ + path; }

    // The helper's log lines without their dates, in order.
    std::vector<std::string> logLines() const;
    std::string logFilePath() const;
    // Waits until `line` appears among the log lines from index `from` on.
    bool waitForLogLine(const std::string& line, size_t from,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    // The log lines from index `from` on, once "Message handled" is among them.
    std::vector<std::string> handledSince(size_t from) const;

  private:
    CommandResult launcher(const std::vector<std::string>& args) const;

    std::string root_;
    std::string sourceDir_;
    std::string buildDir_;
    bool started_ = false;
};

CommandResult runCommand(const std::vector<std::string>& args);

// Open descriptors of a process.
size_t openDescriptorCount(pid_t pid);

}  // namespace qvl::e2e
