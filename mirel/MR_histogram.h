// How long something took, counted by ranges: what percentiles are made of.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>

#include "MR_types.h"

namespace Mirel {

/// What a histogram holds at one time.
struct HistogramCounts {
    /// The longest duration of each range, in microseconds; one more range has all that is longer.
    static constexpr std::array<ui64_t, 14> Bounds_us = {
        10, 50, 100, 250, 500, 1000, 2500, 10000, 25000, 100000, 250000, 1000000, 2500000, 10000000};

    std::array<ui64_t, Bounds_us.size() + 1> Counts = {};  ///< of each range, by itself
    ui64_t Sum_ns = 0;                                     ///< of all durations
};

/// Counts durations by ranges. May be used from any thread at any time: counting one is two additions without
/// order. Lives in static storage without a constructor to be run.
class Histogram {
  public:
    /// Counts one; a negative one as none at all.
    void Count(std::chrono::nanoseconds duration) {
        const auto ns = static_cast<ui64_t>(std::max<i64_t>(duration.count(), 0));
        const auto& bounds = HistogramCounts::Bounds_us;
        const auto range =
            std::find_if(bounds.begin(), bounds.end(), [ns](ui64_t us) { return ns <= us * 1000; });
        m_Counts[static_cast<std::size_t>(range - bounds.begin())].fetch_add(1, std::memory_order_relaxed);
        m_Sum_ns.fetch_add(ns, std::memory_order_relaxed);
    }

    /// The counts, each read for itself.
    HistogramCounts Read() const {
        HistogramCounts counts;
        for (std::size_t i = 0; i < m_Counts.size(); ++i)
            counts.Counts[i] = m_Counts[i].load(std::memory_order_relaxed);
        counts.Sum_ns = m_Sum_ns.load(std::memory_order_relaxed);
        return counts;
    }

  private:
    std::array<std::atomic<ui64_t>, HistogramCounts::Bounds_us.size() + 1> m_Counts = {};
    std::atomic<ui64_t> m_Sum_ns{0};
};

/// Counts how long the object lives.
class TimedScope {
  public:
    /// `histogram` must outlive the object.
    explicit TimedScope(Histogram& histogram) : m_Histogram(histogram) {}
    ~TimedScope() { m_Histogram.Count(std::chrono::steady_clock::now() - m_Began); }
    TimedScope(const TimedScope&) = delete;
    TimedScope& operator=(const TimedScope&) = delete;

  private:
    Histogram& m_Histogram;
    const std::chrono::steady_clock::time_point m_Began = std::chrono::steady_clock::now();
};

}  // namespace Mirel
