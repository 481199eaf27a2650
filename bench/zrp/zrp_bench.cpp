// Round-trip latency of a ZRP service: sends one request after another on one
// connection and times each until its "Response" comes back.
//
// usage: zrp_bench [--socket-dir DIR] [--service NAME] [--count N]
//                  [--command KEY] [--argument STRING]
// Prints one line: requests=N p50_us=X p99_us=Y mean_us=Z
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

}  // namespace

int main(int argc, char** argv) {
    std::string dir = qvl::zrp::kDefaultSocketDirectory;
    std::string service = "com.ostrel.quorvaledhelper";
    std::string command = "prepareLogContainer:";
    std::string argument = "/tmp/not-a-log-folder";
    long count = 10'000;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
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
    }
    if (count < 1 || count > 10'000'000) {
        std::fprintf(stderr, "zrp_bench: --count must be 1 to 10000000\n");
        return 2;
    }
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

    const long warmUp = std::min(count / 10, 200L);
    for (long i = 0; i < warmUp; ++i)
        if (roundTrip() < 0) {
            std::fprintf(stderr, "zrp_bench: no answer from %s\n", service.c_str());
            return 2;
        }
    std::vector<double> samples;
    samples.reserve(static_cast<size_t>(count));
    for (long i = 0; i < count; ++i) {
        const double us = roundTrip();
        if (us < 0) {
            std::fprintf(stderr, "zrp_bench: no answer from %s after %ld requests\n", service.c_str(), i);
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
