#include "plist/PropertyList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "plist/PlistCodec.h"

namespace qvl::plist {

namespace detail {

std::nullopt_t fail(ReadError* error, int code, std::string message) {
    if (error) {
        error->code = code;
        error->message = std::move(message);
    }
    return std::nullopt;
}

namespace {

// Cheap stand-in for a key in the pairwise check of small dictionaries:
// equal keys always have equal fingerprints.
uint64_t fingerprint(const std::string& key) {
    uint64_t head = 0, tail = 0;
    const size_t n = std::min<size_t>(key.size(), 8);
    memcpy(&head, key.data(), n);
    memcpy(&tail, key.data() + key.size() - n, n);
    return (head * 0x9E3779B97F4A7C15ull) ^ tail ^ (static_cast<uint64_t>(key.size()) << 56);
}

// Marks each later occurrence of a key (its value moved to the first one);
// returns whether there was any.
bool mergeDuplicates(std::vector<Dictionary::Entry>& entries, std::vector<bool>& dropped) {
    const size_t n = entries.size();
    auto merge = [&](size_t first, size_t later) {
        if (dropped.empty()) dropped.resize(n);
        entries[first].second = std::move(entries[later].second);
        dropped[later] = true;
    };
    if (n < 16) {
        uint64_t prints[16];
        for (size_t j = 0; j < n; ++j) {
            prints[j] = fingerprint(entries[j].first);
            for (size_t i = 0; i < j; ++i)
                if (prints[i] == prints[j] && !(dropped.size() && dropped[i]) &&
                    entries[i].first == entries[j].first) {
                    merge(i, j);
                    break;
                }
        }
        return !dropped.empty();
    }
    // Sorting (hash, position) pairs puts equal keys next to each other, in
    // file order, without a node per key.
    std::vector<std::pair<uint64_t, size_t>> order(n);
    for (size_t i = 0; i < n; ++i) order[i] = {std::hash<std::string>()(entries[i].first), i};
    std::sort(order.begin(), order.end());
    for (size_t a = 0; a < n;) {
        size_t b = a + 1;
        while (b < n && order[b].first == order[a].first) ++b;
        for (size_t j = a + 1; j < b; ++j)
            for (size_t i = a; i < j; ++i) {
                const size_t first = order[i].second, later = order[j].second;
                if (!(dropped.size() && dropped[first]) && entries[first].first == entries[later].first) {
                    merge(first, later);
                    break;
                }
            }
        a = b;
    }
    return !dropped.empty();
}

}  // namespace

Dictionary makeDictionary(std::vector<Dictionary::Entry>&& entries) {
    std::vector<bool> dropped;
    if (mergeDuplicates(entries, dropped)) {
        size_t kept = 0;
        for (size_t i = 0; i < entries.size(); ++i)
            if (!dropped[i]) {
                if (kept != i) entries[kept] = std::move(entries[i]);
                ++kept;
            }
        entries.resize(kept);
    }
    return Dictionary(std::move(entries));
}

namespace {

// Decodes one UTF-8 sequence at s[i]; returns its length, or 0 when invalid.
size_t decodeUTF8(std::string_view s, size_t i, uint32_t& cp) {
    const auto byte = [&](size_t k) { return static_cast<uint8_t>(s[k]); };
    const uint8_t b0 = byte(i);
    if (b0 < 0x80) {
        cp = b0;
        return 1;
    }
    size_t len;
    uint32_t min;
    if ((b0 & 0xE0) == 0xC0) {
        len = 2, cp = b0 & 0x1F, min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        len = 3, cp = b0 & 0x0F, min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        len = 4, cp = b0 & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (i + len > s.size()) return 0;
    for (size_t k = 1; k < len; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return len;
}

void appendUTF8(uint32_t cp, std::string& out) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | cp >> 6));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | cp >> 12));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | cp >> 18));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

bool isValidUTF8(std::string_view s) {
    uint32_t cp;
    for (size_t i = 0; i < s.size();) {
        const size_t len = decodeUTF8(s, i, cp);
        if (len == 0) return false;
        i += len;
    }
    return true;
}

bool appendUTF16(std::string_view s, std::vector<uint16_t>& out) {
    const size_t before = out.size();
    uint32_t cp;
    for (size_t i = 0; i < s.size();) {
        const size_t len = decodeUTF8(s, i, cp);
        if (len == 0) {
            out.resize(before);
            return false;
        }
        i += len;
        if (cp < 0x10000) {
            out.push_back(static_cast<uint16_t>(cp));
        } else {
            cp -= 0x10000;
            out.push_back(static_cast<uint16_t>(0xD800 | cp >> 10));
            out.push_back(static_cast<uint16_t>(0xDC00 | (cp & 0x3FF)));
        }
    }
    return true;
}

bool appendUTF8FromUTF16(const uint16_t* units, size_t count, std::string& out) {
    out.reserve(out.size() + count);
    for (size_t i = 0; i < count; ++i) {
        uint32_t cp = units[i];
        if (cp >= 0xDC00 && cp <= 0xDFFF) return false;
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (i + 1 == count || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (units[++i] - 0xDC00);
        }
        appendUTF8(cp, out);
    }
    return true;
}

}  // namespace detail

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

bool looksLikeXML(std::span<const uint8_t> bytes) {
    size_t i = 0;
    // UTF-16 documents start with a byte order mark; expat converts them.
    if (bytes.size() >= 2 &&
        ((bytes[0] == 0xFE && bytes[1] == 0xFF) || (bytes[0] == 0xFF && bytes[1] == 0xFE)))
        return true;
    if (bytes.size() >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) i = 3;
    while (i < bytes.size() && (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r' || bytes[i] == '\n'))
        ++i;
    return i < bytes.size() && bytes[i] == '<';
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }
    int get() const { return fd_; }
    // Closes now and reports whether the close succeeded (it can report a
    // late write error).
    bool reset() {
        if (fd_ < 0) return true;
        const int rc = ::close(fd_);
        fd_ = -1;
        return rc == 0;
    }

  private:
    int fd_;
};

std::string errnoText() {
    return std::strerror(errno);
}

bool writeAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::optional<Value> read(std::span<const uint8_t> bytes, ReadError* error, Format* formatOut) {
    if (bytes.empty()) return detail::fail(error, ReadError::kEmpty, "property list is empty");
    const std::string_view head(reinterpret_cast<const char*>(bytes.data()),
                                std::min<size_t>(bytes.size(), 8));
    if (head == kBinaryMagic) {
        auto value = detail::readBinary(bytes, error);
        if (value && formatOut) *formatOut = Format::Binary;
        return value;
    }
    if (head.starts_with("bplist"))
        return detail::fail(error, ReadError::kUnsupported,
                            "binary property list version \"" + std::string(head) + "\" is not supported");
    if (looksLikeXML(bytes)) {
        auto value = detail::readXML(bytes, error);
        if (value && formatOut) *formatOut = Format::XML;
        return value;
    }
    return detail::fail(error, ReadError::kUnknownFormat,
                        "not a property list (neither \"bplist00\" nor an XML document)");
}

std::optional<Value> read(std::string_view bytes, ReadError* error, Format* formatOut) {
    return read(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), error,
                formatOut);
}

std::optional<Value> readFile(const std::string& path, ReadError* error, Format* formatOut) {
    // O_NONBLOCK so that a FIFO in place of the file is refused below
    // instead of blocking the open; it changes nothing for a regular file.
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd.get() < 0) return detail::fail(error, ReadError::kIO, path + ": cannot open: " + errnoText());
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0)
        return detail::fail(error, ReadError::kIO, path + ": cannot stat: " + errnoText());
    if (!S_ISREG(st.st_mode)) return detail::fail(error, ReadError::kIO, path + ": not a regular file");
    if (static_cast<uint64_t>(st.st_size) > kMaxFileSize)
        return detail::fail(error, ReadError::kIO,
                            path + ": " + std::to_string(st.st_size) + " bytes is larger than the limit of " +
                                std::to_string(kMaxFileSize));
    std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return detail::fail(error, ReadError::kIO, path + ": cannot read: " + errnoText());
        if (n == 0) break;  // the file shrank while we read it
        done += static_cast<size_t>(n);
    }
    bytes.resize(done);
    ReadError local;
    auto value = read(std::span<const uint8_t>(bytes), &local, formatOut);
    if (!value) detail::fail(error, local.code, path + ": " + local.message);
    return value;
}

std::string write(const Value& value, Format format) {
    return format == Format::Binary ? writeBinary(value) : writeXML(value);
}

bool writeFileAtomically(const std::string& path, const Value& value, Format format, std::string* error) {
    auto failed = [&](std::string message) {
        if (error) *error = path + ": " + std::move(message);
        return false;
    };
    const std::string bytes = write(value, format);
    if (bytes.empty())
        return failed(
            "the value cannot be encoded (a string that is not valid text for this encoding, a date "
            "out of range, or nesting deeper than " +
            std::to_string(kMaxDepth) + ")");

    // A replaced file keeps its permission bits; a new one gets the usual
    // 0644 rather than mkostemp's 0600, since other users read manifests.
    mode_t mode = 0644;
    struct stat old {};
    if (::stat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode)) mode = old.st_mode & 07777;

    std::string temp = path + ".XXXXXX";
    FileDescriptor fd(::mkostemp(temp.data(), O_CLOEXEC));
    if (fd.get() < 0) return failed("cannot create a temporary file: " + errnoText());
    auto abandon = [&](std::string message) {
        fd.reset();
        ::unlink(temp.c_str());
        return failed(std::move(message));
    };
    if (::fchmod(fd.get(), mode) != 0) return abandon("cannot set the mode of " + temp + ": " + errnoText());
    if (!writeAll(fd.get(), bytes)) return abandon("cannot write " + temp + ": " + errnoText());
    if (::fsync(fd.get()) != 0) return abandon("cannot sync " + temp + ": " + errnoText());
    if (!fd.reset()) return abandon("cannot close " + temp + ": " + errnoText());
    if (::rename(temp.c_str(), path.c_str()) != 0)
        return abandon("cannot rename " + temp + ": " + errnoText());
    // Make the rename itself durable; a failure here leaves the new file in
    // place, so it is not reported.
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    FileDescriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) ::fsync(dir.get());
    return true;
}

}  // namespace qvl::plist
