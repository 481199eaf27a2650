#include "metadata/QVLFileDigest.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/QVLLogCapture.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

using testing::FaultyFileSystem;
using testing::sha1Of;
using testing::TempTree;

TEST(FileHash, DigestsPieceByPiece) {
    TempTree tree;
    FaultyFileSystem files;
    const struct {
        std::string content;
        int reads;            // one empty read ends each file
    } cases[] = {{"abc", 1},  // a file smaller than a piece is read at once
                 {std::string(kQVLFileHashPieceSize, 'q'), 2},
                 {std::string(3 * kQVLFileHashPieceSize + 17, 'x'), 5}};
    for (const auto& c : cases) {
        files.reads = 0;
        EXPECT_EQ(fileHash(tree.file("f", c.content), files), sha1Of(c.content)) << c.content.size();
        EXPECT_EQ(files.reads, c.reads) << c.content.size();
    }
    EXPECT_FALSE(directoryHash(tree.root()));
    // Its text form is cross-checked with sha1sum in QVLManifest_test; only whole digests have one.
    EXPECT_FALSE(createDigestHexString(plist::Data(19, 0)));

    // Failures yield nothing, with their messages.
    QVLLogCapture capture;
    EXPECT_FALSE(fileHash(tree.path("missing"), files));
    EXPECT_FALSE(fileHash(tree.fifo("pipe"), files));  // not read at all: it would block
    files.failReadNumber = 2;
    files.reads = 0;
    const std::string big = tree.file("big", std::string(2 * kQVLFileHashPieceSize, 'b'));
    EXPECT_FALSE(fileHash(big, files));
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{"Cannot read file " + tree.path("missing"),
                                                         "Cannot read file " + tree.path("pipe"),
                                                         "Cannot read data from " + big + "."}));
}

struct Progress {
    std::vector<float> fractions;
    int failAt = 0;  // answer non-zero on this call (1-based)
    static int record(void* context, float fraction, float unused) {
        auto* self = static_cast<Progress*>(context);
        EXPECT_EQ(unused, -1.0f);
        self->fractions.push_back(fraction);
        return static_cast<int>(self->fractions.size()) == self->failAt ? 7 : 0;
    }
};

TEST(CreateFileDigest, ReportsFractionsAroundEachPieceAndRefusesOtherAlgorithms) {
    TempTree tree;
    FaultyFileSystem files;
    const std::string content(2 * kQVLFileDigestBufferSize + 100, 'd');
    const std::string path = tree.file("f", content);

    Progress unknownSize;
    EXPECT_EQ(createFileDigest(path, "SHA-1", 0, Progress::record, &unknownSize, files), sha1Of(content));
    EXPECT_EQ(unknownSize.fractions, (std::vector<float>{0.0f, -1.0f, -1.0f, -1.0f, 1.0f}));
    Progress knownSize;
    EXPECT_EQ(createFileDigest(path, "SHA-1", static_cast<int64_t>(content.size()), Progress::record,
                               &knownSize, files),
              sha1Of(content));
    ASSERT_EQ(knownSize.fractions.size(), 5u);
    EXPECT_FLOAT_EQ(knownSize.fractions[1], 65536.0f / content.size());

    // A read error ends the data: what was read so far is digested.
    files.reads = 0;
    files.failReadNumber = 2;
    EXPECT_EQ(createFileDigest(path, "SHA-1", 0, nullptr, nullptr, files),
              sha1Of(content.substr(0, kQVLFileDigestBufferSize)));

    // Other algorithms are refused; a handler's non-zero answer stops the digest.
    QVLLogCapture capture;
    for (const char* name : {"sha-1", "SHA1", "MD5", ""})
        EXPECT_FALSE(createFileDigest(path, name, 0, nullptr, nullptr, files)) << name;
    Progress stopping;
    stopping.failAt = 2;  // the first piece
    EXPECT_FALSE(createFileDigest(tree.file("small", "abc"), "SHA-1", 3, Progress::record, &stopping, files));
    EXPECT_EQ(stopping.fractions, (std::vector<float>{0.0f, 1.0f}));
    const std::string missing = tree.path("missing");
    EXPECT_FALSE(createFileDigest(missing, "SHA-1", 0, nullptr, nullptr, files));
    std::vector<std::string> expected(4, "Unknown algorithm");
    expected.push_back("Progress handler returned with status 7; failing verification");
    expected.push_back("Can't open read stream file://" + missing + " *** " + missing);
    EXPECT_EQ(capture.lines(), expected);
}

}  // namespace
}  // namespace qvl
