#include "metadata/QVLFileDigest.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/QVLLogCapture.h"
#include "metadata/MetadataTestSupport.h"

namespace qvl {
namespace {

using testing::FaultyPort;
using testing::sha1Of;
using testing::TempTree;

TEST(FileHash, EmptyFileAndExactPieceAreDigestedWithOneEmptyReadAtTheEnd) {
    TempTree tree;
    FaultyPort port;
    platform::ScopedFileAttributesPort scoped(port);
    EXPECT_EQ(fileHash(tree.file("empty")), sha1Of(""));
    EXPECT_EQ(port.reads, 1);

    const std::string piece(kQVLFileHashPieceSize, 'q');
    port.reads = 0;
    EXPECT_EQ(fileHash(tree.file("piece", piece)), sha1Of(piece));
    EXPECT_EQ(port.reads, 2);
    // What was read is released from the page cache as it goes.
    EXPECT_EQ(port.doneAdvice, (std::vector<std::pair<off_t, off_t>>{{0, 262144}}));

    const std::string larger(3 * kQVLFileHashPieceSize + 17, 'x');
    EXPECT_EQ(fileHash(tree.file("larger", larger)), sha1Of(larger));
}

TEST(FileHash, FailuresYieldNothingWithTheirMessages) {
    TempTree tree;
    QVLLogCapture capture;
    EXPECT_FALSE(fileHash(tree.path("missing")));
    EXPECT_TRUE(capture.contains("Cannot read file " + tree.path("missing")));

    // A fifo is not read at all: it would block.
    EXPECT_FALSE(fileHash(tree.fifo("pipe")));
    EXPECT_TRUE(capture.contains("Cannot read file " + tree.path("pipe")));

    FaultyPort port;
    platform::ScopedFileAttributesPort scoped(port);
    port.failReadNumber = 2;
    const std::string path = tree.file("big", std::string(2 * kQVLFileHashPieceSize, 'b'));
    EXPECT_FALSE(fileHash(path));
    EXPECT_TRUE(capture.contains("Cannot read data from " + path + "."));
    EXPECT_FALSE(directoryHash(tree.root()));
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

TEST(CreateFileDigest, ReportsFractionsAroundEachPiece) {
    TempTree tree;
    const std::string content(2 * kQVLFileDigestBufferSize + 100, 'd');
    const std::string path = tree.file("f", content);

    Progress unknownSize;
    EXPECT_EQ(createFileDigest(path, "SHA-1", 0, Progress::record, &unknownSize), sha1Of(content));
    EXPECT_EQ(unknownSize.fractions, (std::vector<float>{0.0f, -1.0f, -1.0f, -1.0f, 1.0f}));

    Progress knownSize;
    EXPECT_EQ(
        createFileDigest(path, "SHA-1", static_cast<int64_t>(content.size()), Progress::record, &knownSize),
        sha1Of(content));
    ASSERT_EQ(knownSize.fractions.size(), 5u);
    EXPECT_FLOAT_EQ(knownSize.fractions[1], 65536.0f / content.size());
    EXPECT_FLOAT_EQ(knownSize.fractions[3], 1.0f);

    EXPECT_EQ(createFileDigest(path, "SHA-1", 0, nullptr, nullptr), sha1Of(content));
}

TEST(CreateFileDigest, RefusesOtherAlgorithmsAndStopsWhenTheHandlerSaysSo) {
    TempTree tree;
    const std::string path = tree.file("f", "abc");
    QVLLogCapture capture;
    for (const char* name : {"sha-1", "SHA1", "MD5", ""}) {
        EXPECT_FALSE(createFileDigest(path, name, 0, nullptr, nullptr)) << name;
    }
    EXPECT_EQ(capture.lines(), std::vector<std::string>(4, "Unknown algorithm"));

    Progress stopping;
    stopping.failAt = 2;  // the first piece
    EXPECT_FALSE(createFileDigest(path, "SHA-1", 3, Progress::record, &stopping));
    EXPECT_EQ(stopping.fractions, (std::vector<float>{0.0f, 1.0f}));
    EXPECT_TRUE(capture.contains("Progress handler returned with status 7; failing verification"));

    EXPECT_FALSE(createFileDigest(tree.path("missing"), "SHA-1", 0, nullptr, nullptr));
    EXPECT_TRUE(capture.contains("Can't open read stream file://" + tree.path("missing") + " *** " +
                                 tree.path("missing")));
}

TEST(CreateFileDigest, ReadErrorEndsTheDataAndKeepsWhatWasRead) {
    TempTree tree;
    const std::string content(kQVLFileDigestBufferSize + 5, 'r');
    FaultyPort port;
    platform::ScopedFileAttributesPort scoped(port);
    port.failReadNumber = 2;
    EXPECT_EQ(createFileDigest(tree.file("f", content), "SHA-1", 0, nullptr, nullptr),
              sha1Of(content.substr(0, kQVLFileDigestBufferSize)));
}

TEST(CreateDigestHexString, FormatsTwentyBytesOnly) {
    EXPECT_EQ(createDigestHexString(sha1Of("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(createDigestHexString(plist::Data(20, 0x0a)), "0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a");
    EXPECT_FALSE(createDigestHexString(plist::Data(19, 0)));
}

}  // namespace
}  // namespace qvl
