#include "metrics_answer.h"

#include <algorithm>
#include <sstream>

namespace tessactl {

std::string EndOfSource(const std::string& source, bool toldAll) {
    return (toldAll ? "# told " : "# failed ") + source;
}

PartnerAnswer::PartnerAnswer(const std::string& output) {
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);) {
        std::erase(line, '\r');
        lines_.push_back(line);
    }
}

PartnerAnswer::Told PartnerAnswer::AddTo(Exposition& metrics, const std::string& source) {
    const std::string toldAll = EndOfSource(source, true);
    const std::string toldPart = EndOfSource(source, false);
    const auto begin = lines_.begin() + static_cast<std::ptrdiff_t>(next_);
    const auto end = std::find_if(
        begin, lines_.end(), [&](const std::string& line) { return line == toldAll || line == toldPart; });
    if (end == lines_.end()) return Told::kUnfinished;
    for (auto line = begin; line != end; ++line)
        metrics.Add(*line);  // a library in that process may have printed something of its own
    next_ = static_cast<std::size_t>(end - lines_.begin()) + 1;
    return *end == toldAll ? Told::kAll : Told::kPart;
}

}  // namespace tessactl
