// Round-trip latency of a ZRP service: sends one request after another on one
// connection and times each until its "Response" comes back.
//
// usage: zrp_bench [--socket-dir DIR] [--service NAME] [--count N]
//                  [--command KEY] [--argument STRING]
//        zrp_bench --ping-pong [--count N]
// Prints one line: requests=N p50_us=X p99_us=Y mean_us=Z
//
// --ping-pong times the floor under any service on this machine instead: a
// message of a request's size sent to a second process over an AF_UNIX
// stream socket and echoed back, with nothing else on either side.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/zrp/ZRP.h"

namespace {

using Clock = std::chrono::steady_clock;

double percentile(std::vector<double> sorted, double p) {
    if (sorted.empty()) return 0;
    const size_t index =
        std::min(sorted.size() - 1, static_cast<size_t>(p * static_cast<double>(sorted.size())));
    return sorted[index];
}

// Sends `count` timed requests (after a few untimed ones) through
// `roundTrip`, which answers the microseconds taken or -1 on failure.
template <class RoundTrip>
int measure(long count, const char* what, RoundTrip roundTrip) {
    const long warmUp = std::min(count / 10, 200L);
    for (long i = 0; i < warmUp; ++i)
        if (roundTrip() < 0) {
            std::fprintf(stderr, "zrp_bench: no answer from %s\n", what);
            return 2;
        }
    std::vector<double> samples;
    samples.reserve(static_cast<size_t>(count));
    for (long i = 0; i < count; ++i) {
        const double us = roundTrip();
        if (us < 0) {
            std::fprintf(stderr, "zrp_bench: no answer from %s after %ld requests\n", what, i);
            return 2;
        }
        samples.push_back(us);
    }
    double sum = 0;
    for (double s : samples) sum += s;
    std::sort(samples.begin(), samples.end());
    std::printf("requests=%ld p50_us=%.1f p99_us=%.1f mean_us=%.1f\n", count, percentile(samples, 0.50),
                percentile(samples, 0.99), sum / static_cast<double>(count));
    return 0;
}

bool transfer(int fd, char* buffer, size_t size, bool sending) {
    for (size_t done = 0; done < size;) {
        const ssize_t n = sending ? ::write(fd, buffer + done, size - done) : ::read(fd, buffer + done, size - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

int pingPong(long count) {
    // About the size of a framed "prepareLogContainer:" request.
    constexpr size_t kMessage = 128;
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 3;
    const pid_t echo = ::fork();
    if (echo < 0) return 3;
    if (echo == 0) {
        ::close(fds[0]);
        char buffer[kMessage];
        while (transfer(fds[1], buffer, kMessage, false) && transfer(fds[1], buffer, kMessage, true)) {
        }
        ::_exit(0);
    }
    ::close(fds[1]);
    char buffer[kMessage] = {};
    const int status = measure(count, "the echo process", [&]() -> double {
        const auto start = Clock::now();
        if (!transfer(fds[0], buffer, kMessage, true) || !transfer(fds[0], buffer, kMessage, false)) return -1;
        return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    });
    ::close(fds[0]);
    ::waitpid(echo, nullptr, 0);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = qvl::zrp::kDefaultSocketDirectory;
    std::string service = "com.ostrel.quorvaledhelper";
    std::string command = "prepareLogContainer:";
    std::string argument = "/tmp/not-a-log-folder";
    long count = 10'000;
    bool pingPongOnly = false;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--ping-pong") {
            pingPongOnly = true;
            continue;
        }
        if (i + 1 == argc) break;
        if (flag == "--socket-dir")
            dir = argv[i + 1];
        else if (flag == "--service")
            service = argv[i + 1];
        else if (flag == "--command")
            command = argv[i + 1];
        else if (flag == "--argument")
            argument = argv[i + 1];
        else if (flag == "--count")
            count = std::strtol(argv[i + 1], nullptr, 10);
        ++i;
    }
    if (count < 1 || count > 10'000'000) {
        std::fprintf(stderr, "zrp_bench: --count must be 1 to 10000000\n");
        return 2;
    }
    if (pingPongOnly) return pingPong(count);
    std::string error;
    std::unique_ptr<qvl::zrp::Client> client = qvl::zrp::Client::connect(service, &error, dir);
    if (!client) {
        std::fprintf(stderr, "zrp_bench: %s\n", error.c_str());
        return 3;
    }
    qvl::zrp::Dictionary request;
    request.setString(command, argument);

    auto roundTrip = [&]() -> double {
        const auto start = Clock::now();
        if (!client->send(request)) return -1;
        for (;;) {
            qvl::zrp::Client::Received r = client->receive(std::chrono::seconds(10));
            if (r.status != qvl::zrp::Client::Status::Message) return -1;
            if (r.message.find("Response")) break;
        }
        return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    };

    return measure(count, service.c_str(), roundTrip);
}
