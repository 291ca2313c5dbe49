#pragma once

#include <span>
#include <string>

#include "metrics_text.h"
#include "service_query.h"

namespace tessactl {

/// What is asked for metrics.
struct MetricsRequest {
    std::wstring service = kDefaultService;
    std::wstring plugIn = kDefaultPlugIn;
    std::wstring dumps;  ///< folder of the dumps; empty: that of a service of LocalSystem
};

/// Collects the samples of one source.
using Samples = std::vector<std::string>;

/// A place that metrics come from, and that may refuse alone.
struct MetricsSource {
    const char* name;
    const char* partner;  ///< who is asked for it, and may hang; sources of one partner stand together
    /// Adds samples; those that were added before something is thrown are right.
    /// @throws std::exception if not everything can be told
    void (*read)(const MetricsRequest& request, Samples& samples);
};

std::span<const MetricsSource> MetricsSources();

}  // namespace tessactl
