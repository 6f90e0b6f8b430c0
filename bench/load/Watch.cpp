// How long a change in a folder takes to the feed, and to a bare reader.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "Bench.h"
#include "Load.h"

namespace Bench {

namespace {

constexpr std::chrono::milliseconds Pause{3};  // so that every change finds the reader waiting

void Change(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    Check(file >= 0 && write(file, "x", 1) == 1, path);
    close(file);
}

}  // namespace

void MeasureWatch(std::uint16_t port, const std::string& path, std::size_t changes) {
    const Protocol protocol = ProtocolNamed("ws", 200, false);
    const int feed = ConnectWith(port, protocol.Subscribe, protocol.SubscribeEnd);
    std::vector<double> delays_us;
    char room[4096];
    for (std::size_t i = 0; i < changes; ++i) {
        std::this_thread::sleep_for(Pause);
        const std::int64_t before = Now_ns();
        Change(path);
        while (recv(feed, room, sizeof(room), MSG_DONTWAIT) <= 0)
            Check(Now_ns() - before < 5'000'000'000, "waiting for the change of " + path);
        delays_us.push_back(static_cast<double>(Now_ns() - before) / 1e3);
    }
    close(feed);
    Print("p50_us", Percentile(delays_us, 0.5));
}

void MeasureBareWatch(const std::string& path, std::size_t changes) {
    const int stream = inotify_init1(IN_CLOEXEC);
    Change(path);
    Check(inotify_add_watch(stream, path.c_str(), IN_MODIFY) >= 0, path);
    std::atomic<std::int64_t> seen{0};
    std::thread reader([&] {
        UseCore(0);
        char room[4096];
        for (std::size_t i = 0; i < changes; ++i) {
            Check(read(stream, room, sizeof(room)) > 0, "inotify");
            seen = Now_ns();
        }
    });
    std::vector<double> delays_us;
    for (std::size_t i = 0; i < changes; ++i) {
        std::this_thread::sleep_for(Pause);
        const std::int64_t before = Now_ns();
        Change(path);
        while (seen < before) {
        }
        delays_us.push_back(static_cast<double>(seen - before) / 1e3);
    }
    reader.join();
    close(stream);
    Print("p50_us", Percentile(delays_us, 0.5));
}

void BeSilent() {
    RaiseDescriptorLimit();
    std::uint16_t port = 0;
    const int listener = Listen(port);
    Print("port", port);
    std::thread([listener] {
        while (accept(listener, nullptr, nullptr) >= 0) {
        }
    }).detach();
    while (std::getchar() != EOF) {
    }
    _exit(0);
}

}  // namespace Bench
