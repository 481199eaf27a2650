#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void put(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::vector<std::string> keysOf(const std::optional<qvl::plist::Value>& manifest) {
    std::vector<std::string> keys;
    if (manifest && manifest->isDictionary())
        for (const auto& e : *manifest->asDictionary()) keys.push_back(e.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

class QvlmanifestTool : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = "/var/tmp/qvlmanifest-XXXXXX";
        dir_ = mkdtemp(pattern.data());
        tree_ = dir_ / "private/var";
        put(tree_ / "a/one", "1");
        put(tree_ / "a/two", "22");
        put(tree_ / "skipme/three", "333");
        fs::create_symlink("a/one", tree_ / "link");
    }
    void TearDown() override { fs::remove_all(dir_); }

    int run(const std::string& args) {
        const std::string command = std::string(QVLMANIFEST_PATH) + " " + args + " >" +
                                    (dir_ / "out").string() + " 2>" + (dir_ / "err").string() + " </dev/null";
        const int status = std::system(command.c_str());
        out_ = slurp(dir_ / "out");
        err_ = slurp(dir_ / "err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    bool said(const std::string& text) const { return out_.find(text) != std::string::npos; }
    bool complained(const std::string& text) const { return err_.find(text) != std::string::npos; }

    fs::path dir_, tree_;
    std::string out_, err_;
};

TEST_F(QvlmanifestTool, ScanWithRootSkipsAndSupersetAndItsErrors) {
    const fs::path out = dir_ / "m.plist";
    const std::string options = " --relative-to " + (dir_ / "private").string() + " --skip " +
                                (tree_ / "skipme").string() + " -o " + out.string();
    ASSERT_EQ(run(tree_.string() + options), 2) << "the verb comes first";
    ASSERT_EQ(run("scan " + tree_.string() + options), 0) << err_;
    EXPECT_EQ(slurp(out).substr(0, 8), "bplist00");
    EXPECT_EQ(keysOf(qvl::platform::readPropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(), out.string())),
              (std::vector<std::string>{"/var", "/var/a", "/var/a/one", "/var/a/two", "/var/link"}));

    // The superset names absolute paths, as the helper's does.
    const fs::path superset = dir_ / "superset.plist";
    ASSERT_TRUE(qvl::platform::writePropertyListFile(
        qvl::platform::LinuxFileSystem::sharedInstance(),
        superset.string(), qvl::plist::Array{qvl::plist::Value((tree_ / "a/two").string())},
        qvl::plist::Format::XML));
    ASSERT_EQ(run("scan " + tree_.string() + " --superset " + superset.string() + " --xml"), 0) << err_;
    EXPECT_TRUE(said("<?xml"));
    EXPECT_EQ(keysOf(qvl::plist::read(out_)), std::vector<std::string>{"/a/two"});

    const fs::path never = dir_ / "never.plist";
    EXPECT_EQ(run("scan " + (dir_ / "missing").string() + " -o " + never.string()), 2);
    EXPECT_TRUE(complained("does not exist")) << err_;
    EXPECT_EQ(run("scan " + tree_.string() + " --relative-to /nowhere -o " + never.string()), 2);
    EXPECT_TRUE(complained("is not below /nowhere")) << err_;
    EXPECT_FALSE(fs::exists(never));
    put(dir_ / "garbage.plist", "not a property list");
    EXPECT_EQ(run("scan " + tree_.string() + " --superset " + (dir_ / "garbage.plist").string()), 2);
    EXPECT_TRUE(complained("cannot read " + (dir_ / "garbage.plist").string())) << err_;
    EXPECT_EQ(run("scan --skip"), 2);
    EXPECT_TRUE(complained("--skip needs a value")) << err_;
    EXPECT_EQ(run("frobnicate"), 2);
}

TEST_F(QvlmanifestTool, CompareNamesEachDifferenceAndExitsOneWhenThereAreAny) {
    const fs::path a = dir_ / "a.plist", b = dir_ / "b.plist";
    ASSERT_EQ(run("scan " + tree_.string() + " -o " + a.string()), 0) << err_;
    EXPECT_EQ(run("compare " + a.string() + " " + a.string()), 0);
    EXPECT_EQ(out_, "");

    put(tree_ / "a/one", "changed");
    fs::permissions(tree_ / "a/two", fs::perms::owner_read);
    fs::remove(tree_ / "link");
    fs::create_symlink("a/two", tree_ / "link");
    fs::remove_all(tree_ / "skipme");
    put(tree_ / "new", "");
    ASSERT_EQ(run("scan " + tree_.string() + " -o " + b.string()), 0) << err_;
    EXPECT_EQ(run("compare " + a.string() + " " + b.string()), 1);
    for (const char* line : {"/a/one: content digest differs (356a192b7913b04c54574d18c28d46e6395428ab / ",
                             "/a/two: owner, group or mode differs (", ", mode 0644 / ",
                             "/link: symbolic link target differs (\"a/one\" / \"a/two\")",
                             "/new: missing in A", "/skipme/three: missing in B"}) {
        EXPECT_TRUE(said(line)) << line << "\n" << out_;
    }
    put(dir_ / "garbage.plist", "not a property list");
    EXPECT_EQ(run("compare " + (dir_ / "garbage.plist").string() + " " + a.string()), 2);
}

}  // namespace
