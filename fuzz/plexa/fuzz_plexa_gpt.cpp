// Random GPT views and adjustments. Beyond memory safety (the header image and
// the table are heap buffers of their exact sizes), a successful adjustment
// must match a plain model: the entries in use keep their slots (shifted down
// past a deleted one) and their sizes (but the adjusted one), and are packed
// back to back from the first usable block in the order of their old first
// blocks, ties in slot order, ending inside the usable range.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "fuzz/plexa/fuzz_quiet.h"
#include "storage/plexa.h"
#include "storage/plexa_format.h"

using namespace qvl::plexa;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceLibraryMessages();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kFixed = gpt::kHeaderSize + gpt::kTableSize + 1 + 8 + 2;
    if (size < kFixed) return 0;
    auto header = std::make_unique<uint8_t[]>(gpt::kHeaderSize);
    auto table = std::make_unique<uint8_t[]>(gpt::kTableSize);
    std::memcpy(header.get(), data, gpt::kHeaderSize);
    std::memcpy(table.get(), data + gpt::kHeaderSize, gpt::kTableSize);
    const uint8_t* rest = data + gpt::kHeaderSize + gpt::kTableSize;
    const int index = int(int8_t(rest[0]));
    const uint64_t newSize = loadLE64(rest + 1);
    PlexaMediaProperties g{};
    g.blockSize = loadLE16(rest + 9);  // only the block size is read

    // The model, from the view before the call.
    struct Item {
        uint64_t first, length;
    };
    const uint32_t before = loadLE32(header.get() + gpt::kEntryCount);
    std::vector<Item> model;
    for (uint32_t i = 0; i < before && i < gpt::kMaxEntries; i++) {
        const uint8_t* e = table.get() + i * gpt::kEntrySize;
        model.push_back({loadLE64(e + gpt::kFirstLBA), loadLE64(e + gpt::kLastLBA) - loadLE64(e + gpt::kFirstLBA)});
    }
    const uint64_t firstUsable = loadLE64(header.get() + gpt::kFirstUsableLBA);
    const uint64_t lastUsable = loadLE64(header.get() + gpt::kLastUsableLBA);

    if (plexaAdjustPartition(&g, header.get(), table.get(), index, newSize) != 0) return 0;
    const uint64_t blocks = g.blockSize ? newSize / g.blockSize + (newSize % g.blockSize != 0) : 0;
    if (size_t(index) == model.size())
        model.push_back({lastUsable + 1, blocks - 1});
    else if (blocks == 0)
        model.erase(model.begin() + index);
    else
        model[size_t(index)].length = blocks - 1;
    std::vector<size_t> order(model.size());
    for (size_t i = 0; i < order.size(); i++) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return model[a].first < model[b].first; });
    uint64_t at = firstUsable;
    for (size_t k : order) model[k].first = at, at += model[k].length + 1;
    if (loadLE32(header.get() + gpt::kEntryCount) != model.size()) abort();
    for (size_t i = 0; i < model.size(); i++) {
        const uint8_t* e = table.get() + i * gpt::kEntrySize;
        if (loadLE64(e + gpt::kFirstLBA) != model[i].first ||
            loadLE64(e + gpt::kLastLBA) != model[i].first + model[i].length)
            abort();
    }
    const uint32_t count = loadLE32(header.get() + gpt::kEntryCount);
    if (count > gpt::kMaxEntries) abort();
    std::pair<uint64_t, uint64_t> spans[gpt::kMaxEntries];
    for (uint32_t i = 0; i < count; i++) {
        const uint8_t* e = table.get() + i * gpt::kEntrySize;
        spans[i] = {loadLE64(e + gpt::kFirstLBA), loadLE64(e + gpt::kLastLBA)};
    }
    std::sort(spans, spans + count);
    uint64_t next = loadLE64(header.get() + gpt::kFirstUsableLBA);
    for (uint32_t i = 0; i < count; i++) {
        if (spans[i].first != next || spans[i].second < spans[i].first) abort();
        next = spans[i].second + 1;
    }
    if (count && spans[count - 1].second > loadLE64(header.get() + gpt::kLastUsableLBA)) abort();
    return 0;
}
