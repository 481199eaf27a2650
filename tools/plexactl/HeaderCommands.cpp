#include "tools/plexactl/HeaderCommands.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <vector>

#include "storage/plexa.h"
#include "storage/plexa_format.h"
#include "tools/plexactl/Image.h"
#include "tools/plexactl/Text.h"

namespace qvl::plexactl {

namespace hdr = qvl::plexa::header;
using qvl::plexa::loadLE32;
using qvl::plexa::loadLE64;

namespace {

using Header = std::array<uint8_t, hdr::kSize>;

// An open image with its geometry and room for a header and its backup.
struct Volume {
    Image image;
    PlexaMediaProperties geometry;

    uint64_t backupOffset() const { return geometry.chunkSize - geometry.blockSize; }
};

std::optional<Volume> openVolume(const std::string& path, bool writable) {
    std::optional<Image> image = Image::open(path, writable);
    if (!image) return std::nullopt;
    PlexaMediaProperties geometry{};
    if (plexaInitMediaGeometry(&geometry, image->mediaSize(), image->blockSize()) != 0) return std::nullopt;
    // Chunk 0 holds the main copy at its start and the backup in its last
    // block; they must not be the same block.
    if (geometry.chunkSize < 2 * uint64_t(geometry.blockSize)) {
        complain("%s: too small for a volume header and its backup (chunks of %u bytes)", path.c_str(),
                 geometry.chunkSize);
        return std::nullopt;
    }
    return Volume{std::move(*image), geometry};
}

std::optional<Header> acquire(const Volume& volume) {
    Header h{};
    // The library prints why nothing usable was found.
    if (plexaAcquireHeader(&volume.geometry, h.data(), volume.image.fd()) != 0) return std::nullopt;
    return h;
}

bool writeBothCopies(const Volume& volume, const Header& h) {
    return volume.image.write(0, h.data(), h.size(), "the main header") &&
           volume.image.write(volume.backupOffset(), h.data(), h.size(), "the backup header") &&
           volume.image.sync();
}

// True when the copy at `offset` is byte for byte `h`; unreadable counts as not.
bool copyMatches(const Volume& volume, uint64_t offset, const Header& h) {
    Header onDisk{};
    return volume.image.read(offset, onDisk.data(), onDisk.size(), "a header copy") && onDisk == h;
}

bool holdsSoundHeader(const Volume& volume) {
    for (uint64_t offset : {uint64_t(0), volume.backupOffset()}) {
        Header h{};
        if (volume.image.read(offset, h.data(), h.size(), "a header copy") &&
            plexaValidateHeader(h.data()) == 0)
            return true;
    }
    return false;
}

// The volume manager's mark in block 0 or a GPT header in block 1: the main
// header copy would land on both.
bool carriesGptView(const Volume& volume) {
    std::vector<uint8_t> block(2 * size_t(volume.image.blockSize()));
    if (!volume.image.read(0, block.data(), block.size(), "blocks 0 and 1")) return false;
    return loadLE32(block.data() + qvl::plexa::gpt::kMBRSignatureOffset) == qvl::plexa::gpt::kMBRSignature ||
           std::memcmp(block.data() + volume.image.blockSize(), "EFI PART", 8) == 0;
}

std::string uuid(const uint8_t* p) {
    return qvl::plexa::guidText(p);
}

void printChunkMap(const Header& h, const PlexaMediaProperties& g) {
    unsigned reserved = 0, free = 0, invalid = 0, other = 0;
    unsigned perPartition[hdr::kMaxPartitions] = {};
    for (size_t i = 0; i < hdr::kChunkMapEntries; i++) {
        const uint16_t e = hdr::chunkEntry(h.data(), i);
        if (e == hdr::kChunkReserved)
            reserved++;
        else if (e == hdr::kChunkFree)
            free++;
        else if (e == hdr::kChunkInvalid)
            invalid++;
        else if ((e >> 12) < hdr::kMaxPartitions)
            perPartition[e >> 12]++;
        else
            other++;
    }
    std::printf("Chunks:           %u of %u bytes; %u reserved, %u free, %u invalid", g.chunkCount,
                g.chunkSize, reserved, free, invalid);
    for (size_t p = 0; p < hdr::kMaxPartitions; p++)
        if (perPartition[p]) std::printf(", %u to partition %zu", perPartition[p], p);
    if (other) std::printf(", %u unrecognised", other);
    std::printf("\n");
}

void printHeader(const Header& h, const PlexaMediaProperties& g) {
    const bool withCRC = std::memcmp(h.data(), hdr::kTypeWithCRC, 16) == 0;
    std::printf("Type:             %s (%s)\n", uuid(h.data()).c_str(), withCRC ? "with CRC" : "without CRC");
    std::printf("Header GUID:      %s\n", uuid(h.data() + hdr::kGUID).c_str());
    std::printf("Media size:       %" PRIu64 "\n", loadLE64(h.data() + hdr::kMediaSize));
    if (withCRC) std::printf("CRC:              0x%08x\n", loadLE32(h.data() + hdr::kCRC));
    std::printf("Flags:            0x%08x 0x%08x\n", loadLE32(h.data() + hdr::kFlags0),
                loadLE32(h.data() + hdr::kFlags1));
    const uint32_t count = loadLE32(h.data() + hdr::kPartitionCount);
    std::printf("Partitions:       %u\n", count);
    for (size_t p = 0; p < std::min<size_t>(count, hdr::kMaxPartitions); p++) {
        const uint8_t* r = hdr::record(h.data(), p);
        const uint64_t start = loadLE64(r + hdr::kRecordStart), end = loadLE64(r + hdr::kRecordEnd);
        std::printf("  %zu  bytes %" PRIu64 "-%" PRIu64 " (%" PRIu64 ")  type %s  identity %s  name \"%s\"\n",
                    p, start, end, end > start ? end - start : 0, uuid(r + hdr::kRecordType).c_str(),
                    uuid(r + hdr::kRecordIdentity).c_str(),
                    utf16leName(r + hdr::kRecordName, hdr::kRecordNameSize).c_str());
    }
    printChunkMap(h, g);
}

}  // namespace

int headerCreate(const std::string& path, bool force) {
    std::optional<Volume> volume = openVolume(path, true);
    if (!volume) return 1;
    if (!force && holdsSoundHeader(*volume)) {
        complain("%s: already holds a volume header (--force replaces it)", path.c_str());
        return 1;
    }
    if (!force && carriesGptView(*volume)) {
        complain("%s: carries a GPT view that the header would overwrite (--force writes it anyway)",
                 path.c_str());
        return 1;
    }
    Header h{};
    if (plexaCreateHeader(&volume->geometry, h.data()) != 0) return 1;
    plexaSetHeaderCRC(h.data());
    if (!writeBothCopies(*volume, h)) return 1;
    printHeader(h, volume->geometry);
    return 0;
}

int headerShow(const std::string& path) {
    std::optional<Volume> volume = openVolume(path, false);
    if (!volume) return 1;
    std::optional<Header> h = acquire(*volume);
    if (!h) return 1;
    printHeader(*h, volume->geometry);
    return 0;
}

int headerCheck(const std::string& path) {
    std::optional<Volume> volume = openVolume(path, false);
    if (!volume) return 1;
    std::optional<Header> h = acquire(*volume);
    if (!h || plexaCheckHeader(&volume->geometry, h->data()) != 0) return 1;
    std::printf("%s: volume header consistent\n", path.c_str());
    return 0;
}

int headerRepair(const std::string& path, bool strict) {
    std::optional<Volume> volume = openVolume(path, true);
    if (!volume) return 1;
    std::optional<Header> h = acquire(*volume);
    if (!h) return 1;
    // A refused repair may have changed the buffer part way; it is dropped.
    if (plexaRepairHeader(&volume->geometry, h->data(), strict ? 1 : 0) != 0) return 1;
    plexaSetHeaderCRC(h->data());
    if (copyMatches(*volume, 0, *h) && copyMatches(*volume, volume->backupOffset(), *h)) {
        std::printf("%s: nothing to repair\n", path.c_str());
        return 0;
    }
    if (!writeBothCopies(*volume, *h)) return 1;
    std::printf("%s: repaired, both header copies written\n", path.c_str());
    return 0;
}

}  // namespace qvl::plexactl
