// Media geometry, GUID text and the GPT view adjustment.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "storage/plexa.h"
#include "storage/plexa_format.h"

using namespace qvl::plexa;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr uint32_t kBlock = 4096;

struct View {
    std::array<uint8_t, gpt::kHeaderSize> header{};
    std::array<uint8_t, gpt::kTableSize> table{};

    uint8_t* entry(size_t i) { return table.data() + i * gpt::kEntrySize; }
    uint64_t first(size_t i) { return loadLE64(entry(i) + gpt::kFirstLBA); }
    uint64_t last(size_t i) { return loadLE64(entry(i) + gpt::kLastLBA); }
    uint32_t count() { return loadLE32(header.data() + gpt::kEntryCount); }
};

// Entries i hold [first, last] and a unique GUID whose first byte is i + 1,
// so a test can tell which partition sits in which slot.
View makeView(uint64_t firstUsable, uint64_t lastUsable,
              const std::vector<std::pair<uint64_t, uint64_t>>& parts) {
    View v;
    storeLE64(v.header.data() + gpt::kFirstUsableLBA, firstUsable);
    storeLE64(v.header.data() + gpt::kLastUsableLBA, lastUsable);
    storeLE32(v.header.data() + gpt::kEntryCount, uint32_t(parts.size()));
    for (size_t i = 0; i < parts.size() && i < gpt::kMaxEntries; i++) {
        v.entry(i)[gpt::kUniqueGUID] = uint8_t(i + 1);
        storeLE64(v.entry(i) + gpt::kFirstLBA, parts[i].first);
        storeLE64(v.entry(i) + gpt::kLastLBA, parts[i].second);
    }
    return v;
}

int adjust(View& v, int index, uint64_t size, std::string* err = nullptr) {
    PlexaMediaProperties g{};
    g.blockSize = kBlock;  // the only field the adjustment reads
    CaptureStderr();
    const int rc = plexaAdjustPartition(&g, v.header.data(), v.table.data(), index, size);
    const std::string e = GetCapturedStderr();
    if (err) *err = e;
    return rc;
}

TEST(PlexaGeometry, DerivesChunksOrRefusesTheMedia) {
    const struct {
        uint64_t mediaSize;
        uint32_t blockSize;
        int rc;
        const char* message;
        uint32_t chunkShift = 0, chunkCount = 0;  // checked when set
    } cases[] = {
        {4'096'000'000ull, 4096, 0, "", 22, 976},
        {1024ull << 22, 4096, 0, "", 22, 1024},  // exactly 1024 chunks; one byte more doubles the chunk
        {(1024ull << 22) + 1, 4096, 0, "", 23, 512},
        {(1ull << 42) + 1, 2048, -1, "plexa: media too large\n"},  // size is judged before the block
        {(1ull << 41) + 1, 4096, -1, "plexa: media too large\n"},  // a 4 GiB chunk does not fit 32 bits
        {1ull << 30, 2048, -1, "plexa: media block size too small\n"},
        {1ull << 30, 32768, -1, "plexa: media block size too large\n"},
        {1ull << 20, 4096, 0, "plexa: media too small\n"},  // chunks below a block: a warning
        {8, 4096, -1, "plexa: media too small\n"},          // no partition space at all
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.mediaSize) + "/" + std::to_string(c.blockSize));
        PlexaMediaProperties g{};
        CaptureStderr();
        EXPECT_EQ(plexaInitMediaGeometry(&g, c.mediaSize, c.blockSize), c.rc);
        EXPECT_EQ(GetCapturedStderr(), c.message);
        EXPECT_EQ(g.mediaSize, c.mediaSize);  // even a rejected record says what was asked for
        if (c.chunkCount == 0) continue;
        EXPECT_EQ(g.chunkShift, c.chunkShift);
        EXPECT_EQ(g.chunkCount, c.chunkCount);
        EXPECT_EQ(g.partitionSpace, uint64_t(c.chunkCount - 8) << c.chunkShift);
    }
}

TEST(PlexaGuid, TextAndByteOrder) {
    uint8_t stored[16], back[16];
    guidSwapByteOrder(kHFSPlusType, stored);
    EXPECT_EQ(guidText(stored), "00534648-0000-AA11-AA11-00306543ECAC");
    ASSERT_TRUE(parseGuidText("48465300-0000-11aa-AA11-00306543ecac", back));
    EXPECT_EQ(std::memcmp(back, kHFSPlusType, 16), 0);
    for (const char* bad : {"48465300-0000-11AA-AA11-00306543ECA", "48465300-0000-11AA-AA11+00306543ECAC",
                            "48465300-0000-11AA-AA11-00306543ECAG"})
        EXPECT_FALSE(parseGuidText(bad, back)) << bad;
}

TEST(PlexaAdjust, CreateAppendsANewHFSPartition) {
    View v = makeView(6, 9999, {{100, 199}});
    v.entry(1)[gpt::kName + 10] = 'x';  // beyond "New\0": left as it was
    ASSERT_EQ(adjust(v, 1, 10 * kBlock - 1), 0);
    EXPECT_EQ(v.count(), 2u);
    EXPECT_EQ(v.first(1), 106u);
    EXPECT_EQ(v.last(1), 115u);  // a part block counts whole
    EXPECT_EQ(guidText(v.entry(1) + gpt::kTypeGUID), "00534648-0000-AA11-AA11-00306543ECAC");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(v.entry(1) + gpt::kName), 11),
              std::string("N\0e\0w\0\0\0\0\0x", 11));
    EXPECT_EQ(v.entry(1)[gpt::kUniqueGUID + 7] >> 4, 4);  // a random version-4 GUID
}

TEST(PlexaAdjust, RefusalsChangeNeitherCountNorHeader) {
    const View two = makeView(6, 105, {{6, 55}, {56, 95}});
    View many = makeView(6, 9999, {{6, 15}});
    storeLE32(many.header.data() + gpt::kEntryCount, 12);
    const struct {
        View view;
        int index;
        uint64_t size;
        const char* err;
    } cases[] = {
        {two, 3, kBlock, "plexa: cannot adjust partition 3 - out of range\n"},
        {two, -1, kBlock, "plexa: cannot adjust partition -1 - out of range\n"},
        {two, 2, 0, "plexa: cannot create zero-sized partition\n"},
        // 10 free blocks; growing partition 1 by 26 leaves 16 missing.
        {two, 1, 66 * kBlock, "plexa: new layout does not fit, overflows by 0x10 blocks\n"},
        {many, 8, kBlock, "plexa: cannot adjust partition 8 - out of range\n"},
        {many, 0, kBlock, "plexa: partition count 12 exceeds the 8-entry table\n"},
        // Last LBA before the first: the length wraps to nearly 2^64 blocks.
        {makeView(6, 9999, {{100, 50}, {200, 299}}), 1, kBlock,
         "plexa: new layout does not fit, overflows by 0xffffffffffffd8c6 blocks\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.err);
        View v = c.view;
        std::string err;
        EXPECT_EQ(adjust(v, c.index, c.size, &err), -1);
        EXPECT_EQ(err, c.err);
        EXPECT_EQ(v.header, c.view.header);
    }
}

}  // namespace
