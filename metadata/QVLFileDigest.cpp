#include "metadata/QVLFileDigest.h"

#include <openssl/evp.h>

#include <cerrno>
#include <memory>
#include <new>

#include "base/QVLLog.h"
#include "platform/fs/FileSystem.h"

namespace qvl {
namespace {

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

// Fetched once: an implicit fetch on every file costs more than hashing a
// small one.
const EVP_MD* sha1() {
    static EVP_MD* md = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    return md;
}

MdCtx startSHA1() {
    MdCtx ctx(EVP_MD_CTX_new());
    if (ctx && sha1() && EVP_DigestInit_ex(ctx.get(), sha1(), nullptr) == 1) return ctx;
    QVLLog("Cannot start a SHA-1 digest");
    return nullptr;
}

// The digest is sized exactly: a manifest holds one per file.
std::optional<plist::Data> finishSHA1(EVP_MD_CTX* ctx) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx, digest, &length) != 1 || length != kQVLDigestLength) return std::nullopt;
    return plist::Data(digest, digest + length);
}

}  // namespace

std::optional<plist::Data> fileHash(const std::string& path, platform::FileSystem& files) {
    uint64_t size = 0;
    const UniqueFd fd = files.openForReading(path, &size);
    if (!fd.valid()) {
        QVLLog("Cannot read file %@", path);
        return std::nullopt;
    }
    return fileHashOfOpenFile(fd.get(), size, path, files);
}

std::optional<plist::Data> fileHashOfOpenFile(int fd, uint64_t size, const std::string& path,
                                              platform::FileSystem& files, bool* fromDisk) {
    // Read-ahead advice only matters for a file of more than one piece; most
    // files of a device tree are smaller, and the call is not free.
    if (size > kQVLFileHashPieceSize) files.adviseReadOnce(fd);
    // One piece buffer and one digest context per thread, kept between files:
    // for a small file, allocating them costs as much as hashing it.
    thread_local std::unique_ptr<uint8_t[]> piece(new (std::nothrow) uint8_t[kQVLFileHashPieceSize]);
    thread_local MdCtx ctx(EVP_MD_CTX_new());
    if (!piece || !ctx || !sha1() || EVP_DigestInit_ex(ctx.get(), sha1(), nullptr) != 1) {
        QVLLog("Cannot read data from %@.", path);
        return std::nullopt;
    }
    off_t offset = 0;
    if (fromDisk) *fromDisk = false;
    for (;;) {
        ssize_t n = -1;
        if (fromDisk && offset == 0 && !*fromDisk) {
            n = files.readWithoutWaiting(fd, piece.get(), kQVLFileHashPieceSize);
            if (n < 0 && errno == EAGAIN) *fromDisk = true;
        }
        if (n < 0) n = files.read(fd, piece.get(), kQVLFileHashPieceSize);
        if (n < 0) {
            QVLLog("Cannot read data from %@.", path);
            return std::nullopt;
        }
        if (n == 0) break;
        EVP_DigestUpdate(ctx.get(), piece.get(), static_cast<size_t>(n));
        // A file that fits one piece and gave all the bytes it had when
        // opened is done: asking again for the end would cost a second read
        // for every small file. One that grew meanwhile is read on.
        if (offset == 0 && static_cast<uint64_t>(n) == size && size < kQVLFileHashPieceSize) break;
        offset += n;
    }
    std::optional<plist::Data> digest = finishSHA1(ctx.get());
    if (!digest) QVLLog("Cannot read data from %@.", path);
    return digest;
}

std::optional<plist::Data> directoryHash(const std::string&) {
    return std::nullopt;
}

std::optional<plist::Data> createFileDigest(const std::string& path, const std::string& algorithm,
                                            int64_t expectedSize, digestProgressHandler handler,
                                            void* context, platform::FileSystem& files) {
    if (algorithm != "SHA-1") {
        QVLLog("Unknown algorithm");
        return std::nullopt;
    }
    if (path.empty()) {
        QVLLog("Can't create URL %@", path);
        return std::nullopt;
    }
    const std::string location = "file://" + path;
    const UniqueFd fd = files.openForReading(path, nullptr);
    if (!fd.valid()) {
        QVLLog("Can't open read stream %@ *** %@", location, path);
        return std::nullopt;
    }
    if (handler) handler(context, 0.0f, -1.0f);
    MdCtx ctx = startSHA1();
    if (!ctx) return std::nullopt;
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kQVLFileDigestBufferSize]());
    if (!buffer) {
        QVLLog("Can't alloc buffer");
        return std::nullopt;
    }
    int64_t total = 0;
    // A read error counts as the end of the data: the bytes read so far are digested.
    for (ssize_t n; (n = files.read(fd.get(), buffer.get(), kQVLFileDigestBufferSize)) > 0;) {
        EVP_DigestUpdate(ctx.get(), buffer.get(), static_cast<size_t>(n));
        total += n;
        const float fraction =
            expectedSize != 0 ? static_cast<float>(total) / static_cast<float>(expectedSize) : -1.0f;
        if (!handler) continue;
        if (int status = handler(context, fraction, -1.0f); status != 0) {
            QVLLog("Progress handler returned with status %d; failing verification", status);
            return std::nullopt;
        }
    }
    std::optional<plist::Data> digest = finishSHA1(ctx.get());
    if (!digest) {
        QVLLog("Can't create data");
        return std::nullopt;
    }
    if (handler) handler(context, 1.0f, -1.0f);
    return digest;
}

std::optional<std::string> createDigestHexString(const plist::Data& digest) {
    if (digest.size() != kQVLDigestLength) {
        QVLLog("A digest has %d bytes, not 20", static_cast<int>(digest.size()));
        return std::nullopt;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * digest.size());
    for (uint8_t byte : digest) {
        text.push_back(kHex[byte >> 4]);
        text.push_back(kHex[byte & 0xf]);
    }
    return text;
}

}  // namespace qvl
