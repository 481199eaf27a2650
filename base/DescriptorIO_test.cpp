#include "base/DescriptorIO.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "base/UniqueFd.h"

namespace qvl {
namespace {

// Through a pipe, which says nothing of its size: the bound is found while reading.
TEST(DescriptorIO, ReadAllStopsAtTheBoundAndLeavesTheOutputOnFailure) {
    ::signal(SIGPIPE, SIG_IGN);  // the writer of a refused pipe meets a closed end
    const std::string big(200000, 'b');
    const struct {
        std::string text;
        uint64_t limit;
        int error;
    } cases[] = {
        {"", 0, 0}, {"abc", 3, 0}, {"abcd", 3, EFBIG}, {big, big.size(), 0}, {big, big.size() - 1, EFBIG}};
    for (const auto& c : cases) {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
        std::thread writer([&] {
            writeAll(writeEnd.get(), {reinterpret_cast<const uint8_t*>(c.text.data()), c.text.size()});
            writeEnd.reset();
        });
        std::vector<uint8_t> out{9};
        EXPECT_EQ(readAll(readEnd.get(), c.limit, &out), c.error) << c.text.size() << "/" << c.limit;
        readEnd.reset();
        writer.join();
        EXPECT_EQ(out,
                  c.error ? std::vector<uint8_t>{9} : std::vector<uint8_t>(c.text.begin(), c.text.end()));
    }
    std::vector<uint8_t> out;
    EXPECT_EQ(readAll(-1, 10, &out), EBADF);
}

}  // namespace
}  // namespace qvl
