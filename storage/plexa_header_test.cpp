// The volume header: creation, CRC, reading from a device, check and repair.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "storage/plexa.h"
#include "storage/plexa_format.h"

using namespace qvl::plexa;
namespace hdr = qvl::plexa::header;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using Header = std::array<uint8_t, hdr::kSize>;
using Ranges = std::vector<std::pair<uint64_t, uint64_t>>;

PlexaMediaProperties geometry(uint64_t mediaSize = 4'096'000'000ull, uint32_t blockSize = 4096) {
    PlexaMediaProperties g{};
    EXPECT_EQ(plexaInitMediaGeometry(&g, mediaSize, blockSize), 0);
    return g;
}

Header freshHeader(const PlexaMediaProperties& g) {
    Header h{};
    EXPECT_EQ(plexaCreateHeader(&g, h.data()), 0);
    plexaSetHeaderCRC(h.data());
    return h;
}

void setRange(Header& h, size_t p, uint64_t start, uint64_t end) {
    storeLE64(hdr::record(h.data(), p) + hdr::kRecordStart, start);
    storeLE64(hdr::record(h.data(), p) + hdr::kRecordEnd, end);
}

// A consistent header holding `ranges` as partitions 0..n-1, their chunks
// spread over the map at random.
Header consistentHeader(const PlexaMediaProperties& g, const Ranges& ranges) {
    Header h = freshHeader(g);
    std::memset(hdr::record(h.data(), 0), 0, hdr::kMaxPartitions * hdr::kRecordSize);
    std::vector<uint16_t> keys;
    for (size_t p = 0; p < ranges.size(); p++) {
        hdr::record(h.data(), p)[hdr::kRecordType] = 0x48;
        hdr::record(h.data(), p)[hdr::kRecordIdentity] = uint8_t(p + 1);
        setRange(h, p, ranges[p].first, ranges[p].second);
        for (uint64_t c = 0; c * g.chunkSize < ranges[p].second - ranges[p].first; c++)
            keys.push_back(uint16_t(p << 12 | c));
    }
    keys.resize(g.chunkCount - 1, hdr::kChunkFree);
    std::shuffle(keys.begin(), keys.end(), std::mt19937_64(2));
    for (uint32_t i = 1; i < g.chunkCount; i++) hdr::setChunkEntry(h.data(), i, keys[i - 1]);
    storeLE32(h.data() + hdr::kPartitionCount, uint32_t(ranges.size()));
    return h;
}

// Runs `f`, expects it to answer `rc`, and answers what it printed.
std::string printed(int rc, const std::function<int()>& f) {
    CaptureStderr();
    EXPECT_EQ(f(), rc);
    return GetCapturedStderr();
}

// The check answers -1 exactly when it prints.
std::string check(const PlexaMediaProperties& g, const Header& h) {
    CaptureStderr();
    const int rc = plexaCheckHeader(&g, h.data());
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(rc, err.empty() ? 0 : -1);
    return err;
}

std::string repair(const PlexaMediaProperties& g, Header& h, int strict, int rc) {
    return printed(rc, [&] { return plexaRepairHeader(&g, h.data(), strict); });
}

uint32_t entryOf(const PlexaMediaProperties& g, const Header& h, uint16_t key) {
    for (uint32_t i = 1; i < g.chunkCount; i++)
        if (hdr::chunkEntry(h.data(), i) == key) return i;
    return 0;
}

std::string hex4(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%04x", v);
    return b;
}

TEST(PlexaHeader, FreshHeaderItsCRCAndChunkLookup) {
    PlexaMediaProperties g = geometry();
    Header h{};
    ASSERT_EQ(plexaCreateHeaderWithFlags(&g, h.data(), 7, 9), 0);
    EXPECT_EQ(std::memcmp(h.data(), hdr::kTypeWithCRC, 16), 0);
    EXPECT_EQ(loadLE32(h.data() + hdr::kFlags0), 7u);
    EXPECT_EQ(loadLE32(h.data() + hdr::kFlags1), 9u);
    const uint8_t* r = hdr::record(h.data(), 0);
    EXPECT_EQ(loadLE64(r + hdr::kRecordEnd) - loadLE64(r + hdr::kRecordStart), g.partitionSpace);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(r + hdr::kRecordName), 12),
              std::string("P\0l\0e\0x\0a\0\0\0", 12));
    // 976 chunks: entry 0 reserved, 968 for partition 0, 7 free, the rest invalid.
    const std::pair<uint32_t, uint16_t> entries[] = {
        {0, 0xF000}, {1, 0}, {968, 967}, {969, 0xF111}, {975, 0xF111}, {976, 0xF3FF}, {1023, 0xF3FF}};
    for (auto [i, key] : entries) EXPECT_EQ(hdr::chunkEntry(h.data(), i), key) << "entry " << i;
    EXPECT_EQ(check(g, h), "");

    // The CRC field counts as zero; a wrong CRC is reported and then replaced.
    storeLE32(h.data() + hdr::kCRC, 0xDEADBEEF);
    Header zeroed = h;
    storeLE32(zeroed.data() + hdr::kCRC, 0);
    EXPECT_EQ(uint32_t(plexaSetHeaderCRC(h.data())), uint32_t(crc32(0, zeroed.data(), hdr::kSize)));
    h[3000] ^= 1;
    EXPECT_EQ(plexaValidateHeader(h.data()), -1);
    EXPECT_EQ(plexaValidateHeader(h.data()), 0);
    std::memcpy(h.data(), hdr::kTypeWithoutCRC, 16);
    storeLE32(h.data() + hdr::kCRC, 0x12345678);
    EXPECT_EQ(plexaValidateHeader(h.data()), 0);
    EXPECT_EQ(loadLE32(h.data() + hdr::kCRC), 0x12345678u);
    Header unknown{};
    EXPECT_EQ(plexaValidateHeader(unknown.data()), -2);

    PlexaMediaProperties forged = g;
    forged.chunkCount = 5000;  // would index past the chunk map
    EXPECT_EQ(
        printed(-3,
                [&] {
                    return plexaCreateHeader(nullptr, h.data()) + plexaCreateHeader(&g, nullptr) +
                           plexaCheckHeader(&forged, h.data());
                }),
        "plexa: NULL media properties\nplexa: NULL header buffer\nplexa: inconsistent media properties\n");

    // Chunk lookup in a fresh header.
    const Header fresh = freshHeader(g);
    uint16_t chunk = 0;
    ASSERT_EQ(plexaChunkContainingPartitionByte(&g, fresh.data(), 0, 5ull * g.chunkSize + 17, &chunk), 0);
    EXPECT_EQ(chunk, 6);
    ASSERT_EQ(plexaChunkContainingPartitionBlock(&g, fresh.data(), 0, 2048, &chunk), 0);  // 8 MiB in
    EXPECT_EQ(chunk, 3);
    for (auto [p, offset] : {std::pair<int, uint64_t>{0, g.partitionSpace}, {1, 0}, {8, 0}})
        EXPECT_EQ(plexaChunkContainingPartitionByte(&g, fresh.data(), p, offset, &chunk), -1);
    EXPECT_EQ(plexaChunkContainingPartitionBlock(&g, fresh.data(), 0, UINT64_MAX / 2, &chunk), -1);
}

TEST(PlexaHeader, AcquireFallsBackToTheBackupAndSaysWhatItFound) {
    char path[] = "/tmp/plexa_acquire_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    const PlexaMediaProperties g = geometry(64ull << 20);  // 64 KiB chunks: the backup sits at 60 KiB
    const off_t backupAt = off_t(g.chunkSize - g.blockSize);
    Header out{};
    auto acquire = [&](int rc) {
        return printed(rc, [&] { return plexaAcquireHeader(&g, out.data(), fd); });
    };
    EXPECT_EQ(acquire(-1),
              "plexa: failed to read main header\nplexa: failed to read backup header\n"
              "plexa: could not read media header\n");
    ASSERT_EQ(ftruncate(fd, off_t(g.mediaSize)), 0);
    EXPECT_EQ(acquire(-1), "plexa: media header not found or not supported\n");
    Header main = freshHeader(g), backup = freshHeader(g);
    main[100] ^= 0xFF;
    ASSERT_EQ(pwrite(fd, main.data(), main.size(), 0), ssize_t(main.size()));
    backup[200] ^= 1;
    ASSERT_EQ(pwrite(fd, backup.data(), backup.size(), backupAt), ssize_t(backup.size()));
    EXPECT_EQ(acquire(-1), "plexa: media header corrupt\n");
    backup[200] ^= 1;
    ASSERT_EQ(pwrite(fd, backup.data(), backup.size(), backupAt), ssize_t(backup.size()));
    EXPECT_EQ(acquire(0), "");
    EXPECT_EQ(out, backup);
    close(fd);
}

// Partition 0 holds 5 chunks, partition 1 two and a half, spread at random.
class PlexaMap : public testing::Test {
  protected:
    void SetUp() override {
        good_ = consistentHeader(g_, {{base_, base_ + 5 * cs_}, {base_ + 6 * cs_, base_ + 8 * cs_ + 4096}});
        ASSERT_EQ(check(g_, good_), "");
    }
    // The reclaim lines for `keys` in chunk map order.
    std::string reclaimed(const Header& h, std::initializer_list<uint16_t> keys, const std::string& tail) {
        std::string out;
        for (uint32_t i = 1; i < g_.chunkCount; i++)
            if (std::count(keys.begin(), keys.end(), hdr::chunkEntry(h.data(), i)))
                out += "plexa: reclaiming chunk " + hex4(i) + tail + "\n";
        return out;
    }

    PlexaMediaProperties g_ = geometry();
    const uint64_t base_ = 16384 + 8192, cs_ = g_.chunkSize;
    Header good_{};
};

TEST_F(PlexaMap, CheckNamesTheFirstViolation) {
    const uint64_t base = base_, cs = cs_;
    const uint32_t spare = entryOf(g_, good_, hdr::kChunkFree);
    auto chunk = [&](uint32_t i, uint16_t v) {
        return [=](Header& h) { hdr::setChunkEntry(h.data(), i, v); };
    };
    auto range = [](size_t p, uint64_t s, uint64_t e) { return [=](Header& h) { setRange(h, p, s, e); }; };
    auto zero = [](size_t p, size_t at) {
        return [=](Header& h) { std::memset(hdr::record(h.data(), p) + at, 0, 16); };
    };
    const std::vector<std::pair<std::string, std::function<void(Header&)>>> cases = {
        {"plexa: media header mismatch\n", [](Header& h) { h[0] ^= 1; }},
        {"plexa: media size mismatch\n", [](Header& h) { h[hdr::kMediaSize] ^= 1; }},
        {"plexa: illegal partition count\n",
         [](Header& h) { storeLE32(h.data() + hdr::kPartitionCount, 9); }},
        {"plexa: partition 1 has type zero\n", zero(1, 0)},
        {"plexa: partition 0 has identity zero\n", zero(0, 16)},
        {"plexa: partition 0 starts too low\n", range(0, base - 4096, base + 5 * cs)},
        {"plexa: partition 1 ends too high\n", range(1, base + 6 * cs, base + g_.partitionSpace + 4096)},
        {"plexa: partition 1 start/end not in order\n", range(1, base + 6 * cs, base + 6 * cs)},
        {"plexa: partition 1 start/end not block aligned\n", range(1, base + 6 * cs, base + 8 * cs + 512)},
        {"plexa: partition 1 overlaps partition 0\n", range(1, base + 4 * cs, base + 7 * cs)},
        {"plexa: partition 1 missing chunk 0x0002\n", chunk(entryOf(g_, good_, 0x1002), hdr::kChunkFree)},
        {"plexa: partition 0 missing chunk 0x0001\n", chunk(spare, 0x0001)},  // held twice
        {"plexa: partition 0 has type zero\n",
         [&](Header& h) { zero(1, 0)(h), zero(0, 0)(h); }},  // the lower one
        {"plexa: partition 5 orphaned\n", [](Header& h) { hdr::record(h.data(), 5)[hdr::kRecordEnd] = 1; }},
        {"plexa: chunk zero not marked reserved\n", chunk(0, 0xF111)},
        {"plexa: chunk " + hex4(spare) + " claims nonexistent partition (0x2000)\n", chunk(spare, 0x2000)},
        {"plexa: chunk " + hex4(spare) + " assigned to invalid partition offset (0x0005)\n",
         chunk(spare, 0x0005)},
        {"plexa: chunk " + hex4(spare) + " assigned to invalid partition offset (0x0c00)\n",
         chunk(spare, 0x0C00)},
        {"plexa: chunk 0x03d0 not invalid (0x0000)\n", chunk(976, 0)},
    };
    for (const auto& [message, mutate] : cases) {
        Header h = good_;
        mutate(h);
        EXPECT_EQ(check(g_, h), message);
    }
}

TEST_F(PlexaMap, Repairs) {
    // Partition 1 inside partition 0: strictly refused, else 1 and up go.
    Header h = good_, strict;
    setRange(h, 1, base_ + cs_, base_ + 3 * cs_);
    strict = h;
    EXPECT_EQ(repair(g_, strict, 1, -1),
              "plexa: partition 1 out of order or overlapping\nplexa: partition table corrupt\n");
    EXPECT_EQ(repair(g_, h, 0, 0),
              "plexa: partition 1 out of order or overlapping\n"
              "plexa: deleting partition(s) and fixing partition count\n" +
                  reclaimed(good_, {0x1000, 0x1001, 0x1002}, " not assigned to valid partition"));
    EXPECT_EQ(loadLE32(h.data() + hdr::kPartitionCount), 1u);
    EXPECT_EQ(check(g_, h), "");

    // Gaps at offsets 1 and 3: cut at the first; the later one must not move the end out again.
    h = good_;
    hdr::setChunkEntry(h.data(), entryOf(g_, h, 0x0001), hdr::kChunkFree);
    hdr::setChunkEntry(h.data(), entryOf(g_, h, 0x0003), hdr::kChunkFree);
    strict = h;
    EXPECT_EQ(repair(g_, strict, 1, -1), "plexa: partition 0 missing chunk 0x0001\n");
    EXPECT_EQ(repair(g_, h, 0, 0), "plexa: truncated partition 0\n" +
                                       reclaimed(h, {0x0002, 0x0004}, " off the end of partition 0"));
    EXPECT_EQ(loadLE64(hdr::record(h.data(), 0) + hdr::kRecordEnd), base_ + cs_);
    EXPECT_EQ(check(g_, h), "");

    // A doubled chunk: strictly refused, else the later copy is freed.
    h = good_;
    const uint32_t spare = entryOf(g_, h, hdr::kChunkFree);
    hdr::setChunkEntry(h.data(), spare, 0x1001);
    strict = h;
    EXPECT_EQ(repair(g_, strict, 1, -1), "plexa: partition 1 duplicate chunk 0x0001\n");
    EXPECT_EQ(repair(g_, h, 0, 0), "");
    EXPECT_EQ(hdr::chunkEntry(h.data(), std::min(spare, entryOf(g_, good_, 0x1001))), 0x1001);

    // Header fields.
    h = good_;
    storeLE64(h.data() + hdr::kMediaSize, g_.mediaSize + 4096);
    EXPECT_EQ(repair(g_, h, 1, -1), "plexa: media size smaller than required by header\n");
    EXPECT_EQ(repair(g_, h, 0, 0), "plexa: adjusting header media size\n");
    storeLE32(h.data() + hdr::kPartitionCount, 9);
    hdr::setChunkEntry(h.data(), 0, 0);
    EXPECT_EQ(repair(g_, h, 0, 0),
              "plexa: fixing illegal partition count\nplexa: found null partition type/identity\n"
              "plexa: deleting partition(s) and fixing partition count\n"
              "plexa: fixing chunk0 assignment\n");
    EXPECT_EQ(check(g_, h), "");
    h[0] ^= 1;
    EXPECT_EQ(repair(g_, h, 0, -1), "plexa: media header mismatch\n");
}

}  // namespace
