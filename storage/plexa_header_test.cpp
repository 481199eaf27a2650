// The volume header: creation, CRC, reading from a device, check and repair.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <optional>
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

uint8_t* rec(Header& h, size_t p) {
    return hdr::record(h.data(), p);
}
void setRange(Header& h, size_t p, uint64_t start, uint64_t end) {
    storeLE64(rec(h, p) + hdr::kRecordStart, start);
    storeLE64(rec(h, p) + hdr::kRecordEnd, end);
}

// A consistent header holding `ranges` (byte ranges of the partition address
// space) as partitions 0..n-1, their chunks spread over the map at random.
// Empty when the ranges need more chunks than the map has.
std::optional<Header> consistentHeader(const PlexaMediaProperties& g,
                                       const std::vector<std::pair<uint64_t, uint64_t>>& ranges,
                                       std::mt19937_64& rng) {
    Header h = freshHeader(g);
    std::vector<uint16_t> keys;
    for (size_t p = 0; p < hdr::kMaxPartitions; p++) std::memset(rec(h, p), 0, hdr::kRecordSize);
    for (size_t p = 0; p < ranges.size(); p++) {
        rec(h, p)[hdr::kRecordType] = 0x48;
        rec(h, p)[hdr::kRecordIdentity] = uint8_t(p + 1);
        setRange(h, p, ranges[p].first, ranges[p].second);
        uint64_t len = ranges[p].second - ranges[p].first;
        for (uint64_t c = 0; c * g.chunkSize < len; c++) keys.push_back(uint16_t(p << 12 | c));
    }
    if (keys.size() > g.chunkCount - 1) return std::nullopt;
    while (keys.size() < g.chunkCount - 1) keys.push_back(hdr::kChunkFree);
    std::shuffle(keys.begin(), keys.end(), rng);
    for (uint32_t i = 1; i < g.chunkCount; i++) hdr::setChunkEntry(h.data(), i, keys[i - 1]);
    storeLE32(h.data() + hdr::kPartitionCount, uint32_t(ranges.size()));
    plexaSetHeaderCRC(h.data());
    return h;
}

__attribute__((format(printf, 1, 2))) std::string format(const char* fmt, ...) {
    char buf[256];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return buf;
}

std::string check(const PlexaMediaProperties& g, const Header& h) {
    CaptureStderr();
    int rc = plexaCheckHeader(&g, h.data());
    std::string err = GetCapturedStderr();
    EXPECT_EQ(rc, err.empty() ? 0 : -1);
    return err;
}

std::string repair(const PlexaMediaProperties& g, Header& h, int strict, int expected) {
    CaptureStderr();
    EXPECT_EQ(plexaRepairHeader(&g, h.data(), strict), expected);
    return GetCapturedStderr();
}

TEST(PlexaHeader, FreshHeaderLayout) {
    PlexaMediaProperties g = geometry();
    ASSERT_EQ(g.chunkCount, 976u);
    Header h{};
    ASSERT_EQ(plexaCreateHeaderWithFlags(&g, h.data(), 7, 9), 0);
    EXPECT_EQ(std::memcmp(h.data(), hdr::kTypeWithCRC, 16), 0);
    EXPECT_EQ(loadLE64(h.data() + hdr::kMediaSize), g.mediaSize);
    EXPECT_EQ(loadLE32(h.data() + hdr::kPartitionCount), 1u);
    EXPECT_EQ(loadLE32(h.data() + hdr::kCRC), 0u);
    EXPECT_EQ(loadLE32(h.data() + hdr::kFlags0), 7u);
    EXPECT_EQ(loadLE32(h.data() + hdr::kFlags1), 9u);
    EXPECT_EQ(loadLE64(rec(h, 0) + hdr::kRecordStart), 16384u + 8192u);
    EXPECT_EQ(loadLE64(rec(h, 0) + hdr::kRecordEnd), 16384u + 8192u + g.partitionSpace);
    EXPECT_EQ(std::memcmp(rec(h, 0), kHFSPlusType, 16), 0);
    const uint8_t name[12] = {'P', 0, 'l', 0, 'e', 0, 'x', 0, 'a', 0, 0, 0};
    EXPECT_EQ(std::memcmp(rec(h, 0) + hdr::kRecordName, name, sizeof name), 0);
    const std::pair<uint32_t, uint16_t> entries[] = {
        {0, 0xF000}, {1, 0x0000}, {968, 967}, {969, 0xF111}, {975, 0xF111}, {976, 0xF3FF}, {1023, 0xF3FF}};
    for (auto [i, key] : entries) EXPECT_EQ(hdr::chunkEntry(h.data(), i), key) << "entry " << i;
    EXPECT_EQ(check(g, h), "");

    // A record filled by the library is accepted whatever its padding holds.
    PlexaMediaProperties dirty;
    std::memset(&dirty, 0xAA, sizeof dirty);
    ASSERT_EQ(plexaInitMediaGeometry(&dirty, g.mediaSize, g.blockSize), 0);
    std::memset(reinterpret_cast<uint8_t*>(&dirty.chunkShift) + 4, 0x55,
                sizeof dirty - offsetof(PlexaMediaProperties, chunkShift) - 4);
    EXPECT_EQ(check(dirty, h), "");

    Header other{};
    ASSERT_EQ(plexaCreateHeader(&g, other.data()), 0);
    EXPECT_NE(std::memcmp(h.data() + hdr::kGUID, other.data() + hdr::kGUID, 16), 0);

    CaptureStderr();
    EXPECT_EQ(plexaCreateHeader(nullptr, h.data()), -1);
    EXPECT_EQ(plexaCreateHeader(&g, nullptr), -1);
    PlexaMediaProperties forged = g;
    forged.chunkCount = 5000;  // would index past the chunk map
    EXPECT_EQ(plexaCheckHeader(&forged, h.data()), -1);
    EXPECT_EQ(
        GetCapturedStderr(),
        "plexa: NULL media properties\nplexa: NULL header buffer\nplexa: inconsistent media properties\n");
}

TEST(PlexaHeader, CRCAndValidation) {
    PlexaMediaProperties g = geometry();
    Header h{};
    ASSERT_EQ(plexaCreateHeader(&g, h.data()), 0);
    storeLE32(h.data() + hdr::kCRC, 0xDEADBEEF);  // the field counts as zero
    Header zeroed = h;
    storeLE32(zeroed.data() + hdr::kCRC, 0);
    const uint32_t expected = uint32_t(crc32(0, zeroed.data(), hdr::kSize));
    EXPECT_EQ(uint32_t(plexaSetHeaderCRC(h.data())), expected);
    EXPECT_EQ(loadLE32(h.data() + hdr::kCRC), expected);
    EXPECT_EQ(plexaValidateHeader(h.data()), 0);

    // A wrong CRC is reported, and the field now holds the computed one.
    h[3000] ^= 1;
    EXPECT_EQ(plexaValidateHeader(h.data()), -1);
    EXPECT_EQ(plexaValidateHeader(h.data()), 0);

    Header plain = h;
    std::memcpy(plain.data(), hdr::kTypeWithoutCRC, 16);
    storeLE32(plain.data() + hdr::kCRC, 0x12345678);
    EXPECT_EQ(plexaSetHeaderCRC(plain.data()), 0);
    EXPECT_EQ(plexaValidateHeader(plain.data()), 0);
    EXPECT_EQ(loadLE32(plain.data() + hdr::kCRC), 0x12345678u);

    Header unknown{};
    EXPECT_EQ(plexaValidateHeader(unknown.data()), -2);
    EXPECT_EQ(plexaValidateHeader(nullptr), -1);
    EXPECT_EQ(plexaSetHeaderCRC(nullptr), -1);
}

class PlexaAcquire : public testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/plexa_acquire_XXXXXX";
        fd_ = mkstemp(path);
        ASSERT_GE(fd_, 0);
        unlink(path);
        g_ = geometry(64ull << 20);  // 64 KiB chunks: the backup sits at 60 KiB
    }
    void TearDown() override { close(fd_); }
    void put(const Header& h, off_t at) { ASSERT_EQ(pwrite(fd_, h.data(), h.size(), at), ssize_t(h.size())); }
    std::string acquire(int expected, Header& out) {
        CaptureStderr();
        EXPECT_EQ(plexaAcquireHeader(&g_, out.data(), fd_), expected);
        return GetCapturedStderr();
    }
    off_t backupAt() const { return off_t(g_.chunkSize - g_.blockSize); }

    int fd_ = -1;
    PlexaMediaProperties g_{};
};

TEST_F(PlexaAcquire, FallsBackToASoundBackupSilently) {
    ASSERT_EQ(ftruncate(fd_, off_t(g_.mediaSize)), 0);
    Header main = freshHeader(g_), backup = freshHeader(g_), out{};
    main[100] ^= 0xFF;  // CRC no longer matches
    put(main, 0);
    put(backup, backupAt());
    EXPECT_EQ(acquire(0, out), "");
    EXPECT_EQ(out, backup);

    // A sound main copy wins; the backup is never looked at.
    Header good = freshHeader(g_);
    put(good, 0);
    EXPECT_EQ(acquire(0, out), "");
    EXPECT_EQ(out, good);
}

TEST_F(PlexaAcquire, ReportsWhatItFound) {
    Header out{};
    EXPECT_EQ(acquire(-1, out),
              "plexa: failed to read main header\nplexa: failed to read backup header\n"
              "plexa: could not read media header\n");

    ASSERT_EQ(ftruncate(fd_, off_t(g_.mediaSize)), 0);
    EXPECT_EQ(acquire(-1, out), "plexa: media header not found or not supported\n");

    Header bad = freshHeader(g_);
    bad[200] ^= 1;
    put(bad, backupAt());
    EXPECT_EQ(acquire(-1, out), "plexa: media header corrupt\n");

    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    CaptureStderr();
    EXPECT_EQ(plexaAcquireHeader(&g_, out.data(), pipeFds[0]), -1);
    EXPECT_EQ(GetCapturedStderr(), "plexa: block size acquisition error\n");
    close(pipeFds[0]);
    close(pipeFds[1]);
}

// Partition 0 holds 5 chunks, partition 1 two and a half, spread at random.
class PlexaMap : public testing::Test {
  protected:
    void SetUp() override {
        std::mt19937_64 rng(2);
        good_ =
            *consistentHeader(g_, {{base_, base_ + 5 * cs_}, {base_ + 6 * cs_, base_ + 8 * cs_ + 4096}}, rng);
        ASSERT_EQ(check(g_, good_), "");
    }
    uint32_t entryOf(const Header& h, uint16_t key) {
        for (uint32_t i = 1; i < g_.chunkCount; i++)
            if (hdr::chunkEntry(h.data(), i) == key) return i;
        return 0;
    }
    // The reclaim lines for `keys`, in chunk map order.
    std::string reclaimed(const Header& h, std::initializer_list<uint16_t> keys, const char* line) {
        std::string out;
        for (uint32_t i = 1; i < g_.chunkCount; i++)
            for (uint16_t k : keys)
                if (hdr::chunkEntry(h.data(), i) == k) out += format(line, i);
        return out;
    }

    PlexaMediaProperties g_ = geometry();
    const uint64_t base_ = 16384 + 8192, cs_ = g_.chunkSize;
    Header good_{};
};

TEST_F(PlexaMap, CheckNamesTheFirstViolation) {
    const uint64_t base = base_, cs = cs_;
    const uint32_t spare = entryOf(good_, hdr::kChunkFree);

    struct Case {
        std::string message;
        std::function<void(Header&)> mutate;
    };
    const std::vector<Case> cases = {
        {"plexa: media header mismatch\n", [](Header& h) { h[0] ^= 1; }},
        {"plexa: media size mismatch\n", [](Header& h) { h[hdr::kMediaSize] ^= 1; }},
        {"plexa: illegal partition count\n",
         [](Header& h) { storeLE32(h.data() + hdr::kPartitionCount, 9); }},
        {"plexa: partition 1 has type zero\n", [](Header& h) { std::memset(rec(h, 1), 0, 16); }},
        {"plexa: partition 0 has identity zero\n", [](Header& h) { std::memset(rec(h, 0) + 16, 0, 16); }},
        {"plexa: partition 0 starts too low\n",
         [&](Header& h) { setRange(h, 0, base - 4096, base + 5 * cs); }},
        {"plexa: partition 1 ends too high\n",
         [&](Header& h) { setRange(h, 1, base + 6 * cs, base + g_.partitionSpace + 4096); }},
        {"plexa: partition 1 start/end not in order\n",
         [&](Header& h) { setRange(h, 1, base + 6 * cs, base + 6 * cs); }},
        {"plexa: partition 1 start/end not block aligned\n",
         [&](Header& h) { setRange(h, 1, base + 6 * cs, base + 8 * cs + 512); }},
        {"plexa: partition 1 overlaps partition 0\n",
         [&](Header& h) { setRange(h, 1, base + 4 * cs, base + 7 * cs); }},
        {"plexa: partition 1 missing chunk 0x0002\n",
         [&](Header& h) { hdr::setChunkEntry(h.data(), entryOf(h, 0x1002), hdr::kChunkFree); }},
        // A chunk held twice is reported the same way.
        {"plexa: partition 0 missing chunk 0x0001\n",
         [&](Header& h) { hdr::setChunkEntry(h.data(), spare, 0x0001); }},
        // Two bad partitions: the lower one is named.
        {"plexa: partition 0 has type zero\n",
         [&](Header& h) {
             std::memset(rec(h, 1), 0, 16);
             std::memset(rec(h, 0), 0, 16);
         }},
        {"plexa: partition 5 orphaned\n", [](Header& h) { rec(h, 5)[hdr::kRecordEnd] = 1; }},
        {"plexa: chunk zero not marked reserved\n",
         [](Header& h) { hdr::setChunkEntry(h.data(), 0, 0xF111); }},
        {format("plexa: chunk 0x%04x claims nonexistent partition (0x2000)\n", spare),
         [&](Header& h) { hdr::setChunkEntry(h.data(), spare, 0x2000); }},
        {format("plexa: chunk 0x%04x assigned to invalid partition offset (0x0005)\n", spare),
         [&](Header& h) { hdr::setChunkEntry(h.data(), spare, 0x0005); }},
        // Bits 10 and 11 of an entry are never part of a valid offset.
        {format("plexa: chunk 0x%04x assigned to invalid partition offset (0x0c00)\n", spare),
         [&](Header& h) { hdr::setChunkEntry(h.data(), spare, 0x0C00); }},
        {"plexa: chunk 0x03d0 not invalid (0x0000)\n",
         [](Header& h) { hdr::setChunkEntry(h.data(), 976, 0); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        Header h = good_;
        c.mutate(h);
        EXPECT_EQ(check(g_, h), c.message);
    }
}

TEST_F(PlexaMap, RepairDeletesFromTheFirstBadPartitionOn) {
    Header h = good_;
    setRange(h, 1, base_ + cs_, base_ + 3 * cs_);  // inside partition 0
    Header strict = h;
    EXPECT_EQ(repair(g_, strict, 1, -1),
              "plexa: partition 1 out of order or overlapping\nplexa: partition table corrupt\n");

    EXPECT_EQ(repair(g_, h, 0, 0),
              "plexa: partition 1 out of order or overlapping\n"
              "plexa: deleting partition(s) and fixing partition count\n" +
                  reclaimed(good_, {0x1000, 0x1001, 0x1002},
                            "plexa: reclaiming chunk 0x%04x not assigned to valid partition\n"));
    EXPECT_EQ(loadLE32(h.data() + hdr::kPartitionCount), 1u);
    EXPECT_EQ(std::memcmp(hdr::record(h.data(), 0), hdr::record(good_.data(), 0), hdr::kRecordSize), 0);
    EXPECT_TRUE(isAllZero(hdr::record(h.data(), 1), 7 * hdr::kRecordSize));
    EXPECT_EQ(check(g_, h), "");

    // Without its first chunk a partition can't be kept at all.
    h = good_;
    hdr::setChunkEntry(h.data(), entryOf(h, 0x1000), hdr::kChunkFree);
    EXPECT_EQ(repair(g_, h, 0, 0),
              "plexa: deleting partition(s) and fixing partition count\n" +
                  reclaimed(h, {0x1001, 0x1002},
                            "plexa: reclaiming chunk 0x%04x not assigned to valid partition\n"));
    EXPECT_EQ(loadLE32(h.data() + hdr::kPartitionCount), 1u);
}

TEST_F(PlexaMap, RepairTruncatesAtTheFirstGapOnly) {
    Header h = good_;
    hdr::setChunkEntry(h.data(), entryOf(h, 0x0001), hdr::kChunkFree);
    hdr::setChunkEntry(h.data(), entryOf(h, 0x0003), hdr::kChunkFree);
    Header strict = h;
    EXPECT_EQ(repair(g_, strict, 1, -1), "plexa: partition 0 missing chunk 0x0001\n");

    EXPECT_EQ(
        repair(g_, h, 0, 0),
        "plexa: truncated partition 0\n" +
            reclaimed(h, {0x0002, 0x0004}, "plexa: reclaiming chunk 0x%04x off the end of partition 0\n"));
    // The later gap at offset 3 must not move the end back out.
    EXPECT_EQ(loadLE64(rec(h, 0) + hdr::kRecordEnd), base_ + cs_);
    EXPECT_EQ(loadLE32(h.data() + hdr::kPartitionCount), 2u);
    EXPECT_EQ(check(g_, h), "");
}

TEST_F(PlexaMap, RepairDuplicatesAreFreedOrRefused) {
    Header h = good_;
    const uint32_t spare = entryOf(h, hdr::kChunkFree);
    hdr::setChunkEntry(h.data(), spare, 0x1001);
    Header strict = h;
    EXPECT_EQ(repair(g_, strict, 1, -1), "plexa: partition 1 duplicate chunk 0x0001\n");
    EXPECT_EQ(repair(g_, h, 0, 0), "");
    EXPECT_EQ(check(g_, h), "");
    EXPECT_EQ(hdr::chunkEntry(h.data(), std::min(spare, entryOf(good_, 0x1001))), 0x1001);
}

TEST_F(PlexaMap, RepairHeaderFields) {
    Header h = good_;
    storeLE64(h.data() + hdr::kMediaSize, g_.mediaSize - 4096);
    EXPECT_EQ(repair(g_, h, 1, 0), "plexa: adjusting header media size\n");
    EXPECT_EQ(loadLE64(h.data() + hdr::kMediaSize), g_.mediaSize);

    storeLE64(h.data() + hdr::kMediaSize, g_.mediaSize + 4096);
    EXPECT_EQ(repair(g_, h, 1, -1), "plexa: media size smaller than required by header\n");
    EXPECT_EQ(repair(g_, h, 0, 0), "plexa: adjusting header media size\n");

    storeLE32(h.data() + hdr::kPartitionCount, 9);
    hdr::setChunkEntry(h.data(), 0, 0);
    EXPECT_EQ(repair(g_, h, 0, 0),
              "plexa: fixing illegal partition count\nplexa: found null partition type/identity\n"
              "plexa: deleting partition(s) and fixing partition count\nplexa: fixing chunk0 assignment\n");
    EXPECT_EQ(loadLE32(h.data() + hdr::kPartitionCount), 2u);
    EXPECT_EQ(check(g_, h), "");

    h[0] ^= 1;
    EXPECT_EQ(repair(g_, h, 0, -1), "plexa: media header mismatch\n");
}

TEST(PlexaChunkLookup, FindsThePhysicalChunk) {
    PlexaMediaProperties g = geometry();
    const Header h = freshHeader(g);
    uint16_t chunk = 0;
    ASSERT_EQ(plexaChunkContainingPartitionByte(&g, h.data(), 0, 0, &chunk), 0);
    EXPECT_EQ(chunk, 1);
    ASSERT_EQ(plexaChunkContainingPartitionByte(&g, h.data(), 0, 5ull * g.chunkSize + 17, &chunk), 0);
    EXPECT_EQ(chunk, 6);
    ASSERT_EQ(plexaChunkContainingPartitionBlock(&g, h.data(), 0, 2048, &chunk), 0);  // 8 MiB in
    EXPECT_EQ(chunk, 3);
    EXPECT_EQ(plexaChunkContainingPartitionByte(&g, h.data(), 0, g.partitionSpace, &chunk), -1);
    EXPECT_EQ(plexaChunkContainingPartitionByte(&g, h.data(), 1, 0, &chunk), -1);
    EXPECT_EQ(plexaChunkContainingPartitionByte(&g, h.data(), 8, 0, &chunk), -1);
    EXPECT_EQ(plexaChunkContainingPartitionBlock(&g, h.data(), 0, UINT64_MAX / 2, &chunk), -1);
    EXPECT_EQ(plexaChunkContainingPartitionByte(&g, h.data(), 0, 0, nullptr), -1);
}

// Random consistent headers (partitions in address order, as the volume
// manager lays them out) over random geometries: the check accepts them, a
// repair of either kind changes no byte and says nothing, and every byte of a
// partition is found in the chunk that holds its key.
TEST(PlexaHeaderProperty, ConsistentHeadersSurviveRepairUnchanged) {
    std::mt19937_64 rng(0x5A5A);
    int tried = 0;
    for (int round = 0; round < 2000; round++) {
        const uint32_t blockSize = 4096u << (rng() % 3);
        const uint64_t mediaSize = uint64_t(blockSize) * 1024 + rng() % (1ull << 40);
        PlexaMediaProperties g{};
        ASSERT_EQ(plexaInitMediaGeometry(&g, mediaSize, blockSize), 0);
        SCOPED_TRACE("round " + std::to_string(round));

        const Header fresh = freshHeader(g);
        ASSERT_EQ(check(g, fresh), "");

        const uint64_t base = 16384 + 2ull * blockSize, blocks = g.partitionSpace / blockSize;
        std::vector<uint64_t> cuts;
        for (size_t k = 2 * (rng() % 9); k > 0; k--)
            cuts.push_back(base + (rng() % (blocks + 1)) * blockSize);
        std::sort(cuts.begin(), cuts.end());
        cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
        std::vector<std::pair<uint64_t, uint64_t>> ranges;
        for (size_t i = 0; i + 1 < cuts.size(); i += 2) ranges.push_back({cuts[i], cuts[i + 1]});
        std::optional<Header> h = consistentHeader(g, ranges, rng);
        if (!h) continue;
        tried++;
        ASSERT_EQ(check(g, *h), "");
        for (int strict : {0, 1}) {
            Header copy = *h;
            ASSERT_EQ(repair(g, copy, strict, 0), "");
            ASSERT_EQ(copy, *h);
        }
        for (size_t p = 0; p < ranges.size(); p++) {
            const uint64_t offset = rng() % (ranges[p].second - ranges[p].first);
            uint16_t chunk = 0;
            ASSERT_EQ(plexaChunkContainingPartitionByte(&g, h->data(), int(p), offset, &chunk), 0);
            ASSERT_EQ(hdr::chunkEntry(h->data(), chunk), uint16_t(p << 12 | offset >> g.chunkShift));
        }
    }
    EXPECT_GT(tried, 1500);
}

}  // namespace
