// What the benchmark programs share: clocks, percentiles, figures on standard output, cores, sockets on
// loopback.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Bench {

/// CLOCK_MONOTONIC, which is the same in all processes.
std::int64_t Now_ns();
/// What the calling thread has computed: the cost of its work on a machine that is busy with other work too.
std::int64_t ThreadTime_ns();

/// One figure: a line "key value" on standard output, where the orchestrator reads it.
void Print(const std::string& key, double value);

/// The value below which `share` (0 to 1) of the samples lie; sorts them. 0 where there are none.
double Percentile(std::vector<double>& samples, double share);

/// Ends the program with the system's reason.
[[noreturn]] void Fail(const std::string& what);
void Check(bool good, const std::string& what);

/// Binds the calling thread, and what it starts, to one core: 0 for what is measured, 1 for what loads it.
void UseCore(unsigned core);

/// Allows as many descriptors as the system does.
void RaiseDescriptorLimit();

/// A listening socket on a free port of 127.0.0.1.
int Listen(std::uint16_t& port);
/// Connected, TCP_NODELAY set.
int Connect(std::uint16_t port);
void SendAll(int socket, const char* data, std::size_t size);

/// Resident memory of this process in bytes.
double ResidentBytes();

/// Waits until `condition` holds; the program ends with `what` where it does not within a minute.
void Await(const std::string& what, const std::function<bool()>& condition);

/// A folder below the working directory's "scratch", gone with the object.
class Folder {
  public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }
    const std::string& Path() const { return m_Path; }

  private:
    std::string m_Path;
};

/// The number at `index` of the arguments, or `otherwise`.
std::size_t Number(int argc, char** argv, int index, std::size_t otherwise);

}  // namespace Bench
