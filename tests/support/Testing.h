// What most tests need: a clock that stands until it is set, a log to look into, waiting for a condition, a
// folder.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "MR_log.h"
#include "MR_util.h"

namespace Testing {

/// The process's clock for the life of the object; stands still between steps.
class SteppedClock : public Mirel::Clock {
  public:
    explicit SteppedClock(const char* start = "2026-03-01T12:00:00+00:00") {
        Set(start);
        Mirel::SetClock(this);
    }
    ~SteppedClock() override { Mirel::SetClock(nullptr); }

    void Set(const char* text) {
        Mirel::Timestamp time = Mirel::Timestamp::FromMicroseconds(0);
        if (!time.DecodeString(text)) ADD_FAILURE() << "not a time: " << text;
        m_Now_us = time.Microseconds();
    }
    void Step(double seconds) { m_Now_us += static_cast<Mirel::i64_t>(seconds * 1e6); }
    Mirel::i64_t Now_us() override { return m_Now_us; }

  private:
    std::atomic<Mirel::i64_t> m_Now_us;
};

/// The process's log for the life of the object, every level.
class CapturedLog : public Mirel::ILogSink {
  public:
    explicit CapturedLog(Mirel::LogType_t level = Mirel::LOG_DEBUG) {
        Level(level);
        m_Before = Mirel::SetDefaultLogSink(this);
    }
    ~CapturedLog() override { Mirel::SetDefaultLogSink(m_Before); }

    using Entry = std::pair<Mirel::LogType_t, std::string>;

    std::vector<Entry> Entries() const {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_Entries;
    }
    std::vector<std::string> At(Mirel::LogType_t type) const {
        std::vector<std::string> messages;
        for (const Entry& entry : Entries()) {
            if (entry.first == type) messages.push_back(entry.second);
        }
        return messages;
    }
    std::vector<std::string> Errors() const { return At(Mirel::LOG_ERROR); }
    bool Has(const std::string& part) const {
        for (const Entry& entry : Entries()) {
            if (entry.second.find(part) != std::string::npos) return true;
        }
        return false;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Entries.clear();
    }

  private:
    void WriteEntry(Mirel::LogType_t type, std::string_view message) override {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Entries.emplace_back(type, std::string(message));
    }

    mutable std::mutex m_Lock;
    std::vector<Entry> m_Entries;
    Mirel::ILogSink* m_Before;
};

/// How many times longer than it promises something may take: the machine may be busy, but not asleep.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr int Patience = 20;
#else
inline constexpr int Patience = 5;
#endif

/// Waits until `condition` holds, which should be within `promised_ms`; false when it takes Patience times as
/// long.
inline bool Eventually(const std::function<bool()>& condition, int promised_ms = 1000) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(Patience * promised_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// A folder of the test's own, gone with the object.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "velmora-test-XXXXXX").string();
        m_Path = mkdtemp(pattern.data());
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return m_Path; }
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }

  private:
    std::string m_Path;
};

/// The open descriptors whose link in /proc has `part` in it; all, or those only that a program would inherit
/// if it were started now.
inline std::vector<std::string> OpenDescriptors(const std::string& part, bool inherited_only = false) {
    std::vector<std::string> links;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string link = std::filesystem::read_symlink(entry, gone).string();
        const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
        if (flags == -1 || (inherited_only && (flags & FD_CLOEXEC) != 0)) continue;
        if (link.find(part) != std::string::npos) links.push_back(link);
    }
    return links;
}
inline std::vector<std::string> Inherited(const std::string& part) {
    return OpenDescriptors(part, true);
}

inline void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace Testing
