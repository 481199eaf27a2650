// The peer figure for the ZRP benchmark: the round trip of a D-Bus method call
// to a trivial service through a private bus daemon.
//
// usage: dbus_bench serve ADDRESS
//        dbus_bench call ADDRESS COUNT
// "call" prints one line: requests=N p50_us=X p99_us=Y mean_us=Z
#include <systemd/sd-bus.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr const char* kName = "org.qvl.Bench";
constexpr const char* kPath = "/org/qvl/Bench";

int ping(sd_bus_message* m, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(m, "b", 1);
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Ping", "", "b", ping, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

sd_bus* connectTo(const char* address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return nullptr;
    if (sd_bus_set_address(bus, address) < 0 || sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

int serve(const char* address) {
    sd_bus* bus = connectTo(address);
    if (!bus || sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kVtable, nullptr) < 0 ||
        sd_bus_request_name(bus, kName, 0) < 0) {
        std::fprintf(stderr, "dbus_bench: cannot serve on %s\n", address);
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0) return 1;
        if (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) return 1;
    }
}

int call(const char* address, long count) {
    sd_bus* bus = connectTo(address);
    if (!bus) {
        std::fprintf(stderr, "dbus_bench: cannot connect to %s\n", address);
        return 3;
    }
    auto once = [&]() -> double {
        const auto start = std::chrono::steady_clock::now();
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        const int r = sd_bus_call_method(bus, kName, kPath, kName, "Ping", &error, &reply, "");
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        if (r < 0) return -1;
        return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    };
    for (long i = 0; i < std::min(count / 10, 200L); ++i) once();
    std::vector<double> samples;
    double sum = 0;
    for (long i = 0; i < count; ++i) {
        const double us = once();
        if (us < 0) {
            std::fprintf(stderr, "dbus_bench: call failed\n");
            return 2;
        }
        samples.push_back(us);
        sum += us;
    }
    std::sort(samples.begin(), samples.end());
    auto at = [&](double p) {
        return samples[std::min(samples.size() - 1, static_cast<size_t>(p * samples.size()))];
    };
    std::printf("requests=%ld p50_us=%.1f p99_us=%.1f mean_us=%.1f\n", count, at(0.5), at(0.99),
                sum / static_cast<double>(count));
    sd_bus_flush_close_unref(bus);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "serve") == 0) return serve(argv[2]);
    if (argc == 4 && std::strcmp(argv[1], "call") == 0) {
        const long count = std::strtol(argv[3], nullptr, 10);
        if (count >= 1 && count <= 10'000'000) return call(argv[2], count);
    }
    std::fprintf(stderr, "usage: dbus_bench serve ADDRESS | dbus_bench call ADDRESS COUNT\n");
    return 2;
}
