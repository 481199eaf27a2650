#include "platform/reboot/SystemRestart.h"

#include <gtest/gtest.h>

#include "qvald_helper/QVLLogCapture.h"

namespace qvl::platform {
namespace {

// The restart call is always a fake here: these tests must never be able to
// restart the machine that runs them, wherever they run.
struct FakeCall {
    int calls = 0;
    LinuxSystemRestart::RebootCall fn() {
        return [this] {
            ++calls;
            return 0;
        };
    }
};

TEST(SystemRestartTest, RefusedInInitialOrUnknownNamespace) {
    for (std::optional<uint64_t> ns :
         {std::optional<uint64_t>(kInitialPidNamespaceInode), std::optional<uint64_t>()}) {
        FakeCall call;
        QVLLogCapture capture;
        LinuxSystemRestart([ns] { return ns; }, call.fn()).restart();
        EXPECT_EQ(call.calls, 0);
        EXPECT_TRUE(capture.containsPrefix("reboot: refusing to restart: "));
    }
}

TEST(SystemRestartTest, AllowedInAnotherNamespace) {
    FakeCall call;
    LinuxSystemRestart([] { return std::optional<uint64_t>(4026532180u); }, call.fn()).restart();
    EXPECT_EQ(call.calls, 1);
}

TEST(SystemRestartTest, RealProbeOnThisMachine) {
    // The real probe, with the fake call: on a host outside any sandbox the
    // restart is refused; inside a PID namespace it would go ahead.
    const std::optional<uint64_t> ns = currentPidNamespaceInode();
    ASSERT_TRUE(ns.has_value());
    FakeCall call;
    LinuxSystemRestart(currentPidNamespaceInode, call.fn()).restart();
    EXPECT_EQ(call.calls, *ns == kInitialPidNamespaceInode ? 0 : 1);
}

}  // namespace
}  // namespace qvl::platform
