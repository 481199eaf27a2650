// qvl_e2e_client: the client side of the helper's end-to-end tests. It runs
// inside the sandbox (so that the helper can read who it is) or on the host.
//
//   qvl_e2e_client [--socket-dir DIR] [--service NAME] [--idle MS] [--expect N] [--close]
//                  [--repeat N] FRAME_FILE...
//
// For each FRAME_FILE, in order, on one connection: sends the file's bytes
// verbatim (a frame made by the test, or deliberately broken bytes). Then it
// prints every message that comes back, one line each ("Response=true",
// "Progress=42", "Data=010203"), until nothing has arrived for --idle
// milliseconds (default 700) or the connection ends, and prints how it ended
// ("end=timeout", "end=closed", "end=invalid"). With --expect N it waits up to
// 10 s for each of the first N messages of an exchange before the idle rule
// applies, so a slow machine does not lose answers. With --close it closes right
// after sending instead. --repeat runs the whole exchange N times, each on a
// new connection. With --separate every FRAME_FILE goes on a connection of its
// own, all opened first and kept open; lines are prefixed "connN: " and, at
// the end, any message that arrived late on an earlier connection is printed
// as "connN: stray ...".
//
// Exit status: 0 when every exchange could be made, 1 otherwise.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "platform/zrp/ZRP.h"

namespace zrp = qvl::zrp;

namespace {

std::string hex(const std::vector<uint8_t>& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 15]);
    }
    return out;
}

std::string describe(const zrp::Value& value) {
    if (const bool* b = value.asBool()) return *b ? "true" : "false";
    if (const int64_t* n = value.asInt64()) return std::to_string(*n);
    if (const std::string* s = value.asString()) return *s;
    if (const zrp::Data* d = value.asData()) return hex(*d);
    return std::string("<") + zrp::typeName(value.type()) + ">";
}

void printMessage(const zrp::Dictionary& message) {
    std::string line;
    message.forEach([&](std::string_view key, const zrp::Value& value) {
        if (!line.empty()) line += ' ';
        line.append(key);
        line += '=';
        line += describe(value);
        return true;
    });
    std::printf("%s\n", line.c_str());
}

void printUntilIdle(zrp::Client& client, const std::string& prefix, int idleMs, int expect) {
    for (int count = 0;; ++count) {
        const int waitMs = count < expect ? 10'000 : idleMs;
        const auto received = client.receive(std::chrono::milliseconds(waitMs));
        if (received.status == zrp::Client::Status::Message) {
            std::printf("%s", prefix.c_str());
            printMessage(received.message);
            continue;
        }
        const char* end = received.status == zrp::Client::Status::Timeout  ? "timeout"
                          : received.status == zrp::Client::Status::Closed ? "closed"
                                                                           : "invalid";
        std::printf("%send=%s\n", prefix.c_str(), end);
        return;
    }
}

// Prints whatever is still waiting on a connection, without an end line.
void printStray(zrp::Client& client, const std::string& prefix) {
    for (;;) {
        const auto received = client.receive(std::chrono::milliseconds(100));
        if (received.status != zrp::Client::Status::Message) return;
        std::printf("%s", prefix.c_str());
        printMessage(received.message);
    }
}

bool readFile(const char* path, std::vector<uint8_t>& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketDir = zrp::kDefaultSocketDirectory;
    std::string service = "com.ostrel.quorvaledhelper";
    int idleMs = 700;
    bool closeAfterSend = false;
    bool separate = false;
    int expect = 0;
    long repeat = 1;
    std::vector<std::vector<uint8_t>> frames;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--socket-dir" && hasValue) {
            socketDir = argv[++i];
        } else if (arg == "--service" && hasValue) {
            service = argv[++i];
        } else if (arg == "--idle" && hasValue) {
            idleMs = std::atoi(argv[++i]);
        } else if (arg == "--repeat" && hasValue) {
            repeat = std::atol(argv[++i]);
        } else if (arg == "--expect" && hasValue) {
            expect = std::atoi(argv[++i]);
        } else if (arg == "--separate") {
            separate = true;
        } else if (arg == "--close") {
            closeAfterSend = true;
        } else {
            std::vector<uint8_t> bytes;
            if (!readFile(argv[i], bytes)) {
                std::fprintf(stderr, "qvl_e2e_client: cannot read %s\n", argv[i]);
                return 1;
            }
            frames.push_back(std::move(bytes));
        }
    }

    auto connect = [&]() -> std::unique_ptr<zrp::Client> {
        std::string error;
        auto client = zrp::Client::connect(service, &error, socketDir);
        if (!client) std::fprintf(stderr, "qvl_e2e_client: %s\n", error.c_str());
        return client;
    };
    // Sends one frame and prints what comes back, each line after `prefix`.
    auto exchange = [&](zrp::Client& client, const std::vector<uint8_t>& frame, const std::string& prefix) {
        if (!client.sendRaw(frame)) {
            std::fprintf(stderr, "qvl_e2e_client: send failed\n");
            return false;
        }
        if (!closeAfterSend) printUntilIdle(client, prefix, idleMs, expect);
        return true;
    };

    for (long round = 0; round < repeat; ++round) {
        if (separate) {
            std::vector<std::unique_ptr<zrp::Client>> clients;
            for (size_t i = 0; i < frames.size(); ++i) {
                clients.push_back(connect());
                if (!clients.back()) return 1;
            }
            for (size_t i = 0; i < frames.size(); ++i) {
                if (!exchange(*clients[i], frames[i], "conn" + std::to_string(i + 1) + ": ")) return 1;
            }
            for (size_t i = 0; i < clients.size(); ++i) {
                printStray(*clients[i], "conn" + std::to_string(i + 1) + ": stray ");
            }
        } else {
            auto client = connect();
            if (!client) return 1;
            for (const auto& frame : frames) {
                if (!exchange(*client, frame, "")) return 1;
            }
        }
        std::fflush(stdout);
    }
    return 0;
}
