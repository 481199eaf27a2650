#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class QvlplistTool : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "qvlplist-XXXXXX").string();
        dir_ = mkdtemp(tmpl.data());
        sample_ = (dir_ / "sample.plist").string();
        fs::copy_file(fs::path(QVLPLIST_SAMPLES) / "sample-manifest.plist", sample_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // Runs qvlplist with `args` (already quoted for the shell); keeps its
    // output in out_ and err_ and returns its exit status.
    int run(const std::string& args) {
        const fs::path out = dir_ / "out", err = dir_ / "err";
        const int status =
            std::system((QVLPLIST_PATH " " + args + " >" + out.string() + " 2>" + err.string()).c_str());
        out_ = slurp(out);
        err_ = slurp(err);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    fs::path dir_;
    std::string sample_, out_, err_;
};

TEST_F(QvlplistTool, PrintsLintsAndConvertsBothWaysWithoutLoss) {
    ASSERT_EQ(run("print " + sample_), 0) << err_;
    EXPECT_NE(out_.find("QVLManifestSymbolicLinkTargetFile = Faces/demo-face.bundle;"), std::string::npos);
    ASSERT_EQ(run("lint " + sample_), 0) << err_;
    EXPECT_EQ(out_, sample_ + ": OK (XML)\n");

    const std::string original = slurp(sample_), binary = (dir_ / "sample.bplist").string();
    ASSERT_EQ(run("convert --to binary -o " + binary + " " + sample_), 0) << err_;
    EXPECT_EQ(slurp(binary).substr(0, 8), "bplist00");
    EXPECT_EQ(slurp(sample_), original);                           // the input is untouched with -o
    ASSERT_EQ(run("convert " + binary + " --to=xml"), 0) << err_;  // in place
    EXPECT_EQ(slurp(binary), original);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), {}), 4);  // sample, bplist, out, err
}

TEST_F(QvlplistTool, BadInputsAndUsage) {
    EXPECT_EQ(run("lint " + (dir_ / "missing").string()), 1);
    EXPECT_NE(err_.find("missing: cannot open"), std::string::npos);
    std::ofstream(dir_ / "junk") << "<plist><string>unterminated";
    EXPECT_EQ(run("lint " + (dir_ / "junk").string()), 1);
    EXPECT_NE(err_.find("junk: XML property list"), std::string::npos);
    EXPECT_EQ(run("convert --to binary -o " + (dir_ / "never").string() + " " + (dir_ / "junk").string()), 1);
    EXPECT_FALSE(fs::exists(dir_ / "never"));

    for (const char* args : {"", "frobnicate x", "print", "print a b", "lint --verbose x", "convert x",
                             "convert --to yaml x", "convert --to xml", "convert --to xml -o"})
        EXPECT_EQ(run(args), 2) << args;
    for (const char* args : {"--help", "print --help", "lint --help", "convert --help"}) {
        EXPECT_EQ(run(args), 0) << args;
        EXPECT_NE(out_.find("usage: qvlplist"), std::string::npos) << args;
    }
}

}  // namespace
