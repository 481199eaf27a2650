#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

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

    qvl::plist::Dictionary manifestAt(const fs::path& path) {
        std::optional<qvl::plist::Value> value = qvl::plist::readFile(path.string());
        EXPECT_TRUE(value && value->isDictionary()) << path;
        return value && value->isDictionary() ? *value->asDictionary() : qvl::plist::Dictionary();
    }

    static std::vector<std::string> keys(const qvl::plist::Dictionary& d) {
        std::vector<std::string> k;
        for (const auto& e : d) k.push_back(e.first);
        std::sort(k.begin(), k.end());
        return k;
    }

    fs::path dir_, tree_;
    std::string out_, err_;
};

TEST_F(QvlmanifestTool, ScanWritesAManifestRelativeToTheRootWithSkipsAndSuperset) {
    const fs::path out = dir_ / "m.plist";
    ASSERT_EQ(run(tree_.string() + " --relative-to " + (dir_ / "private").string() + " --skip " +
                  (tree_ / "skipme").string() + " -o " + out.string()),
              2)
        << "the verb comes first";
    ASSERT_EQ(run("scan " + tree_.string() + " --relative-to " + (dir_ / "private").string() + " --skip " +
                  (tree_ / "skipme").string() + " -o " + out.string()),
              0)
        << err_;
    EXPECT_EQ(slurp(out).substr(0, 8), "bplist00");
    EXPECT_EQ(keys(manifestAt(out)),
              (std::vector<std::string>{"/var", "/var/a", "/var/a/one", "/var/a/two", "/var/link"}));

    // The superset names absolute paths, as the helper's does.
    qvl::plist::Array superset = {qvl::plist::Value((tree_ / "a/two").string())};
    ASSERT_TRUE(qvl::plist::writeFileAtomically((dir_ / "superset.plist").string(),
                                                qvl::plist::Value(superset), qvl::plist::Format::XML));
    ASSERT_EQ(run("scan " + tree_.string() + " --superset " + (dir_ / "superset.plist").string() + " --xml"),
              0)
        << err_;
    EXPECT_NE(out_.find("<?xml"), std::string::npos);
    std::optional<qvl::plist::Value> fromStdout = qvl::plist::read(out_);
    ASSERT_TRUE(fromStdout && fromStdout->isDictionary());
    EXPECT_EQ(keys(*fromStdout->asDictionary()), std::vector<std::string>{"/a/two"});
}

TEST_F(QvlmanifestTool, BadInputsGiveClearErrorsAndNoOutput) {
    const fs::path out = dir_ / "never.plist";
    EXPECT_EQ(run("scan " + (dir_ / "missing").string() + " -o " + out.string()), 2);
    EXPECT_NE(err_.find("does not exist"), std::string::npos) << err_;
    EXPECT_EQ(run("scan " + tree_.string() + " --relative-to /nowhere -o " + out.string()), 2);
    EXPECT_NE(err_.find("is not below /nowhere"), std::string::npos) << err_;
    EXPECT_FALSE(fs::exists(out));

    put(dir_ / "garbage.plist", "not a property list");
    EXPECT_EQ(run("scan " + tree_.string() + " --superset " + (dir_ / "garbage.plist").string()), 2);
    EXPECT_NE(err_.find("cannot read " + (dir_ / "garbage.plist").string()), std::string::npos) << err_;
    EXPECT_EQ(run("compare " + (dir_ / "garbage.plist").string() + " " + (dir_ / "garbage.plist").string()),
              2);
    EXPECT_EQ(run("scan --skip"), 2);
    EXPECT_NE(err_.find("--skip needs a value"), std::string::npos) << err_;
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
    EXPECT_NE(out_.find("/a/one: content digest differs (356a192b7913b04c54574d18c28d46e6395428ab / "),
              std::string::npos)
        << out_;
    EXPECT_NE(out_.find("/a/two: owner, group or mode differs ("), std::string::npos) << out_;
    EXPECT_NE(out_.find(", mode 0644 / "), std::string::npos) << out_;
    EXPECT_NE(out_.find("/link: symbolic link target differs (\"a/one\" / \"a/two\")"), std::string::npos)
        << out_;
    EXPECT_NE(out_.find("/new: missing in A"), std::string::npos) << out_;
    EXPECT_NE(out_.find("/skipme/three: missing in B"), std::string::npos) << out_;
}

}  // namespace
