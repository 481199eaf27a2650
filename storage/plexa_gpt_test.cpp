// Media geometry and the GPT view adjustment.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
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

// A view whose entries i hold [first, last] and a unique GUID whose first
// byte is i + 1, so a test can tell which partition sits in which slot.
View makeView(uint64_t firstUsable, uint64_t lastUsable,
              const std::vector<std::pair<uint64_t, uint64_t>>& parts) {
    View v;
    storeLE64(v.header.data() + gpt::kFirstUsableLBA, firstUsable);
    storeLE64(v.header.data() + gpt::kLastUsableLBA, lastUsable);
    storeLE32(v.header.data() + gpt::kEntryCount, uint32_t(parts.size()));
    for (size_t i = 0; i < parts.size() && i < gpt::kMaxEntries; i++) {
        std::memcpy(v.entry(i) + gpt::kTypeGUID, kHFSPlusType, 16);
        v.entry(i)[gpt::kUniqueGUID] = uint8_t(i + 1);
        storeLE64(v.entry(i) + gpt::kFirstLBA, parts[i].first);
        storeLE64(v.entry(i) + gpt::kLastLBA, parts[i].second);
    }
    return v;
}

PlexaMediaProperties geometry() {
    PlexaMediaProperties g{};
    EXPECT_EQ(plexaInitMediaGeometry(&g, uint64_t(kBlock) * 1'000'000, kBlock), 0);
    return g;
}

int adjust(View& v, int index, uint64_t size, std::string* err = nullptr) {
    PlexaMediaProperties g = geometry();
    CaptureStderr();
    int rc = plexaAdjustPartition(&g, v.header.data(), v.table.data(), index, size);
    std::string e = GetCapturedStderr();
    if (err) *err = e;
    return rc;
}

TEST(PlexaGeometry, DerivesChunksOrRefusesTheMedia) {
    struct Case {
        uint64_t mediaSize;
        uint32_t blockSize;
        int rc;
        const char* message;
        uint32_t chunkShift = 0, chunkCount = 0;  // checked when set
    } cases[] = {
        {4'096'000'000ull, 4096, 0, "", 22, 976},
        // A medium of exactly 1024 chunks still fits; one byte more doubles the chunk.
        {1024ull << 22, 4096, 0, "", 22, 1024},
        {(1024ull << 22) + 1, 4096, 0, "", 23, 512},
        {(1ull << 42) + 1, 2048, -1, "plexa: media too large\n"},  // size is judged before the block
        {1ull << 30, 2048, -1, "plexa: media block size too small\n"},
        {1ull << 30, 32768, -1, "plexa: media block size too large\n"},
        {1ull << 30, 4096, 0, ""},
        {1ull << 30, 16384, 0, ""},
        {1ull << 30, 5000, 0, ""},  // not a power of two, still accepted
        // Above 2 TiB the chunk would need 4 GiB.
        {(1ull << 41) + 1, 4096, -1, "plexa: media too large\n"},
        {1ull << 41, 4096, 0, ""},
        // Chunks smaller than a block are only worth a warning.
        {1ull << 20, 4096, 0, "plexa: media too small\n"},
        // No room for any partition at all.
        {0, 4096, -1, "plexa: media too small\n"},
        {8, 4096, -1, "plexa: media too small\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.mediaSize) + "/" + std::to_string(c.blockSize));
        PlexaMediaProperties g{};
        CaptureStderr();
        EXPECT_EQ(plexaInitMediaGeometry(&g, c.mediaSize, c.blockSize), c.rc);
        EXPECT_EQ(GetCapturedStderr(), c.message);
        // Even a rejected record says what was asked for.
        EXPECT_EQ(g.mediaSize, c.mediaSize);
        EXPECT_EQ(g.blockSize, c.blockSize);
        if (c.chunkCount == 0) continue;
        EXPECT_EQ(g.blockShift, 12u);
        EXPECT_EQ(g.chunkShift, c.chunkShift);
        EXPECT_EQ(g.chunkSize, 1ull << c.chunkShift);
        EXPECT_EQ(g.chunkCount, c.chunkCount);
        EXPECT_EQ(g.partitionSpace, uint64_t(c.chunkCount - 8) << c.chunkShift);
    }
    CaptureStderr();
    EXPECT_EQ(plexaInitMediaGeometry(nullptr, 1ull << 30, 4096), -1);
    EXPECT_EQ(GetCapturedStderr(), "plexa: NULL media properties\n");
}

TEST(PlexaAdjust, CreateAppendsANewHFSPartition) {
    View v = makeView(6, 9999, {{100, 199}});
    v.entry(1)[gpt::kName + 10] = 'x';  // beyond "New\0": left as it was
    ASSERT_EQ(adjust(v, 1, 10 * kBlock), 0);
    EXPECT_EQ(v.count(), 2u);
    EXPECT_EQ(v.first(1), 106u);
    EXPECT_EQ(v.last(1), 115u);
    const uint8_t hfsGPTOrder[16] = {0x00, 0x53, 0x46, 0x48, 0x00, 0x00, 0xAA, 0x11,
                                     0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};
    EXPECT_EQ(std::memcmp(v.entry(1) + gpt::kTypeGUID, hfsGPTOrder, 16), 0);
    const uint8_t name[10] = {'N', 0, 'e', 0, 'w', 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(v.entry(1) + gpt::kName, name, 8), 0);
    EXPECT_EQ(v.entry(1)[gpt::kName + 10], 'x');
    // A random version-4 GUID; in GPT order the version nibble sits in byte 7.
    EXPECT_FALSE(isAllZero(v.entry(1) + gpt::kUniqueGUID, 16));
    EXPECT_EQ(v.entry(1)[gpt::kUniqueGUID + 7] >> 4, 4);

    const uint8_t type[16] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                              0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};
    const uint8_t typeGPTOrder[16] = {0x04, 0x03, 0x02, 0x01, 0x06, 0x05, 0x08, 0x07,
                                      0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};
    PlexaMediaProperties g = geometry();
    ASSERT_EQ(plexaAdjustPartitionWithType(&g, v.header.data(), v.table.data(), 2, kBlock, type), 0);
    EXPECT_EQ(std::memcmp(v.entry(2) + gpt::kTypeGUID, typeGPTOrder, 16), 0);
}

TEST(PlexaAdjust, RefusesWithOneLineAndChangesNothing) {
    const View two = makeView(6, 105, {{6, 55}, {56, 95}});
    // Index 8 is out of range whatever the header claims; a claim above 8 is
    // refused without reading past the table.
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.err);
        View v = c.view;
        std::string err;
        EXPECT_EQ(adjust(v, c.index, c.size, &err), -1);
        EXPECT_EQ(err, c.err);
        EXPECT_EQ(v.header, c.view.header);
        // An oversized count claim must not let the table be touched at all.
        if (loadLE32(c.view.header.data() + gpt::kEntryCount) > gpt::kMaxEntries) {
            EXPECT_EQ(v.table, c.view.table);
        }
    }
}

TEST(PlexaAdjust, CorruptEntriesNeverWrapIntoAFit) {
    std::string err;
    // Last LBA before the first: its length wraps to nearly 2^64 blocks.
    View v = makeView(6, 9999, {{100, 50}, {200, 299}});
    EXPECT_EQ(adjust(v, 1, kBlock, &err), -1);
    EXPECT_NE(err.find("plexa: new layout does not fit"), std::string::npos);
    View edge = makeView(6, UINT64_MAX, {{6, 15}});
    EXPECT_EQ(adjust(edge, 1, UINT64_MAX, &err), 0);
}

// Thousands of random views and operations against a plain model: on success
// the partitions are packed from the first usable LBA in start order (ties in
// table order), keep their slots and sizes except the adjusted one; on
// failure the model overflows too and the count is unchanged.
TEST(PlexaAdjust, RandomTablesPackBackToBack) {
    std::mt19937_64 rng(0x506C7861);
    int successes = 0;
    for (int round = 0; round < 5000; round++) {
        const uint64_t firstUsable = rng() % 64;
        const uint64_t lastUsable = firstUsable + 50 + rng() % 2000;
        const size_t n = rng() % 9;
        std::vector<std::pair<uint64_t, uint64_t>> parts;
        for (size_t i = 0; i < n; i++) {
            uint64_t first = firstUsable + rng() % (lastUsable - firstUsable);
            parts.push_back({first, first + rng() % 200});
        }
        View v = makeView(firstUsable, lastUsable, parts);

        struct Item {
            int id;  // unique GUID byte; 9 for a created partition
            uint64_t first, length;
        };
        std::vector<Item> model;
        for (size_t i = 0; i < n; i++)
            model.push_back({int(i + 1), parts[i].first, parts[i].second - parts[i].first});
        const int index = int(rng() % (std::min<size_t>(n, 7) + 1));  // a ninth slot doesn't exist
        uint64_t size = rng() % 3 == 0 ? 0 : rng() % (600 * uint64_t(kBlock));
        if (size_t(index) == n && size == 0) size = 1;
        const uint64_t blocks = (size + kBlock - 1) / kBlock;
        if (size_t(index) == n) {
            model.push_back({9, lastUsable + 1, blocks - 1});
        } else if (blocks == 0) {
            model.erase(model.begin() + index);
        } else {
            model[size_t(index)].length = blocks - 1;
        }
        std::vector<size_t> order(model.size());
        for (size_t i = 0; i < order.size(); i++) order[i] = i;
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t a, size_t b) { return model[a].first < model[b].first; });
        uint64_t next = firstUsable;
        for (size_t k : order) {
            model[k].first = next;
            next += model[k].length + 1;
        }

        SCOPED_TRACE("round " + std::to_string(round));
        std::string err;
        int rc = adjust(v, index, size, &err);
        if (next > lastUsable + 1) {
            ASSERT_EQ(rc, -1);
            ASSERT_EQ(v.count(), n);
            continue;
        }
        ASSERT_EQ(rc, 0) << err;
        successes++;
        ASSERT_EQ(v.count(), model.size());
        for (size_t i = 0; i < model.size(); i++) {
            if (model[i].id != 9) {
                ASSERT_EQ(v.entry(i)[gpt::kUniqueGUID], model[i].id);
            }
            ASSERT_EQ(v.first(i), model[i].first);
            ASSERT_EQ(v.last(i), model[i].first + model[i].length);
        }
        for (size_t i = model.size(); i < gpt::kMaxEntries && blocks == 0; i++)
            ASSERT_TRUE(isAllZero(v.entry(i), gpt::kEntrySize));
    }
    EXPECT_GT(successes, 1000);
}

}  // namespace
