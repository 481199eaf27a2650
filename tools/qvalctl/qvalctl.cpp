#include "tools/qvalctl/qvalctl.h"

#include <time.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace qvl::qvalctl {

namespace {

// Deepest nesting a request file may have; the wire allows 64 levels.
constexpr int kMaxRequestDepth = zrp::kMaxDepth - 1;
constexpr double kMaxTimeoutSeconds = 86400.0 * 365;

bool fail(std::string* error, std::string text) {
    if (error) *error = std::move(text);
    return false;
}

std::optional<int64_t> parseInt64(const std::string& text) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || text.find_first_of(" \t\n+") != std::string::npos) return std::nullopt;
    return static_cast<int64_t>(v);
}

std::optional<double> parseSeconds(const std::string& text) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || *end != '\0' || !(v > 0) || v > kMaxTimeoutSeconds) return std::nullopt;
    return v;
}

zrp::Value typedArgument(const std::string& text) {
    if (text == "true") return zrp::Value(true);
    if (text == "false") return zrp::Value(false);
    if (std::optional<int64_t> n = parseInt64(text)) return zrp::Value(*n);
    return zrp::Value(text);
}

// ---------------------------------------------------------------- JSON

void appendEscaped(std::string& out, std::string_view s) {
    out += '"';
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
            ++i;
        } else if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
        } else {
            // Copy a well-formed UTF-8 sequence; replace a stray byte.
            const size_t len = c >= 0xF0 && c < 0xF5 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
            bool ok = len > 0 && i + len <= s.size();
            for (size_t k = 1; ok && k < len; ++k) ok = (static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80;
            if (ok) {
                out.append(s.substr(i, len));
                i += len;
            } else {
                out += "\\ufffd";
                ++i;
            }
        }
    }
    out += '"';
}

std::string base64(const zrp::Data& d) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < d.size(); i += 3) {
        uint32_t n = static_cast<uint32_t>(d[i]) << 16;
        if (i + 1 < d.size()) n |= static_cast<uint32_t>(d[i + 1]) << 8;
        if (i + 2 < d.size()) n |= d[i + 2];
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += i + 1 < d.size() ? kAlphabet[(n >> 6) & 63] : '=';
        out += i + 2 < d.size() ? kAlphabet[n & 63] : '=';
    }
    return out;
}

std::string isoDate(int64_t nanoseconds) {
    int64_t seconds = nanoseconds / 1'000'000'000;
    int64_t fraction = nanoseconds % 1'000'000'000;
    if (fraction < 0) {
        fraction += 1'000'000'000;
        --seconds;
    }
    const time_t t = static_cast<time_t>(seconds);
    struct tm tm {};
    if (!gmtime_r(&t, &tm)) return std::to_string(nanoseconds);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%09" PRId64 "Z", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, fraction);
    return buf;
}

void appendJSON(std::string& out, const zrp::Value& v);

void appendDictionary(std::string& out, const zrp::Dictionary& d) {
    out += '{';
    for (size_t i = 0; i < d.size(); ++i) {
        if (i) out += ", ";
        appendEscaped(out, d.entry(i).key);
        out += ": ";
        appendJSON(out, d.entry(i).value);
    }
    out += '}';
}

void appendJSON(std::string& out, const zrp::Value& v) {
    char buf[64];
    switch (v.type()) {
        case zrp::Type::Null:
            out += "null";
            return;
        case zrp::Type::Boolean:
            out += *v.asBool() ? "true" : "false";
            return;
        case zrp::Type::Int64:
            out += std::to_string(*v.asInt64());
            return;
        case zrp::Type::Uint64:
            out += std::to_string(*v.asUint64());
            return;
        case zrp::Type::Double:
            if (!std::isfinite(*v.asDouble())) {
                out += "null";
                return;
            }
            std::snprintf(buf, sizeof buf, "%.17g", *v.asDouble());
            out += buf;
            return;
        case zrp::Type::Date:
            appendEscaped(out, isoDate(v.asDate()->nanoseconds));
            return;
        case zrp::Type::Data:
            appendEscaped(out, base64(*v.asData()));
            return;
        case zrp::Type::String:
            appendEscaped(out, *v.asString());
            return;
        case zrp::Type::UUID: {
            const zrp::UUID& u = *v.asUUID();
            std::string s;
            for (size_t i = 0; i < u.size(); ++i) {
                if (i == 4 || i == 6 || i == 8 || i == 10) s += '-';
                std::snprintf(buf, sizeof buf, "%02x", u[i]);
                s += buf;
            }
            appendEscaped(out, s);
            return;
        }
        case zrp::Type::FileDescriptor:
            appendEscaped(out, "fd:" + std::to_string(v.asFileDescriptor()->get()));
            return;
        case zrp::Type::Array: {
            out += '[';
            const zrp::Array& a = *v.asArray();
            for (size_t i = 0; i < a.size(); ++i) {
                if (i) out += ", ";
                appendJSON(out, a[i]);
            }
            out += ']';
            return;
        }
        case zrp::Type::Dictionary:
            appendDictionary(out, *v.asDictionary());
            return;
    }
}

// ---------------------------------------------------------------- output

// Prints what comes back: JSON lines, or readable lines with a progress bar
// that redraws itself in place on a terminal.
class Printer {
  public:
    Printer(FILE* out, bool json, bool terminal) : out_(out), json_(json), terminal_(terminal) {}
    ~Printer() { endBar(); }

    void print(const zrp::Dictionary& message) {
        const zrp::Value* progress = message.size() == 1 ? message.find("Progress") : nullptr;
        if (json_) {
            std::fprintf(out_, "%s\n", toJSON(message).c_str());
        } else if (progress && progress->asInt64() && terminal_) {
            drawBar(*progress->asInt64());
        } else {
            endBar();
            for (size_t i = 0; i < message.size(); ++i) {
                std::string value;
                appendJSON(value, message.entry(i).value);
                std::fprintf(out_, "%s: %s\n", message.entry(i).key.c_str(), value.c_str());
            }
        }
        std::fflush(out_);
    }

  private:
    void drawBar(int64_t percent) {
        constexpr int kWidth = 40;
        const int64_t p = std::clamp<int64_t>(percent, 0, 100);
        const int filled = static_cast<int>(p * kWidth / 100);
        std::fprintf(out_, "\r[%s%s] %3" PRId64 "%%", std::string(filled, '#').c_str(),
                     std::string(kWidth - filled, ' ').c_str(), p);
        barShown_ = true;
    }
    void endBar() {
        if (barShown_) std::fputc('\n', out_);
        barShown_ = false;
    }

    FILE* out_;
    bool json_;
    bool terminal_;
    bool barShown_ = false;
};

std::string secondsText(std::chrono::milliseconds ms) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", static_cast<double>(ms.count()) / 1000.0);
    return buf;
}

}  // namespace

std::string usage() {
    return "usage: qvalctl [OPTIONS] COMMAND [ARG | KEY=VALUE...]\n"
           "       qvalctl [OPTIONS] --request FILE\n"
           "\n"
           "Sends one request to a ZRP service (by default the helper) and prints\n"
           "every message that comes back, until the \"Response\".\n"
           "\n"
           "  COMMAND             a command name such as prepareWorkContainer:\n"
           "  ARG                 the parameter as a string\n"
           "  KEY=VALUE...        a dictionary parameter; true/false are booleans,\n"
           "                      integers are signed 64-bit, anything else a string\n"
           "  --request FILE      the whole request from a property-list file (XML or binary)\n"
           "  --service NAME      service to talk to (default com.ostrel.quorvaledhelper)\n"
           "  --socket-dir DIR    folder of the service sockets (default /var/run/zrp,\n"
           "                      or $QVL_ZRP_SOCKET_DIR)\n"
           "  --timeout SECONDS   how long to wait for the answer (default 30)\n"
           "  --responses N       end after N \"Response\" messages (default 1)\n"
           "  --json              print each message as one JSON line\n"
           "  -h, --help          show this text\n"
           "\n"
           "Exit status: 0 Response true, 1 Response false, 2 no answer (time-out or\n"
           "connection ended), 3 service unreachable, 64 bad command line.\n";
}

std::optional<Options> parseArguments(const std::vector<std::string>& args, const char* socketDirEnv,
                                      std::string* error) {
    Options o;
    if (socketDirEnv && *socketDirEnv) o.socketDirectory = socketDirEnv;
    size_t i = 0;
    auto value = [&](const std::string& flag) -> const std::string* {
        if (i + 1 >= args.size()) {
            fail(error, flag + " needs a value");
            return nullptr;
        }
        return &args[++i];
    };
    for (; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--") {
            ++i;
            break;
        }
        if (a.empty() || a[0] != '-') break;
        const std::string* v = nullptr;
        if (a == "-h" || a == "--help") {
            o.help = true;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--service") {
            if (!(v = value(a))) return std::nullopt;
            o.service = *v;
        } else if (a == "--socket-dir") {
            if (!(v = value(a))) return std::nullopt;
            o.socketDirectory = *v;
        } else if (a == "--request") {
            if (!(v = value(a))) return std::nullopt;
            o.requestFile = *v;
        } else if (a == "--timeout") {
            if (!(v = value(a))) return std::nullopt;
            std::optional<double> s = parseSeconds(*v);
            if (!s)
                return fail(error, "--timeout needs a positive number of seconds, not \"" + *v + "\""),
                       std::nullopt;
            o.timeout = std::chrono::milliseconds(std::max<int64_t>(1, std::llround(*s * 1000)));
        } else if (a == "--responses") {
            if (!(v = value(a))) return std::nullopt;
            std::optional<int64_t> n = parseInt64(*v);
            if (!n || *n < 1 || *n > 1000)
                return fail(error, "--responses needs a count from 1 to 1000"), std::nullopt;
            o.responses = static_cast<int>(*n);
        } else {
            return fail(error, "unknown option " + a), std::nullopt;
        }
    }
    o.words.assign(args.begin() + static_cast<std::ptrdiff_t>(std::min(i, args.size())), args.end());
    // "--help" after the command asks for this text too; it is never sent as a parameter.
    for (const std::string& word : o.words) o.help = o.help || word == "-h" || word == "--help";
    if (o.help) return o;
    if (!o.requestFile.empty() && !o.words.empty())
        return fail(error, "give either --request FILE or COMMAND [ARG...], not both"), std::nullopt;
    if (o.requestFile.empty() && o.words.empty()) return fail(error, "no command given"), std::nullopt;
    return o;
}

std::optional<zrp::Dictionary> requestFromWords(const std::vector<std::string>& words, std::string* error) {
    if (words.empty() || words[0].empty()) return fail(error, "no command given"), std::nullopt;
    zrp::Dictionary request;
    const std::string& command = words[0];
    if (words.size() == 1) {
        // The commands that ignore their parameter still need one that survives decoding.
        request.set(command, zrp::Value(true));
        return request;
    }
    if (words.size() == 2 && words[1].find('=') == std::string::npos) {
        request.set(command, zrp::Value(words[1]));
        return request;
    }
    zrp::Dictionary parameter;
    std::set<std::string> seen;
    for (size_t i = 1; i < words.size(); ++i) {
        const size_t eq = words[i].find('=');
        if (eq == std::string::npos || eq == 0)
            return fail(error, "\"" + words[i] + "\" is not KEY=VALUE"), std::nullopt;
        const std::string key = words[i].substr(0, eq);
        if (!seen.insert(key).second) return fail(error, "key " + key + " given twice"), std::nullopt;
        parameter.set(key, typedArgument(words[i].substr(eq + 1)));
    }
    request.set(command, zrp::Value(std::move(parameter)));
    return request;
}

std::optional<zrp::Value> zrpFromPlist(const plist::Value& v, std::string* error, int depth) {
    if (depth > kMaxRequestDepth) return fail(error, "request nested too deeply"), std::nullopt;
    switch (v.kind()) {
        case plist::Kind::Boolean:
            return zrp::Value(*v.asBoolean());
        case plist::Kind::String:
            return zrp::Value(*v.asString());
        case plist::Kind::Data:
            return zrp::Value(*v.asData());
        case plist::Kind::Real:
            return zrp::Value(*v.asReal());
        case plist::Kind::Integer: {
            const plist::Integer& n = *v.asInteger();
            if (n.isUnsigned && n.asUnsigned() > static_cast<uint64_t>(INT64_MAX))
                return zrp::Value(n.asUnsigned());
            return zrp::Value(n.asSigned());
        }
        case plist::Kind::Date: {
            const double ns = std::round(v.asDate()->toUnix() * 1e9);
            if (!(ns >= -9.2e18 && ns <= 9.2e18)) return fail(error, "date out of range"), std::nullopt;
            return zrp::Value(zrp::Date{static_cast<int64_t>(ns)});
        }
        case plist::Kind::Array: {
            zrp::Array out;
            for (const plist::Value& item : *v.asArray()) {
                std::optional<zrp::Value> z = zrpFromPlist(item, error, depth + 1);
                if (!z) return std::nullopt;
                out.push_back(std::move(*z));
            }
            return zrp::Value(std::move(out));
        }
        case plist::Kind::Dictionary: {
            zrp::Dictionary out;
            for (const auto& [key, item] : *v.asDictionary()) {
                std::optional<zrp::Value> z = zrpFromPlist(item, error, depth + 1);
                if (!z) return std::nullopt;
                out.set(key, std::move(*z));
            }
            return zrp::Value(std::move(out));
        }
    }
    return fail(error, "unsupported value"), std::nullopt;
}

std::optional<zrp::Dictionary> requestFromFile(const std::string& path, std::string* error) {
    plist::ReadError readError;
    std::optional<plist::Value> root =
        platform::readPropertyListFile(platform::LinuxFileSystem::sharedInstance(), path, &readError);
    if (!root) return fail(error, "cannot read " + path + ": " + readError.message), std::nullopt;
    if (!root->isDictionary()) return fail(error, path + " does not hold a dictionary"), std::nullopt;
    std::optional<zrp::Value> request = zrpFromPlist(*root, error);
    if (!request) return std::nullopt;
    return *request->asDictionary();
}

std::string toJSON(const zrp::Dictionary& message) {
    std::string out;
    appendDictionary(out, message);
    return out;
}

int run(const Options& options, const zrp::Dictionary& request, FILE* out, FILE* err, bool terminal) {
    std::string error;
    std::unique_ptr<zrp::Client> client =
        zrp::Client::connect(options.service, &error, options.socketDirectory);
    if (!client || !client->send(request, &error)) {
        std::fprintf(err, "qvalctl: cannot reach %s: %s\n", options.service.c_str(), error.c_str());
        return kExitUnreachable;
    }
    Printer printer(out, options.json, terminal);
    const auto deadline = std::chrono::steady_clock::now() + options.timeout;
    int responses = 0;
    bool allTrue = true;
    while (responses < options.responses) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        zrp::Client::Received r = client->receive(std::max(left, std::chrono::milliseconds(0)));
        if (r.status == zrp::Client::Status::Timeout) {
            std::fprintf(err, "qvalctl: no answer from %s within %s s\n", options.service.c_str(),
                         secondsText(options.timeout).c_str());
            return kExitNoAnswer;
        }
        if (r.status != zrp::Client::Status::Message) {
            std::fprintf(err, "qvalctl: %s ended the connection without an answer\n",
                         options.service.c_str());
            return kExitNoAnswer;
        }
        printer.print(r.message);
        if (const zrp::Value* response = r.message.find("Response")) {
            ++responses;
            if (!response->asBool() || !*response->asBool()) allTrue = false;
        }
    }
    if (!allTrue) {
        std::fprintf(err, "qvalctl: %s answered false\n", options.service.c_str());
        return kExitFail;
    }
    return kExitPass;
}

}  // namespace qvl::qvalctl
