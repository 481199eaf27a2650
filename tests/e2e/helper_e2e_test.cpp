// End-to-end tests of the helper as a service: the real binary in a sandboxed
// device root, driven through its real socket by qvalctl inside the sandbox
// (so the entitlement registry can recognise it) or, for hostile input, by
// raw connections from the host. Log lines are checked word for word in the
// helper's own log file.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/zrp/ZRP.h"
#include "tests/support/Sandbox.h"

namespace qvl::e2e {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr const char* kService = "com.ostrel.quorvaledhelper";
const std::string kGate = "-[QVLHMessageResponder hasEntitlementQuorvaled]: ";
const std::string kRefused = "The client does not have proper entitlement";

// A raw connection from the host to the helper's socket; -1 when it fails.
int connectFromHost(const Sandbox& sandbox) {
    const std::string path = sandbox.socketDirectory() + "/" + kService;
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        fd = -1;
    }
    return fd;
}

void sendBytes(int fd, const std::vector<uint8_t>& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

std::vector<uint8_t> frameOf(const std::string& key) {
    zrp::Dictionary message;
    message.setString(key, std::string(4000, 'x'));
    auto frame = zrp::encodeFrame(message);
    return frame ? frame->bytes : std::vector<uint8_t>{};
}

std::string lastLine(const Sandbox& sandbox) {
    const Lines lines = sandbox.logLines();
    return lines.empty() ? std::string() : lines.back();
}

bool contains(const Lines& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class HelperE2ETest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (auto reason = Sandbox::unavailableReason()) {
            skipReason_ = *reason;
            return;
        }
        sandbox_ = std::make_unique<Sandbox>();
        if (!sandbox_->start(&startFailure_)) return;
        // "daemon" holds the entitlement as a string, which must not count.
        sandbox_->entitleClient(1, "<string>true</string>");
    }
    // Everything above has run against this one helper: it must still end
    // cleanly (under the sanitizers, that includes its leak check at exit).
    static void TearDownTestSuite() {
        if (sandbox_ && sandbox_->running()) EXPECT_EQ(sandbox_->stop("TERM"), 0);
        sandbox_.reset();
    }
    void SetUp() override {
        if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;
        ASSERT_TRUE(sandbox_->running()) << "the helper is not running:\n" << startFailure_;
    }
    size_t mark() const { return sandbox_->logLines().size(); }

    static inline std::unique_ptr<Sandbox> sandbox_;
    static inline std::string skipReason_;
    static inline std::string startFailure_;
};

TEST_F(HelperE2ETest, AnswersEachCommandOnceUntilAnUnknownOne) {
    // The first line goes to the system log only: the file is not open yet.
    ASSERT_TRUE(fs::exists(sandbox_->logFilePath())) << sandbox_->logFilePath();
    const Lines logged = sandbox_->logLines();
    EXPECT_FALSE(std::any_of(logged.begin(), logged.end(),
                             [](const std::string& l) { return l.ends_with(" started"); }));
    sandbox_->writeFile("/private/var/tmp/request.plist",
                        "<plist version=\"1.0\"><dict>"
                        "<key>prepareWorkContainer:</key><string>/private/var/QVLWorkContainer</string>"
                        "<key>prepareLogContainer:</key><string>/private/var/log/qvald</string>"
                        "<key>noSuchCommand:</key><true/>"
                        "<key>removeWorkContainer:</key><string>/private/var/QVLWorkContainer</string>"
                        "</dict></plist>");
    const size_t from = mark();
    const CommandResult result = sandbox_->qvalctl(
        {"--timeout", "1", "--responses", "3", "--request", "/private/var/tmp/request.plist"});
    EXPECT_EQ(result.status, 2) << result.output;  // the third answer never comes
    EXPECT_TRUE(result.output.starts_with("Response: true\nResponse: false\n")) << result.output;
    EXPECT_TRUE(sandbox_->waitForLogLine("ZRP disconnected by client", from));
    const Lines lines = sandbox_->handledSince(from);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + std::min<size_t>(5, lines.size())),
              (Lines{"It's an ZRP_TYPE_CONNECTION", "Start to deal with new connection",
                     "Received an ZRP request?", "QVLH: Received a ZRP request",
                     "Entering -[QVLHMessageResponder prepareWorkContainer:] with parameter: "
                     "/private/var/QVLWorkContainer"}));
    EXPECT_TRUE(contains(lines,
                         "-[QVLHMessageResponder prepareLogContainer:]: creating logs under "
                         "/private/var/log/qvald is not allowed."));
    EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
              (Lines{"QVLHMessageResponder does not respond to noSuchCommand:.", "Message handled",
                     "ZRP disconnected by client"}));
    EXPECT_TRUE(fs::is_directory(sandbox_->host("/private/var/QVLWorkContainer")));

    // "mobile" is entitled through its own registry entry.
    EXPECT_EQ(sandbox_->qvalctl({"prepareLogContainer:", "/var/logs/qvald"}, "mobile").status, 0);
}

TEST_F(HelperE2ETest, ClientsWithoutABooleanEntitlementGetNoAnswer) {
    const struct {
        const char* user;
        std::string line;
    } cases[] = {
        {"daemon", kGate + "format not correct: true"},
        {"nobody", kGate + "No data received."},  // no registry entry for this uid
    };
    for (const auto& c : cases) {
        const size_t from = mark();
        // The connection stays open: the client hears nothing until it gives up.
        EXPECT_EQ(sandbox_->qvalctl({"--timeout", "1", "noSuchCommand:"}, c.user).status, 2) << c.user;
        const Lines lines = sandbox_->handledSince(from);
        const auto at = std::find(lines.begin(), lines.end(), c.line);
        ASSERT_TRUE(at != lines.end() && at + 1 != lines.end()) << c.user;
        EXPECT_EQ(*(at + 1), kRefused);
        EXPECT_FALSE(contains(lines, "QVLHMessageResponder does not respond to noSuchCommand:."));
    }
    // A client outside the sandbox's process namespace can't be identified at all.
    const size_t from = mark();
    const int fd = connectFromHost(*sandbox_);
    ASSERT_GE(fd, 0);
    sendBytes(fd, frameOf("noSuchCommand:"));
    EXPECT_TRUE(sandbox_->waitForLogLine(kGate + "Cannot create Pelkor from audit token", from));
    EXPECT_TRUE(sandbox_->waitForLogLine(kRefused, from));
    ::close(fd);
}

TEST_F(HelperE2ETest, HostileInputLeavesTheHelperServingWithoutLeaks) {
    const pid_t pid = sandbox_->helperPid();
    ASSERT_GT(pid, 0);
    const uint32_t tooLong = (16u << 20) + 1;  // one byte over the limit of a body
    std::vector<uint8_t> oversized = {'Z',
                                      'R',
                                      'P',
                                      '1',
                                      static_cast<uint8_t>(tooLong),
                                      static_cast<uint8_t>(tooLong >> 8),
                                      static_cast<uint8_t>(tooLong >> 16),
                                      static_cast<uint8_t>(tooLong >> 24)};
    oversized.resize(oversized.size() + 4096, 0x0B);
    const std::vector<uint8_t> frame = frameOf("noSuchCommand:");
    const std::vector<std::vector<uint8_t>> hostile = {
        std::vector<uint8_t>(64, 0xA5),                                         // not a frame at all
        std::vector<uint8_t>(frame.begin(), frame.begin() + frame.size() / 2),  // cut short
        oversized,
    };
    auto hostileRound = [&] {
        for (const auto& bytes : hostile) {
            const int fd = connectFromHost(*sandbox_);
            sendBytes(fd, bytes);
            ::close(fd);
        }
        for (int i = 0; i < 10000; ++i) {  // connections opened and dropped
            const int fd = connectFromHost(*sandbox_);
            if (fd >= 0) ::close(fd);
        }
    };
    auto settle = [&](size_t descriptors) {
        for (int i = 0; i < 250 && openDescriptorCount(pid) != descriptors; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return openDescriptorCount(pid);
    };
    // Warm up: the first request touches code and buffers once.
    sandbox_->qvalctl({"--timeout", "1", "noSuchCommand:"});
    const size_t fdsBefore = settle(openDescriptorCount(pid));
    const size_t rssBefore = residentKiB(pid);
    hostileRound();
    EXPECT_EQ(settle(fdsBefore), fdsBefore);
    const size_t rssAfterFirst = residentKiB(pid);
    hostileRound();
    EXPECT_EQ(settle(fdsBefore), fdsBefore);
    const size_t rssAfterSecond = residentKiB(pid);

    // Still the same process, and it serves the next good client.
    EXPECT_EQ(sandbox_->helperPid(), pid);
    EXPECT_EQ(sandbox_->qvalctl({"removeWorkContainer:", "/private/var/none"}).status, 0);
#if defined(__SANITIZE_ADDRESS__)
    // AddressSanitizer holds freed memory in quarantine, so resident memory
    // says nothing here; its leak checker judges the helper when it exits.
    (void)rssBefore, (void)rssAfterFirst, (void)rssAfterSecond;
#else
    // Memory may grow once (allocator pools, log buffers) but must not keep growing.
    EXPECT_LT(rssAfterFirst, rssBefore + 8 * 1024) << "KiB before: " << rssBefore;
    EXPECT_LT(rssAfterSecond, rssAfterFirst + 1024) << "KiB after one round: " << rssAfterFirst;
#endif
}

// Each way the helper ends, on a sandbox of its own: the exit status and the
// last line logged.
TEST(HelperLifecycleTest, EndsWithTheStatusOfItsCause) {
    if (auto reason = Sandbox::unavailableReason()) GTEST_SKIP() << *reason;
    {
        Sandbox sandbox;
        ASSERT_TRUE(sandbox.start());
        const CommandResult result = sandbox.qvalctl({"quitHelper:"});
        EXPECT_EQ(result.status, 2);  // no answer: the connection ends first
        EXPECT_NE(result.output.find("ended the connection without an answer"), std::string::npos)
            << result.output;
        EXPECT_EQ(sandbox.waitForExit(std::chrono::seconds(10)), 0);
        EXPECT_EQ(lastLine(sandbox), "Entering -[QVLHMessageResponder quitHelper:] with parameter: 1");
    }
    {
        Sandbox sandbox;
        ASSERT_TRUE(sandbox.start());
        EXPECT_EQ(sandbox.stop("TERM"), 0);
        EXPECT_EQ(lastLine(sandbox), "ZRP connection will be closed");
        // A file where the socket folder should be: no listener can be made.
        fs::remove_all(sandbox.socketDirectory());
        sandbox.writeFile("/private/var/run/zrp", "not a folder\n");
        std::string output;
        EXPECT_FALSE(sandbox.start(&output));
        EXPECT_NE(output.find("the helper ended with status 1"), std::string::npos) << output;
        EXPECT_EQ(lastLine(sandbox), "Could not create ZRP listener.");
    }
    // With its descriptors used up, accepting fails: an error of the listener
    // other than termination or invalidation.
    Sandbox sandbox;
    ASSERT_TRUE(sandbox.start());
    const pid_t pid = sandbox.helperPid();
    ASSERT_GT(pid, 0);
    const size_t limit = openDescriptorCount(pid) + 4;
    ASSERT_EQ(
        runCommand({"prlimit", "--pid", std::to_string(pid), "--nofile=" + std::to_string(limit)}).status, 0);
    std::vector<int> held;
    for (int i = 0; i < 32 && sandbox.running(); ++i) {
        if (const int fd = connectFromHost(sandbox); fd >= 0) held.push_back(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(sandbox.waitForExit(std::chrono::seconds(10)), 1);
    for (const int fd : held) ::close(fd);
    EXPECT_EQ(lastLine(sandbox), "Got ZRP error on listener connection: Too many open files");
}

}  // namespace
}  // namespace qvl::e2e
