#include "tools/plexactl/DeviceImageCommands.h"

#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <set>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "storage/plexa.h"
#include "storage/plexa_device.h"
#include "storage/plexa_format.h"
#include "tools/plexactl/GptCommands.h"
#include "tools/plexactl/Image.h"
#include "tools/plexactl/Text.h"

namespace qvl::plexactl {

namespace gpt = qvl::plexa::gpt;
using qvl::plexa::storeLE16;
using qvl::plexa::storeLE32;
using qvl::plexa::storeLE64;

namespace {

constexpr uint64_t kBlock = qvl::plexa::kImageBlockSize;
// As on a GPT disk of 4096-byte sectors: the entry array takes blocks 2 to 5
// and the last 5 blocks are left for a backup, which the view does not keep.
constexpr uint64_t kFirstUsable = 6;
constexpr uint64_t kReservedAtEnd = 5;
constexpr size_t kMaxNameLength = gpt::kNameSize / 2;

struct Placed {
    PartitionRequest request;
    uint64_t first = 0, last = 0;
    uint8_t unique[16] = {};  // big-endian
};

// The volume manager's names are ASCII; ":" separates the fields.
bool validName(const std::string& name) {
    if (name.empty() || name.size() > kMaxNameLength) return false;
    for (char c : name)
        if (c < 0x20 || c > 0x7E || c == ':') return false;
    return true;
}

std::string mountPointFor(const std::string& name) {
    if (name == "System") return "/";
    if (name == "Data") return "/private/var";
    return "/mnt/" + name;
}

std::optional<std::vector<Placed>> place(const std::vector<PartitionRequest>& requests, uint64_t blocks) {
    std::vector<Placed> placed;
    std::set<std::string> names;
    const uint64_t lastUsable = blocks - 1 - kReservedAtEnd;
    uint64_t next = kFirstUsable;
    for (const PartitionRequest& request : requests) {
        if (!names.insert(request.name).second) {
            complain("partition name '%s' given twice", request.name.c_str());
            return std::nullopt;
        }
        const uint64_t length = request.size / kBlock + (request.size % kBlock != 0);
        if (length > lastUsable + 1 - next) {
            complain("partition '%s' does not fit: blocks %llu to %llu are usable", request.name.c_str(),
                     (unsigned long long)kFirstUsable, (unsigned long long)lastUsable);
            return std::nullopt;
        }
        Placed p{request, next, next + length - 1, {}};
        if (!qvl::plexa::randomUUID(p.unique)) {
            complain("cannot generate a partition GUID");
            return std::nullopt;
        }
        placed.push_back(p);
        next += length;
    }
    return placed;
}

void writeMBR(uint8_t* mbr, uint64_t blocks) {
    storeLE32(mbr + gpt::kMBRSignatureOffset, gpt::kMBRSignature);
    // One protective entry of type 0xEE over the whole disk.
    uint8_t* entry = mbr + 446;
    static constexpr uint8_t kProtective[8] = {0x00, 0x00, 0x02, 0x00, 0xEE, 0xFF, 0xFF, 0xFF};
    std::memcpy(entry, kProtective, sizeof kProtective);
    storeLE32(entry + 8, 1);
    storeLE32(entry + 12, uint32_t(std::min<uint64_t>(blocks - 1, UINT32_MAX)));
    mbr[510] = 0x55;
    mbr[511] = 0xAA;
}

void writeEntry(uint8_t* e, const Placed& p) {
    qvl::plexa::guidSwapByteOrder(qvl::plexa::kHFSPlusType, e + gpt::kTypeGUID);
    qvl::plexa::guidSwapByteOrder(p.unique, e + gpt::kUniqueGUID);
    storeLE64(e + gpt::kFirstLBA, p.first);
    storeLE64(e + gpt::kLastLBA, p.last);
    for (size_t i = 0; i < p.request.name.size(); i++)
        storeLE16(e + gpt::kName + 2 * i, uint8_t(p.request.name[i]));
}

// A standard GPT header whose entry count is the number of partitions in
// use, as the volume manager's view counts them; the CRCs cover that many
// entries.
bool writeHeader(uint8_t* h, const uint8_t* table, uint32_t count, uint64_t blocks) {
    uint8_t diskGuid[16];
    if (!qvl::plexa::randomUUID(diskGuid)) return false;
    std::memcpy(h, "EFI PART", 8);
    storeLE32(h + 8, 0x00010000);
    storeLE32(h + 12, uint32_t(gpt::kHeaderSize));
    storeLE64(h + 24, 1);
    storeLE64(h + 32, blocks - 1);
    storeLE64(h + gpt::kFirstUsableLBA, kFirstUsable);
    storeLE64(h + gpt::kLastUsableLBA, blocks - 1 - kReservedAtEnd);
    qvl::plexa::guidSwapByteOrder(diskGuid, h + 56);
    storeLE64(h + 72, 2);
    storeLE32(h + gpt::kEntryCount, count);
    storeLE32(h + 84, uint32_t(gpt::kEntrySize));
    storeLE32(h + 88, uint32_t(crc32(0, table, uInt(count * gpt::kEntrySize))));
    storeLE32(h + 16, uint32_t(crc32(0, h, uInt(gpt::kHeaderSize))));
    return true;
}

plist::Value volumesTable(const std::vector<Placed>& placed) {
    plist::Array volumes;
    for (size_t i = 0; i < placed.size(); i++) {
        const Placed& p = placed[i];
        plist::Dictionary v;
        v.set("FSTypeName", plist::Value("hfs"));
        v.set("MountedFrom", plist::Value("/dev/disk0s1s" + std::to_string(i + 1)));
        v.set("MountedOn", plist::Value(mountPointFor(p.request.name)));
        v.set("UUID", plist::Value(qvl::plexa::guidText(p.unique)));
        v.set("Size", plist::Value(int64_t((p.last - p.first + 1) * kBlock)));
        v.set("Used", plist::Value(int64_t(p.request.used)));
        volumes.push_back(plist::Value(std::move(v)));
    }
    return plist::Value(std::move(volumes));
}

}  // namespace

std::optional<PartitionRequest> parsePartitionRequest(std::string_view text) {
    const size_t colon = text.find(':');
    const size_t second = colon == std::string_view::npos ? colon : text.find(':', colon + 1);
    PartitionRequest request;
    request.name = std::string(text.substr(0, colon));
    std::optional<uint64_t> size, used = uint64_t(0);
    if (colon != std::string_view::npos) size = parseSize(text.substr(colon + 1, second - colon - 1));
    if (second != std::string_view::npos) used = parseSize(text.substr(second + 1));
    if (!validName(request.name) || !size || *size == 0 || !used || *used > *size ||
        *size > uint64_t(INT64_MAX)) {
        complain(
            "invalid partition '%.*s' (NAME:SIZE[:USED], an ASCII name of up to %zu characters without ':',"
            " USED no more than SIZE)",
            int(text.size()), text.data(), kMaxNameLength);
        return std::nullopt;
    }
    request.size = *size;
    request.used = *used;
    return request;
}

std::string volumesPathFor(const std::string& image) {
    return image + ".volumes.plist";
}

int deviceImageCreate(const std::string& path, uint64_t size,
                      const std::vector<PartitionRequest>& partitions) {
    if (partitions.empty() || partitions.size() > gpt::kMaxEntries || size % kBlock != 0) {
        complain("an image holds 1 to %zu partitions and a whole number of %llu-byte blocks",
                 gpt::kMaxEntries, (unsigned long long)kBlock);
        return 1;
    }
    PlexaMediaProperties geometry{};
    // The library prints why it refuses.
    if (plexaInitMediaGeometry(&geometry, size, uint32_t(kBlock)) != 0) return 1;
    const uint64_t blocks = size / kBlock;
    if (blocks <= kFirstUsable + kReservedAtEnd) {
        complain("%llu bytes leave no usable block", (unsigned long long)size);
        return 1;
    }
    std::optional<std::vector<Placed>> placed = place(partitions, blocks);
    if (!placed) return 1;

    std::vector<uint8_t> start(3 * kBlock, 0);
    writeMBR(start.data(), blocks);
    uint8_t* table = start.data() + 2 * kBlock;
    for (size_t i = 0; i < placed->size(); i++) writeEntry(table + i * gpt::kEntrySize, (*placed)[i]);
    if (!writeHeader(start.data() + kBlock, table, uint32_t(placed->size()), blocks)) {
        complain("cannot generate a disk GUID");
        return 1;
    }

    {
        std::optional<Image> image = Image::create(path, size);
        if (!image) return 1;
        if (!image->write(0, start.data(), start.size(), "the MBR and the GPT view") || !image->sync()) {
            unlink(path.c_str());
            return 1;
        }
    }
    std::string error;
    if (!qvl::platform::writePropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(),
                                              volumesPathFor(path), volumesTable(*placed), plist::Format::XML,
                                              &error)) {
        complain("%s: %s", volumesPathFor(path).c_str(), error.c_str());
        unlink(path.c_str());
        return 1;
    }
    if (gptShow(path) != 0) return 1;
    std::printf("Volumes file:       %s\n", volumesPathFor(path).c_str());
    for (const Placed& p : *placed)
        std::printf("  %-12s on %-16s size %llu, used %llu\n", p.request.name.c_str(),
                    mountPointFor(p.request.name).c_str(),
                    (unsigned long long)((p.last - p.first + 1) * kBlock),
                    (unsigned long long)p.request.used);
    return 0;
}

}  // namespace qvl::plexactl
