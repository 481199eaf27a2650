// Feeds arbitrary bytes to the frame decoder as a whole frame: header, then
// body. The encoding has one form per message, so whatever decodes must
// encode back to the very same bytes.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/zrp/ZRP.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace qvl::zrp;
    std::span<const uint8_t> input(data, size);
    std::span<const uint8_t> body = input;
    if (size >= kFrameHeaderSize) {
        std::optional<uint32_t> length = decodeFrameHeader(input.first(kFrameHeaderSize));
        if (length && *length <= size - kFrameHeaderSize) body = input.subspan(kFrameHeaderSize, *length);
    }
    std::optional<Dictionary> message = decodeFrameBody(body, {});
    if (!message) return 0;
    std::optional<EncodedFrame> frame = encodeFrame(*message);
    if (!frame) std::abort();
    std::span<const uint8_t> encoded = std::span<const uint8_t>(frame->bytes).subspan(kFrameHeaderSize);
    if (!std::equal(encoded.begin(), encoded.end(), body.begin(), body.end())) std::abort();
    return 0;
}
