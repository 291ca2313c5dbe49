#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "metrics_text.h"

namespace tessactl {

/// The line that a partner's process prints behind the samples of each of its sources.
/// @param toldAll whether these are all; right they are in any case
std::string EndOfSource(const std::string& source, bool toldAll);

/// What a partner's process printed: the samples of its sources, one behind the other.
class PartnerAnswer {
  public:
    enum class Told { kAll, kPart, kUnfinished };

    PartnerAnswer() = default;
    explicit PartnerAnswer(const std::string& output);

    /// Adds what the next source told. Nothing, if it came to no end: the process was cut off then, in the
    /// middle of who knows what.
    Told AddTo(Exposition& metrics, const std::string& source);

  private:
    std::vector<std::string> lines_;
    std::size_t next_ = 0;  // the first line that no source has taken
};

}  // namespace tessactl
