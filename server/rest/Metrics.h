// The text that /metrics answers.
#pragma once

#include <string>
#include <string_view>

#include "Cluster.h"
#include "MR_histogram.h"
#include "MR_types.h"

namespace Server {

/// Writes metrics in Prometheus' text format (version 0.0.4), family after family.
class MetricsText {
  public:
    enum class Kind { Counter, Gauge, Histogram };

    /// Begins a family; its samples follow.
    void Family(std::string_view name, Kind kind, std::string_view help);
    /// A sample of the family; `label` and `value` of the label may be empty (none). Label values are the
    /// program's own words, never text from outside.
    void Sample(Mirel::ui64_t number, std::string_view label = {}, std::string_view value = {});
    void Sample(double number);

    /// A family of one sample without labels.
    void Counter(std::string_view name, Mirel::ui64_t number, std::string_view help);
    void Gauge(std::string_view name, Mirel::ui64_t number, std::string_view help);
    void Gauge(std::string_view name, double number, std::string_view help);
    /// A histogram, in seconds.
    void Histogram(std::string_view name, const Mirel::HistogramCounts& counts, std::string_view help);

    const std::string& Text() const { return m_Text; }

  private:
    void Line(std::string_view label, std::string_view value, const std::string& number,
              std::string_view suffix = {});

    std::string m_Text;
    std::string m_Family;
};

/// The families of a node of a cluster.
void ClusterMetrics(MetricsText& text, const Cluster::Statistics& figures);

}  // namespace Server
