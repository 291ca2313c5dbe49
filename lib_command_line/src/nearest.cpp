#include "nearest.h"

#include <algorithm>

namespace command_line {
namespace {

/// Optimal string alignment.
std::size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> distance(a.length() + 1, std::vector<std::size_t>(b.length() + 1));
    for (std::size_t i = 0; i <= a.length(); ++i)
        for (std::size_t j = 0; j <= b.length(); ++j) {
            if (i == 0 || j == 0) {
                distance[i][j] = i + j;
                continue;
            }
            const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            distance[i][j] =
                std::min({distance[i - 1][j] + 1, distance[i][j - 1] + 1, distance[i - 1][j - 1] + change});
            const bool isExchange = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (isExchange) distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
        }
    return distance.back().back();
}

}  // namespace

std::string Nearest(const std::string& word, const std::vector<std::string>& candidates) {
    std::string nearest;
    std::size_t least = 0;
    for (const std::string& candidate : candidates) {
        const bool isHopeless = word.length() > 2 * candidate.length();  // the table grows with both
        if (isHopeless) continue;
        const std::size_t distance = Distance(word, candidate);
        const std::size_t letters =
            candidate.length() - std::min(candidate.find_first_not_of('-'), candidate.length());
        const bool isNear = 3 * distance <= letters + 1;
        if (!isNear || (!nearest.empty() && distance >= least)) continue;
        nearest = candidate;
        least = distance;
    }
    return nearest;
}

}  // namespace command_line
