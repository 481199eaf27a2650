// The calls of the file-system layer meant for folders that another user can
// write, tested through the interface as the layers above use them (the
// opening of a file itself is base/FolderAccess's, the bounded read of one
// base/DescriptorIO's).
#include "platform/fs/FileAccess.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/fs/LinuxFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using testing::readText;
using testing::TempTree;

LinuxFileSystem& files() {
    return LinuxFileSystem::sharedInstance();
}

// The error of a call that answers a descriptor; 0 when it opened one.
int errorOf(const UniqueFd& fd) {
    return fd.valid() ? 0 : errno;
}

size_t entriesIn(const std::string& folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

TEST(FileAccess, WriteFileAtomicallyReplacesWholeAndNeverFollowsTheName) {
    TempTree t;
    const auto write = [&](const std::string& name, const std::string& text, std::optional<uint32_t> mode) {
        return files().writeFileAtomically(
                   t.path(name), {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, mode) == 0
                   ? 0
                   : errno;
    };
    EXPECT_EQ(write("new", "one", std::nullopt), 0);
    EXPECT_EQ(t.stat("new").st_mode & 07777, 0644u);
    ASSERT_EQ(::chmod(t.path("new").c_str(), 0600), 0);
    EXPECT_EQ(write("new", "two", std::nullopt), 0);  // a replaced file keeps its mode
    EXPECT_EQ(t.stat("new").st_mode & 07777, 0600u);
    EXPECT_EQ(write("new", "three", 0640), 0);
    EXPECT_EQ(t.stat("new").st_mode & 07777, 0640u);
    EXPECT_EQ(readText(t.path("new")), "three");

    // A link or a fifo planted at the name is replaced, its target untouched.
    t.file("target", "secret", 0600);
    t.symlink("link", t.path("target"));
    t.fifo("fifo");
    EXPECT_EQ(write("link", "mine", std::nullopt), 0);
    EXPECT_EQ(write("fifo", "mine", std::nullopt), 0);
    EXPECT_EQ(readText(t.path("target")), "secret");
    EXPECT_EQ(t.stat("link").st_mode & 07777, 0644u);
    EXPECT_TRUE(S_ISREG(t.stat("fifo").st_mode));

    // Failures leave no temporary file and the old content in place.
    t.folder("sub");
    const size_t before = entriesIn(t.root());
    EXPECT_EQ(write("sub", "x", std::nullopt), EISDIR);
    EXPECT_EQ(write("none/x", "x", std::nullopt), ENOENT);
    EXPECT_EQ(entriesIn(t.root()), before);
    EXPECT_EQ(readText(t.path("new")), "three");
}

TEST(FileAccess, OpenFolderBeneathStaysBelowTheBase) {
    TempTree t;
    t.folder("base/a/b");
    t.file("base/file");
    t.folder("outside");
    t.symlink("base/escape", t.path("outside"));
    t.symlink("base/a/inner", "b");
    const struct {
        const char* relative;
        bool create;
        int error;
    } cases[] = {
        {"a/b", false, 0},         {"/a//./b/", false, 0},     {"", false, 0},
        {"a/new/deeper", true, 0}, {"missing", false, ENOENT}, {"a/../a", false, EXDEV},
        {"..", true, EXDEV},       {"escape", false, ELOOP},   {"escape/x", true, ELOOP},
        {"a/inner", false, ELOOP}, {"file", false, ENOTDIR},   {"file/x", true, ENOTDIR},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(errorOf(files().openFolderBeneath(t.path("base"), c.relative, c.create, 0755)), c.error)
            << c.relative;
    }
    EXPECT_TRUE(S_ISDIR(t.stat("base/a/new/deeper").st_mode));
    EXPECT_FALSE(t.exists("outside/x"));
    EXPECT_EQ(errorOf(files().openFolder(t.path("base/escape"))), ELOOP);
    EXPECT_EQ(errorOf(files().openFolder(t.path("base/a"))), 0);
}

}  // namespace
}  // namespace qvl::platform
