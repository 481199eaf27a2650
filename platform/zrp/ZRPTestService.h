// TestServiceProcess: runs zrp_test_service (see zrp_test_service.cpp) in a
// child process for the tests of the service library and of its clients, in
// a private socket folder, and ends it when the test is over.
//
// Thread-safety: for the test's own thread.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "tests/support/TestSupport.h"

namespace qvl::zrp {

class TestServiceProcess {
  public:
    ~TestServiceProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            wait();
        }
        if (out_) fclose(out_);
    }

    static std::string binary() {
        const char* dir = std::getenv("QVL_BINARY_DIR");
        return std::string(dir ? dir : ".") + "/platform/zrp/zrp_test_service";
    }
    static bool built() { return access(binary().c_str(), X_OK) == 0; }

    // The private socket folder.
    const std::string& dir() const { return tree_.root(); }
    pid_t pid() const { return pid_; }

    // Runs `script` with /bin/sh, $0 being the service and $1 the socket
    // folder, `fdThree` (when given) as descriptor 3 and the standard output
    // into a pipe; answers whether the service said "ready".
    bool start(const std::string& script = "exec \"$0\" --socket-dir \"$1\"", int fdThree = -1) {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) return false;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], 1);
            if (fdThree >= 0) dup2(fdThree, 3);
            execl("/bin/sh", "sh", "-c", script.c_str(), binary().c_str(), dir().c_str(), nullptr);
            _exit(127);
        }
        close(out[1]);
        out_ = fdopen(out[0], "r");
        return readLine() == "ready";
    }

    // The next line the service printed, without its newline.
    std::string readLine() {
        char line[256] = {};
        if (!fgets(line, sizeof line, out_)) return "";
        std::string s(line);
        if (!s.empty() && s.back() == '\n') s.pop_back();
        return s;
    }

    // Waits for the service to end; its exit status, or 128 + the signal.
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    testing::TempTree tree_{"/tmp"};
    pid_t pid_ = -1;
    FILE* out_ = nullptr;
};

}  // namespace qvl::zrp
