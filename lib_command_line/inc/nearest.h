#pragma once

#include <string>
#include <vector>

namespace command_line {

/// The candidate that was most likely meant by a mistyped word: the one with the fewest letters that are
/// missing, too many, wrong or exchanged with their neighbour.
/// @return empty if none is near: one letter in three may be wrong
std::string Nearest(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace command_line
