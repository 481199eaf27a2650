#include "plist/PropertyList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace qvl::plist {
namespace {

namespace fs = std::filesystem;

class TempDir {
  public:
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "plist-test-XXXXXX").string();
        path_ = mkdtemp(tmpl.data());
    }
    ~TempDir() { fs::remove_all(path_); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }
    size_t entries() const { return static_cast<size_t>(std::distance(fs::directory_iterator(path_), {})); }

  private:
    fs::path path_;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(PropertyList, DetectsTheEncoding) {
    Format format;
    ASSERT_TRUE(read(writeBinary(Value(7)), nullptr, &format));
    EXPECT_EQ(format, Format::Binary);
    ASSERT_TRUE(read("\xEF\xBB\xBF" + writeXML(Value(7)), nullptr, &format));
    EXPECT_EQ(format, Format::XML);

    ReadError error;
    EXPECT_FALSE(read(std::string_view(), &error));
    EXPECT_EQ(error.code, ReadError::kEmpty);
    EXPECT_FALSE(read("hello", &error));
    EXPECT_EQ(error.code, ReadError::kUnknownFormat);
    EXPECT_FALSE(read("bplist01" + std::string(40, '\0'), &error));
    EXPECT_EQ(error.code, ReadError::kUnsupported);
}

TEST(PropertyList, EqualityRules) {
    EXPECT_EQ(Value(1), Value(1.0));
    EXPECT_EQ(Value(uint64_t{1} << 63), Value(9223372036854775808.0));
    EXPECT_NE(Value(true), Value(1));
    EXPECT_NE(Value(false), Value(0.0));
    EXPECT_NE(Value(UINT64_MAX), Value(-1));
    EXPECT_NE(Value((int64_t{1} << 53) + 1), Value(static_cast<double>((int64_t{1} << 53) + 1)));
    EXPECT_NE(Value(Date{5}), Value(5.0));
    Dictionary ab, ba;
    ab.set("a", Value(1));
    ab.set("b", Value("x"));
    ba.set("b", Value("x"));
    ba.set("a", Value(1.0));
    EXPECT_EQ(Value(ab), Value(ba));
    ba.set("c", Value(false));
    EXPECT_NE(Value(ab), Value(ba));
    EXPECT_NE(Value(Array{Value(1), Value(2)}), Value(Array{Value(2), Value(1)}));
}

TEST(PropertyList, ReadFileReportsThePath) {
    TempDir dir;
    ReadError error;
    EXPECT_FALSE(readFile(dir / "missing.plist", &error));
    EXPECT_EQ(error.code, ReadError::kIO);
    EXPECT_NE(error.message.find("missing.plist"), std::string::npos);
    EXPECT_FALSE(readFile(dir / "", &error));
    EXPECT_EQ(error.code, ReadError::kIO);

    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(readFile(dir / "fifo", &error));
    EXPECT_NE(error.message.find("not a regular file"), std::string::npos);

    std::ofstream(dir / "junk.plist") << "junk";
    EXPECT_FALSE(readFile(dir / "junk.plist", &error));
    EXPECT_EQ(error.code, ReadError::kUnknownFormat);
    EXPECT_NE(error.message.find("junk.plist"), std::string::npos);
}

TEST(PropertyList, WriteFileAtomically) {
    TempDir dir;
    const std::string path = dir / "out.plist";
    Dictionary d;
    d.set("k", Value("v"));
    ASSERT_TRUE(writeFileAtomically(path, Value(d), Format::Binary));
    EXPECT_EQ(*readFile(path), Value(d));
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    // A replaced file keeps its mode.
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    ASSERT_TRUE(writeFileAtomically(path, Value(7), Format::XML));
    EXPECT_EQ(*readFile(path), Value(7));
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // A value that cannot be written leaves the old file as it was, and no
    // temporary file behind.
    const std::string before = slurp(path);
    std::string error;
    EXPECT_FALSE(writeFileAtomically(path, Value("\x01"), Format::XML, &error));
    EXPECT_NE(error.find(path), std::string::npos);
    EXPECT_EQ(slurp(path), before);
    EXPECT_EQ(dir.entries(), 1u);

    EXPECT_FALSE(writeFileAtomically(dir / "no/such/folder.plist", Value(1), Format::Binary, &error));
    EXPECT_NE(error.find("temporary"), std::string::npos);
}

}  // namespace
}  // namespace qvl::plist
