#include "platform/fs/PropertyListFile.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/DescriptorIO.h"

namespace qvl::platform {

std::optional<plist::Value> readPropertyListFile(FileSystem& files, const std::string& path,
                                                 plist::ReadError* error, plist::Format* formatOut) {
    const auto failed = [&](const std::string& reason) {
        if (error) *error = {plist::ReadError::kIO, path + ": " + reason};
        return std::nullopt;
    };
    RegularFileOptions options;
    options.followLinks = true;
    const UniqueFd file = files.openRegularFile(path, options);
    if (!file.valid())
        return failed(errno == EINVAL ? std::string("not a regular file")
                                      : std::string("cannot open: ") + std::strerror(errno));
    std::vector<uint8_t> bytes;
    if (const int err = readAll(file.get(), kMaxPropertyListFileSize, &bytes)) {
        return failed(err == EFBIG
                          ? "larger than the limit of " + std::to_string(kMaxPropertyListFileSize) + " bytes"
                          : std::string("cannot read: ") + std::strerror(err));
    }
    plist::ReadError local;
    std::optional<plist::Value> value = plist::read(std::span<const uint8_t>(bytes), &local, formatOut);
    if (!value && error) *error = {local.code, path + ": " + local.message};
    return value;
}

namespace {

std::string notEncodable(const std::string& path) {
    return path +
           ": the value cannot be encoded (a string that is not valid text for this encoding, a date "
           "out of range, or nesting deeper than " +
           std::to_string(plist::kMaxDepth) + ")";
}

}  // namespace

bool writePropertyListFile(FileSystem& files, const std::string& path, const plist::Value& value,
                           plist::Format format, std::string* error, std::optional<uint32_t> mode) {
    const std::string bytes = plist::write(value, format);
    if (bytes.empty()) {
        if (error) *error = notEncodable(path);
        return false;
    }
    if (files.writeFileAtomically(path, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()},
                                  mode) != 0) {
        if (error) *error = path + ": cannot write: " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace qvl::platform

namespace qvl::platform {

StreamedWrite writeBinaryDictionaryFile(FileSystem& files, const std::string& path,
                                        const std::function<bool(plist::BinaryDictionaryWriter&)>& fill,
                                        std::string* error, std::optional<uint32_t> mode) {
    bool abandoned = false;
    int writerError = 0;
    const int rc = files.writeFileAtomicallyFrom(
        path,
        [&](const FileSystem::ByteSink& sink) {
            plist::BinaryDictionaryWriter writer(sink);
            abandoned = !fill(writer);
            if (abandoned) return ECANCELED;
            if (!writer.finish()) writerError = writer.error();
            return writerError;
        },
        mode);
    if (rc == 0) return StreamedWrite::kWritten;
    if (abandoned) return StreamedWrite::kAbandoned;
    if (error) {
        *error = writerError == plist::BinaryDictionaryWriter::kNotEncodable
                     ? notEncodable(path)
                     : path + ": cannot write: " + std::strerror(errno);
    }
    return StreamedWrite::kFailed;
}

}  // namespace qvl::platform
