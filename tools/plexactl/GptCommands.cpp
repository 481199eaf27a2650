#include "tools/plexactl/GptCommands.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <vector>

#include "storage/plexa.h"
#include "storage/plexa_format.h"
#include "tools/plexactl/Image.h"
#include "tools/plexactl/Text.h"

namespace qvl::plexactl {

namespace gpt = qvl::plexa::gpt;
using qvl::plexa::loadLE32;
using qvl::plexa::loadLE64;

namespace {

struct View {
    bool managed = false;  // the volume manager's signature is in the MBR
    std::array<uint8_t, gpt::kHeaderSize> header{};
    std::array<uint8_t, gpt::kTableSize> table{};
};

std::optional<View> readView(const Image& image) {
    const size_t block = image.blockSize();
    std::vector<uint8_t> buffer(2 * block);
    View view;
    if (!image.read(0, buffer.data(), block, "the protective MBR")) return std::nullopt;
    view.managed = loadLE32(buffer.data() + gpt::kMBRSignatureOffset) == gpt::kMBRSignature;
    if (!image.read(block, buffer.data(), 2 * block, "the GPT header and table")) return std::nullopt;
    // The volume manager's mark makes blocks 1 and 2 its view whatever they
    // hold, as the resize driver reads them; without it there must be a GPT.
    if (!view.managed && std::memcmp(buffer.data(), "EFI PART", 8) != 0) {
        complain("%s: no GPT header in block 1", image.path().c_str());
        return std::nullopt;
    }
    std::memcpy(view.header.data(), buffer.data(), gpt::kHeaderSize);
    std::memcpy(view.table.data(), buffer.data() + block, gpt::kTableSize);
    return view;
}

// The header image at the start of block 1 and the table at the start of
// block 2, the rest of both blocks zero: what the resize driver writes.
bool writeView(const Image& image, const View& view) {
    const size_t block = image.blockSize();
    std::vector<uint8_t> buffer(2 * block, 0);
    std::memcpy(buffer.data(), view.header.data(), gpt::kHeaderSize);
    std::memcpy(buffer.data() + block, view.table.data(), gpt::kTableSize);
    return image.write(block, buffer.data(), buffer.size(), "the GPT header and table") && image.sync();
}

std::string gptOrderGUID(const uint8_t* stored) {
    uint8_t bigEndian[16];
    qvl::plexa::guidSwapByteOrder(stored, bigEndian);
    return qvl::plexa::guidText(bigEndian);
}

void printView(const Image& image, const View& view) {
    const uint32_t count = loadLE32(view.header.data() + gpt::kEntryCount);
    std::printf("Image:              %s\n", image.path().c_str());
    std::printf("Block size:         %u\n", image.blockSize());
    std::printf("Blocks:             %" PRIu64 "\n", image.mediaSize() / image.blockSize());
    std::printf("Plexa signature:    %s\n", view.managed ? "yes" : "no");
    std::printf("Usable LBAs:        %" PRIu64 " - %" PRIu64 "\n",
                loadLE64(view.header.data() + gpt::kFirstUsableLBA),
                loadLE64(view.header.data() + gpt::kLastUsableLBA));
    // In the view the count is the number of entries in use. A plain GPT
    // counts table slots instead; only the 8 slots of the view are shown.
    const bool plain = count > gpt::kMaxEntries;
    if (plain)
        std::printf("Partitions in use:  %u claimed; the view holds %zu, non-empty ones shown\n", count,
                    gpt::kMaxEntries);
    else
        std::printf("Partitions in use:  %u\n", count);
    std::printf("%-5s %12s %12s %12s  %-36s  %-36s  %s\n", "Index", "First LBA", "Last LBA", "Blocks",
                "Type GUID", "Unique GUID", "Name");
    for (size_t i = 0; i < std::min<size_t>(count, gpt::kMaxEntries); i++) {
        const uint8_t* e = view.table.data() + i * gpt::kEntrySize;
        if (plain && qvl::plexa::isAllZero(e + gpt::kTypeGUID, 16)) continue;
        const uint64_t first = loadLE64(e + gpt::kFirstLBA), last = loadLE64(e + gpt::kLastLBA);
        std::printf("%-5zu %12" PRIu64 " %12" PRIu64 " %12" PRIu64 "  %-36s  %-36s  %s\n", i, first, last,
                    last - first + 1, gptOrderGUID(e + gpt::kTypeGUID).c_str(),
                    gptOrderGUID(e + gpt::kUniqueGUID).c_str(),
                    utf16leName(e + gpt::kName, gpt::kNameSize).c_str());
    }
}

bool initGeometry(const Image& image, PlexaMediaProperties& geometry) {
    // The library prints why it refuses.
    return plexaInitMediaGeometry(&geometry, image.mediaSize(), image.blockSize()) == 0;
}

}  // namespace

int gptShow(const std::string& path) {
    std::optional<Image> image = Image::open(path, false);
    if (!image) return 1;
    std::optional<View> view = readView(*image);
    if (!view) return 1;
    printView(*image, *view);
    return 0;
}

int gptAdjust(const std::string& path, std::optional<int> index, uint64_t newSize) {
    std::optional<Image> image = Image::open(path, true);
    PlexaMediaProperties geometry{};
    if (!image || !initGeometry(*image, geometry)) return 1;
    std::optional<View> view = readView(*image);
    if (!view) return 1;
    // A plain GPT disk would lose its table beyond the eighth entry and its
    // CRCs would go stale: only the volume manager's own view is rewritten.
    if (!view->managed) {
        complain("%s: not managed by Plexa (no signature at byte %zu of block 0)", path.c_str(),
                 gpt::kMBRSignatureOffset);
        return 1;
    }
    const uint64_t first = loadLE64(view->header.data() + gpt::kFirstUsableLBA);
    const uint64_t last = loadLE64(view->header.data() + gpt::kLastUsableLBA);
    const uint64_t blocks = image->mediaSize() / image->blockSize();
    if (!gpt::usableRangeFits(first, last, blocks)) {
        complain("%s: usable blocks %" PRIu64 " to %" PRIu64 " lie outside blocks %" PRIu64 " to %" PRIu64
                 " of the disk",
                 path.c_str(), first, last, gpt::kLowestUsableLBA, blocks - 1);
        return 1;
    }
    const int slot =
        index ? *index : int(std::min<uint32_t>(loadLE32(view->header.data() + gpt::kEntryCount), INT32_MAX));
    if (plexaAdjustPartition(&geometry, view->header.data(), view->table.data(), slot, newSize) != 0)
        return 1;
    if (!writeView(*image, *view)) return 1;
    printView(*image, *view);
    return 0;
}

}  // namespace qvl::plexactl
