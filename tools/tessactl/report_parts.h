#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "json.h"
#include "service_query.h"

namespace tessactl {

/// What a report is made of, and how much of it.
struct ReportRequest {
    std::wstring service = kDefaultService;
    std::wstring plugIn = kDefaultPlugIn;
    std::wstring recording;  ///< empty: the one of "trace start"
    std::wstring tmf;        ///< empty: beside the program
    std::wstring dumps;      ///< folder; empty: the one of "dump list"
};

/// How much of each list is told; of more the newest.
inline constexpr std::size_t kMostRecords = 2000;
inline constexpr std::size_t kMostCalls = 6000;
inline constexpr std::size_t kMostWarnings = 500;
inline constexpr std::size_t kMostDumps = 5;

/// Asks every source, in processes of their own, which may crash, hang or be refused: that costs its part.
/// Those whose partner is Windows itself share one, and what one of them hangs in costs the ones behind it,
/// too.
/// @param tell is called again and again with how many of how many parts are done
/// @return for each part its "data", or an "error" in words; beside the data there may be a "note"
Json GatherParts(const ReportRequest& request, std::chrono::steady_clock::time_point deadline,
                 const std::function<void(std::size_t done, std::size_t all)>& tell);

}  // namespace tessactl
