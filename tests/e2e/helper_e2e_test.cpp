// End-to-end tests of qvald_helper: the real binary in a sandboxed device
// root, driven through its real socket. Clients run inside the sandbox (so
// the entitlement registry can recognise them) or, for hostile input, on the
// host through the device root's socket. Log lines are checked word for word
// in the helper's own log file.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/zrp/ZRP.h"
#include "tests/support/Sandbox.h"

namespace qvl::e2e {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr const char* kService = "com.ostrel.quorvaledhelper";
constexpr const char* kEntitlement = "com.ostrel.private.quorvale.quorvaled";

std::vector<uint8_t> frameOf(const zrp::Dictionary& message) {
    auto frame = zrp::encodeFrame(message);
    return frame ? frame->bytes : std::vector<uint8_t>{};
}

std::string registryEntry(const std::string& executable, int uid, const std::string& valueXML) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
           "\t<key>Executable</key>\n\t<string>" +
           executable + "</string>\n\t<key>UserID</key>\n\t<integer>" + std::to_string(uid) +
           "</integer>\n\t<key>Entitlements</key>\n\t<dict>\n\t\t<key>" + kEntitlement + "</key>\n\t\t" +
           valueXML + "\n\t</dict>\n</dict>\n</plist>\n";
}

// Registers the test client: entitled as root; as "mobile" its entry holds
// the entitlement as a string, which must not count.
void entitleClient(const Sandbox& sandbox) {
    const std::string dir = sandbox.root() + "/etc/ostrel/entitlements/";
    std::ofstream(dir + "e2e-root.plist") << registryEntry(Sandbox::clientPath(), 0, "<true/>");
    std::ofstream(dir + "e2e-mobile.plist")
        << registryEntry(Sandbox::clientPath(), 501, "<string>true</string>");
}

// The lines logged from index `from` on.
std::vector<std::string> since(const Sandbox& sandbox, size_t from) {
    auto lines = sandbox.logLines();
    return from < lines.size() ? std::vector<std::string>(lines.begin() + from, lines.end())
                               : std::vector<std::string>{};
}

class HelperE2ETest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (auto reason = Sandbox::unavailableReason()) {
            skipReason_ = *reason;
            return;
        }
        sandbox_ = std::make_unique<Sandbox>();
        std::string output;
        if (!sandbox_->start(&output)) {
            startFailure_ = output;
            return;
        }
        entitleClient(*sandbox_);
    }
    // Everything above has run against this one helper: it must still end
    // cleanly (under the sanitizers, that includes its leak check at exit).
    static void TearDownTestSuite() {
        if (sandbox_ && sandbox_->running()) {
            EXPECT_EQ(sandbox_->stop("TERM"), 0)
                << "the helper's output is in " << sandbox_->root() << "/.sandbox/output.log";
        }
        sandbox_.reset();
    }

    void SetUp() override {
        if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;
        ASSERT_TRUE(startFailure_.empty()) << "the helper did not start:\n" << startFailure_;
        ASSERT_TRUE(sandbox_->running()) << "the helper has stopped";
    }

    // Sends `message` from the client inside the sandbox; answers the client's output lines.
    std::vector<std::string> send(const zrp::Dictionary& message, const std::string& user = "") {
        return sendAll({message}, user);
    }
    // Sends each message in turn, on one connection or (with "--separate") on
    // one connection each.
    std::vector<std::string> sendAll(const std::vector<zrp::Dictionary>& messages,
                                     const std::string& user = "",
                                     const std::vector<std::string>& options = {}) {
        std::vector<std::string> args = {Sandbox::clientPath()};
        args.insert(args.end(), options.begin(), options.end());
        for (size_t i = 0; i < messages.size(); ++i) {
            args.push_back(sandbox_->writeFile("request" + std::to_string(i) + ".bin", frameOf(messages[i])));
        }
        const CommandResult result = sandbox_->exec(args, user);
        EXPECT_EQ(result.status, 0) << result.output;
        std::vector<std::string> lines;
        std::istringstream in(result.output);
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    // A raw connection from the host to the helper's socket.
    int connectFromHost() const {
        const std::string path = sandbox_->socketDirectory() + "/" + kService;
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

    static void sendAll(int fd, const std::vector<uint8_t>& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return;
            done += static_cast<size_t>(n);
        }
    }

    size_t mark() const { return sandbox_->logLines().size(); }

    static inline std::unique_ptr<Sandbox> sandbox_;
    static inline std::string skipReason_;
    static inline std::string startFailure_;
};

TEST_F(HelperE2ETest, LogsToTheDailyFileButNotItsFirstLine) {
    ASSERT_TRUE(fs::exists(sandbox_->logFilePath())) << sandbox_->logFilePath();
    for (const auto& line : sandbox_->logLines()) {
        EXPECT_EQ(line.find(" started"), std::string::npos) << line;
    }
}

TEST_F(HelperE2ETest, UnknownCommandStopsTheKeysAfterIt) {
    const size_t from = mark();
    zrp::Dictionary request;
    request.setBool("noSuchCommand:", true);
    request.setString("alsoUnknown:", "x");
    EXPECT_EQ(send(request), std::vector<std::string>{"end=timeout"});
    ASSERT_TRUE(sandbox_->waitForLogLine("ZRP disconnected by client", from));
    const std::vector<std::string> expected = {
        "It's an ZRP_TYPE_CONNECTION",
        "Start to deal with new connection",
        "Received an ZRP request?",
        "QVLH: Received a ZRP request",
        "QVLHMessageResponder does not respond to noSuchCommand:.",
        "Message handled",
        "ZRP disconnected by client",
    };
    EXPECT_EQ(since(*sandbox_, from), expected);
}

TEST_F(HelperE2ETest, EmptyRequestProducesNoMessage) {
    const size_t from = mark();
    EXPECT_EQ(send(zrp::Dictionary()), std::vector<std::string>{"end=timeout"});
    ASSERT_TRUE(sandbox_->waitForLogLine("Message handled", from));
    const auto lines = since(*sandbox_, from);
    const auto handled = std::find(lines.begin(), lines.end(), "Message handled");
    ASSERT_NE(handled, lines.begin());
    EXPECT_EQ(*(handled - 1), "QVLH: Received a ZRP request");
}

TEST_F(HelperE2ETest, DataValuesAreDroppedAtAnyDepthAndTheRestIsDispatched) {
    const size_t from = mark();
    zrp::Dictionary inner;
    inner.setData("deep", std::vector<uint8_t>{1});
    inner.setString("kept", "yes");
    zrp::Dictionary outer;
    outer.set("inner", zrp::Value(inner));
    zrp::Dictionary request;
    request.setData("blob", std::vector<uint8_t>{0xde, 0xad});
    request.set("outer", zrp::Value(outer));
    send(request);
    ASSERT_TRUE(sandbox_->waitForLogLine("Message handled", from));
    const auto lines = since(*sandbox_, from);
    const std::vector<std::string> expected = {
        "The value for key blob has a type that is not supported yet",
        "The value for key deep has a type that is not supported yet",
        "QVLHMessageResponder does not respond to outer.",
        "Message handled",
    };
    auto it = std::find(lines.begin(), lines.end(), expected[0]);
    ASSERT_NE(it, lines.end());
    EXPECT_EQ(std::vector<std::string>(it, it + std::min<ptrdiff_t>(4, lines.end() - it)), expected);
}

TEST_F(HelperE2ETest, ClientsWithoutABooleanEntitlementGetNoAnswer) {
    zrp::Dictionary request;
    request.setBool("noSuchCommand:", true);
    const std::string refused = "The client does not have proper entitlement";
    const std::string gate = "-[QVLHMessageResponder hasEntitlementQuorvaled]: ";

    struct Case {
        const char* user;
        std::string line;
    } cases[] = {
        {"mobile", gate + "format not correct: true"},  // the entitlement given as a string
        {"nobody", gate + "No data received."},         // no registry entry for this uid
    };
    for (const auto& c : cases) {
        const size_t from = mark();
        // The connection stays open: the client hears nothing until it gives up.
        EXPECT_EQ(send(request, c.user), std::vector<std::string>{"end=timeout"}) << c.user;
        ASSERT_TRUE(sandbox_->waitForLogLine("Message handled", from)) << c.user;
        const auto lines = since(*sandbox_, from);
        const auto at = std::find(lines.begin(), lines.end(), c.line);
        ASSERT_NE(at, lines.end()) << c.user;
        ASSERT_NE(at + 1, lines.end());
        EXPECT_EQ(*(at + 1), refused);
        EXPECT_EQ(
            std::find(lines.begin(), lines.end(), "QVLHMessageResponder does not respond to noSuchCommand:."),
            lines.end());
    }

    // A client outside the sandbox's process namespace can't be identified at all.
    const size_t from = mark();
    const int fd = connectFromHost();
    ASSERT_GE(fd, 0);
    sendAll(fd, frameOf(request));
    EXPECT_TRUE(sandbox_->waitForLogLine(gate + "Cannot create Pelkor from audit token", from));
    EXPECT_TRUE(sandbox_->waitForLogLine(refused, from));
    ::close(fd);
}

TEST_F(HelperE2ETest, EachCommandIsAnsweredOnceUntilAnUnknownOne) {
    const size_t from = mark();
    zrp::Dictionary request;
    request.setString("prepareWorkContainer:", "/private/var/QVLWorkContainer");
    request.setString("prepareLogContainer:", "/private/var/log/qvald");  // not under /private/var/logs
    request.setBool("noSuchCommand:", true);
    request.setString("removeWorkContainer:", "/private/var/QVLWorkContainer");
    EXPECT_EQ(sendAll({request}, "", {"--expect", "2"}),
              (std::vector<std::string>{"Response=true", "Response=false", "end=timeout"}));
    ASSERT_TRUE(sandbox_->waitForLogLine("Message handled", from));
    const auto lines = since(*sandbox_, from);
    auto has = [&](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    EXPECT_TRUE(
        has("Entering -[QVLHMessageResponder prepareWorkContainer:] with parameter: "
            "/private/var/QVLWorkContainer"));
    EXPECT_TRUE(
        has("-[QVLHMessageResponder prepareLogContainer:]: creating logs under /private/var/log/qvald "
            "is not allowed."));
    EXPECT_TRUE(has("QVLHMessageResponder does not respond to noSuchCommand:."));
    EXPECT_FALSE(
        has("Entering -[QVLHMessageResponder removeWorkContainer:] with parameter: "
            "/private/var/QVLWorkContainer"));
    EXPECT_TRUE(fs::is_directory(sandbox_->root() + "/private/var/QVLWorkContainer"));
}

TEST_F(HelperE2ETest, RepliesGoToTheConnectionThatAsked) {
    zrp::Dictionary good;
    good.setString("prepareWorkContainer:", "/private/var/QVLWorkContainer");
    zrp::Dictionary wrongKind;
    wrongKind.setInt64("prepareWorkContainer:", 7);  // a number where a path is expected
    zrp::Dictionary missingEntry;
    missingEntry.set("createHardLink:", zrp::Value(zrp::Dictionary()));
    const std::vector<std::string> expected = {
        "conn1: Response=true", "conn1: end=timeout",    "conn2: Response=false",
        "conn2: end=timeout",   "conn3: Response=false", "conn3: end=timeout",
    };
    // All three connections stay open: no stray message reaches the first two.
    EXPECT_EQ(sendAll({good, wrongKind, missingEntry}, "", {"--separate", "--expect", "1", "--idle", "400"}),
              expected);
}

TEST_F(HelperE2ETest, MobileClientIsEntitledThroughItsOwnEntry) {
    // qvalctl's registry entries in the template grant it to root and to mobile.
    const CommandResult result =
        sandbox_->exec({"qvalctl", "--timeout", "5", "prepareLogContainer:", "/var/logs/qvald"}, "mobile");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(fs::is_directory(sandbox_->root() + "/private/var/logs/qvald"));
}

TEST_F(HelperE2ETest, HostileInputLeavesTheHelperServingWithoutLeaks) {
    const pid_t pid = sandbox_->helperPid();
    ASSERT_GT(pid, 0);
    auto hostileRound = [&] {
        // Garbage that is not a frame at all.
        int fd = connectFromHost();
        sendAll(fd, std::vector<uint8_t>(64, 0xA5));
        ::close(fd);
        // A frame cut short, and a client that leaves in the middle of a request.
        auto frame = frameOf([] {
            zrp::Dictionary d;
            d.setString("noSuchCommand:", std::string(4000, 'x'));
            return d;
        }());
        fd = connectFromHost();
        sendAll(fd, std::vector<uint8_t>(frame.begin(), frame.begin() + frame.size() / 2));
        ::close(fd);
        // A body one byte over the 16 MiB limit.
        const uint32_t tooLong = (16u << 20) + 1;
        std::vector<uint8_t> header = {'Z',
                                       'R',
                                       'P',
                                       '1',
                                       static_cast<uint8_t>(tooLong),
                                       static_cast<uint8_t>(tooLong >> 8),
                                       static_cast<uint8_t>(tooLong >> 16),
                                       static_cast<uint8_t>(tooLong >> 24)};
        header.resize(header.size() + 4096, 0x0B);
        fd = connectFromHost();
        sendAll(fd, header);
        ::close(fd);
        // Connections opened and dropped.
        for (int i = 0; i < 10000; ++i) {
            fd = connectFromHost();
            if (fd >= 0) ::close(fd);
        }
    };
    auto settle = [&](size_t descriptors) {
        for (int i = 0; i < 250 && openDescriptorCount(pid) != descriptors; ++i) {
            std::this_thread::sleep_for(milliseconds(20));
        }
        return openDescriptorCount(pid);
    };

    zrp::Dictionary request;
    send(request);  // warm up: the first request touches code and buffers once
    const size_t fdsBefore = settle(openDescriptorCount(pid));
    const size_t rssBefore = residentKiB(pid);

    hostileRound();
    const size_t fdsAfterFirst = settle(fdsBefore);
    const size_t rssAfterFirst = residentKiB(pid);
    hostileRound();
    const size_t fdsAfterSecond = settle(fdsBefore);
    const size_t rssAfterSecond = residentKiB(pid);

    // An entitled client that leaves before its answer: the answer goes nowhere, quietly.
    const std::string leaving =
        sandbox_->writeFile("leaving.bin", frameOf([] {
                                zrp::Dictionary d;
                                d.setString("prepareWorkContainer:", "/private/var/QVLWorkContainer");
                                return d;
                            }()));
    size_t from = mark();
    EXPECT_EQ(sandbox_->exec({Sandbox::clientPath(), "--close", leaving}).status, 0);
    EXPECT_TRUE(sandbox_->waitForLogLine("ZRP disconnected by client", from));

    // Still the same process, and it serves the next good client.
    EXPECT_EQ(sandbox_->helperPid(), pid);
    from = mark();
    request.setBool("noSuchCommand:", true);
    send(request);
    EXPECT_TRUE(sandbox_->waitForLogLine("QVLHMessageResponder does not respond to noSuchCommand:.", from));

    EXPECT_EQ(fdsAfterFirst, fdsBefore);
    EXPECT_EQ(fdsAfterSecond, fdsBefore);
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

// Tests that end the helper run on a sandbox of their own.
class HelperLifecycleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (auto reason = Sandbox::unavailableReason()) GTEST_SKIP() << *reason;
        std::string output;
        ASSERT_TRUE(sandbox_.start(&output)) << output;
        entitleClient(sandbox_);
    }
    Sandbox sandbox_;
};

TEST_F(HelperLifecycleTest, QuitHelperEndsWithStatusZeroAndNoAnswer) {
    const std::string path = sandbox_.writeFile("quit.bin", frameOf([] {
                                                    zrp::Dictionary d;
                                                    d.setBool("quitHelper:", true);
                                                    return d;
                                                }()));
    const CommandResult result = sandbox_.exec({Sandbox::clientPath(), "--idle", "300", path});
    EXPECT_EQ(result.output, "end=closed\n");
    EXPECT_EQ(sandbox_.waitForExit(std::chrono::seconds(10)), 0);
    const auto lines = sandbox_.logLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "Entering -[QVLHMessageResponder quitHelper:] with parameter: 1");
}

TEST_F(HelperLifecycleTest, ListenerErrorEndsWithStatusOne) {
    // With its descriptors used up, accepting fails: an error of the listener
    // other than termination or invalidation, which ends the helper.
    const pid_t pid = sandbox_.helperPid();
    ASSERT_GT(pid, 0);
    const size_t limit = openDescriptorCount(pid) + 4;
    ASSERT_EQ(
        runCommand({"prlimit", "--pid", std::to_string(pid), "--nofile=" + std::to_string(limit)}).status, 0);
    const std::string path = sandbox_.socketDirectory() + "/" + kService;
    std::vector<int> held;
    for (int i = 0; i < 32 && sandbox_.running(); ++i) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            held.push_back(fd);
        std::this_thread::sleep_for(milliseconds(20));
    }
    EXPECT_EQ(sandbox_.waitForExit(std::chrono::seconds(10)), 1);
    for (const int fd : held) ::close(fd);
    const auto lines = sandbox_.logLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "Got ZRP error on listener connection: Too many open files");
}

TEST_F(HelperLifecycleTest, SigtermEndsWithStatusZero) {
    const size_t from = sandbox_.logLines().size();
    EXPECT_EQ(sandbox_.stop("TERM"), 0);
    const auto lines = since(sandbox_, from);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "ZRP connection will be closed");
}

TEST(HelperStartTest, ListenerThatCannotBeCreatedEndsWithStatusOne) {
    if (auto reason = Sandbox::unavailableReason()) GTEST_SKIP() << *reason;
    Sandbox sandbox;
    std::string output;
    ASSERT_TRUE(sandbox.start(&output)) << output;
    ASSERT_EQ(sandbox.stop("TERM"), 0);
    // A file where the socket folder should be: no listener can be made.
    const std::string socketDir = sandbox.socketDirectory();
    fs::remove_all(socketDir);
    std::ofstream(socketDir) << "not a folder\n";

    EXPECT_FALSE(sandbox.start(&output));
    EXPECT_NE(output.find("the helper ended with status 1"), std::string::npos) << output;
    const auto lines = sandbox.logLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "Could not create ZRP listener.");
}

}  // namespace
}  // namespace qvl::e2e
