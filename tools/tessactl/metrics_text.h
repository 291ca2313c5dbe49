#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

// The text exposition format of Prometheus.
namespace tessactl {

using MetricLabels = std::vector<std::pair<std::string, std::string>>;

/// One sample: `name{label="value"} 1`. Line ends, quotes and backslashes in values are escaped; other
/// control characters, which a file of lines had better not hold, become question marks.
std::string SampleLine(const std::string& name, const MetricLabels& labels, double value);

/// Everything that is told at one moment.
class Exposition {
  public:
    /// @return false, with nothing added, if the line is no sample of a metric that is known here
    bool Add(const std::string& line);
    /// All samples, those of one metric together and behind its HELP and TYPE. Metrics without any are left
    /// out.
    std::string Text() const;

  private:
    std::map<std::string, std::string> samples_;  // by name
};

}  // namespace tessactl
