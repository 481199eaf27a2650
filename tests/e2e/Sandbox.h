// Sandbox: drives tools/qvl-sandbox for end-to-end tests: makes a fresh
// device root in a temporary folder, starts the real helper in it, runs
// programs inside, reads the helper's log file and stops it.
//
// Thread-safety: one test thread at a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
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

    // Writes `bytes` to /private/var/tmp/NAME inside; answers that inside path.
    std::string writeFile(const std::string& name, const std::vector<uint8_t>& bytes);
    std::string writeFile(const std::string& name, const std::string& text);

    // The helper's log lines without their dates, in order.
    std::vector<std::string> logLines() const;
    std::string logFilePath() const;
    // Waits until `line` appears among the log lines from index `from` on.
    bool waitForLogLine(const std::string& line, size_t from,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

    // The path of the end-to-end client inside the sandbox.
    static std::string clientPath() { return "/opt/qvl/build/tests/e2e/qvl_e2e_client"; }

  private:
    CommandResult launcher(const std::vector<std::string>& args) const;

    std::string root_;
    std::string sourceDir_;
    std::string buildDir_;
    bool started_ = false;
};

CommandResult runCommand(const std::vector<std::string>& args);

// Open descriptors and resident memory (KiB) of a process.
size_t openDescriptorCount(pid_t pid);
size_t residentKiB(pid_t pid);

}  // namespace qvl::e2e
