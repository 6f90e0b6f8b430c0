// Reads the process's numbers from /proc.
#include "rest/ProcessMetrics.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>

#include "MR_util.h"

namespace Server {

using Mirel::ui64_t;

namespace {

constexpr std::size_t LargestProcFile = 1u << 20;

// From /proc/self/stat (proc(5)).
struct ProcessStat {
    ui64_t Threads = 0, StartTicks = 0, VirtualBytes = 0, ResidentPages = 0;
};

bool ReadStat(ProcessStat& stat) {
    std::string text;
    if (Mirel::ReadFileIntoString("/proc/self/stat", text, LargestProcFile).Failure()) return false;
    const std::size_t name_end = text.rfind(')');  // the name may hold anything
    if (name_end == text.npos) return false;
    std::istringstream fields(text.substr(name_end + 1));
    std::string skipped;
    for (int i = 3; i < 20; ++i) fields >> skipped;
    fields >> stat.Threads >> skipped >> stat.StartTicks >> stat.VirtualBytes >> stat.ResidentPages;
    return !fields.fail();
}

// When the system was started, in seconds since 1970; 0 where that is not known.
ui64_t BootTime() {
    static constexpr char Key[] = "\nbtime ";
    std::string text;
    if (Mirel::ReadFileIntoString("/proc/stat", text, LargestProcFile).Failure()) return 0;
    const std::size_t at = text.find(Key);
    return at == text.npos ? 0 : std::strtoull(text.c_str() + at + sizeof Key - 1, nullptr, 10);
}

void Times(MetricsText& text, const ProcessStat& stat) {
    static const ui64_t boot = BootTime();  // stepping the clock must not look like a restart
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    if (boot == 0) return;
    text.Gauge("process_start_time_seconds",
               static_cast<double>(boot) + static_cast<double>(stat.StartTicks) / ticks,
               "Start time of the process since unix epoch in seconds.");
}

void Cpu(MetricsText& text) {
    rusage used{};
    if (getrusage(RUSAGE_SELF, &used) != 0) return;
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    text.Family("process_cpu_seconds_total", MetricsText::Kind::Counter,
                "Total user and system CPU time spent in seconds.");
    text.Sample(seconds(used.ru_utime) + seconds(used.ru_stime));
}

void Memory(MetricsText& text, const ProcessStat& stat) {
    const auto page = static_cast<ui64_t>(sysconf(_SC_PAGESIZE));
    text.Gauge("process_virtual_memory_bytes", stat.VirtualBytes, "Virtual memory size in bytes.");
    text.Gauge("process_resident_memory_bytes", stat.ResidentPages * page, "Resident memory size in bytes.");
    text.Gauge("process_threads", stat.Threads, "Number of OS threads in the process.");
}

void Descriptors(MetricsText& text) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
    if (folder) {
        ui64_t open = 0;
        while (const dirent* entry = readdir(folder.get())) open += entry->d_name[0] != '.' ? 1 : 0;
        text.Gauge("process_open_fds", open - 1,
                   "Number of open file descriptors.");  // but for the folder's own
    }
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0)
        text.Gauge("process_max_fds", ui64_t{limit.rlim_cur}, "Maximum number of open file descriptors.");
}

}  // namespace

void AppendProcessMetrics(MetricsText& text) {
    Cpu(text);
    Descriptors(text);
    ProcessStat stat;
    if (!ReadStat(stat)) return;
    Memory(text, stat);
    Times(text, stat);
}

}  // namespace Server
