#include "platform/reboot/SystemRestart.h"

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"

namespace qvl::platform {
namespace {

// The restart call is always a counting fake: no test may be able to restart
// the machine that runs it, wherever it runs.
int restartCalls(LinuxSystemRestart::NamespaceProbe probe) {
    int calls = 0;
    LinuxSystemRestart(std::move(probe), [&calls] { return ++calls, 0; }).restart();
    return calls;
}

TEST(SystemRestartTest, OnlyOutsideTheInitialNamespace) {
    QVLLogCapture capture;
    EXPECT_EQ(restartCalls([] { return std::optional<uint64_t>(kInitialPidNamespaceInode); }), 0);
    EXPECT_EQ(restartCalls([] { return std::optional<uint64_t>(); }), 0);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "reboot: refusing to restart: this process runs in the host's initial PID namespace",
                  "reboot: refusing to restart: the PID namespace can't be determined"}));
    EXPECT_EQ(restartCalls([] { return std::optional<uint64_t>(4026532180u); }), 1);

    // This machine, as the real probe sees it.
    const std::optional<uint64_t> ns = currentPidNamespaceInode();
    ASSERT_TRUE(ns.has_value());
    EXPECT_EQ(restartCalls(currentPidNamespaceInode), *ns == kInitialPidNamespaceInode ? 0 : 1);
}

}  // namespace
}  // namespace qvl::platform
