// Clocks, percentiles, cores and sockets for the benchmark programs.
#include "Bench.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

namespace Bench {

namespace {

constexpr std::int64_t AwaitLimit_ns = 60'000'000'000;

std::int64_t ReadClock(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

}  // namespace

std::int64_t Now_ns() {
    return ReadClock(CLOCK_MONOTONIC);
}
std::int64_t ThreadTime_ns() {
    return ReadClock(CLOCK_THREAD_CPUTIME_ID);
}

void Print(const std::string& key, double value) {
    std::printf("%s %.6g\n", key.c_str(), value);
    std::fflush(stdout);
}

double Percentile(std::vector<double>& samples, double share) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const auto index = static_cast<std::size_t>(share * static_cast<double>(samples.size() - 1));
    return samples[index];
}

void Fail(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void Check(bool good, const std::string& what) {
    if (!good) Fail(what);
}

void UseCore(unsigned core) {
    const unsigned cores = std::max(std::thread::hardware_concurrency(), 1u);
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core % cores, &set);
    sched_setaffinity(0, sizeof(set), &set);  // where it is refused the figures are noisier, not wrong
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int Listen(std::uint16_t& port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof(address);
    Check(bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0, "bind");
    Check(listen(listener, SOMAXCONN) == 0, "listen");
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    return listener;
}

int Connect(std::uint16_t port) {
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Check(connection >= 0, "socket");
    const sockaddr_in address = Loopback(port);
    Check(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
    const int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return connection;
}

void SendAll(int socket, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = send(socket, data, size, MSG_NOSIGNAL);
        Check(sent > 0, "send");
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

double ResidentBytes() {
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    unsigned long all = 0;
    unsigned long resident = 0;
    Check(file != nullptr && std::fscanf(file, "%lu %lu", &all, &resident) == 2, "/proc/self/statm");
    std::fclose(file);
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void Await(const std::string& what, const std::function<bool()>& condition) {
    const std::int64_t deadline = Now_ns() + AwaitLimit_ns;
    while (!condition()) {
        if (Now_ns() > deadline) {
            errno = ETIMEDOUT;
            Fail(what);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

Folder::Folder() {
    std::filesystem::create_directories("scratch");
    std::string pattern = "scratch/bench-XXXXXX";
    Check(mkdtemp(pattern.data()) != nullptr, pattern);
    m_Path = std::filesystem::absolute(pattern);
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

std::size_t Number(int argc, char** argv, int index, std::size_t otherwise) {
    return index < argc ? std::strtoul(argv[index], nullptr, 10) : otherwise;
}

}  // namespace Bench
