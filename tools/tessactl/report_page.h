#pragma once

#include <cstddef>
#include <string>

#include "json.h"

namespace tessactl {

/// JSON as it may stand inside a script element: in ASCII, and without a character that HTML gives a meaning.
std::string ScriptSafe(const Json& json);

/// Cuts every text that is longer, in bytes, between two characters, and marks it with "...".
void LimitTexts(Json& json, std::size_t most);

/// Makes the data small enough: again and again the list that takes the most room loses its older half, which
/// comes first. What was lost is told in the member "shortened" of the data.
/// @param most bytes as ScriptSafe writes them
void LimitSize(Json& data, std::size_t most);

/// The parts that a page is put together from.
struct PageParts {
    std::string html;
    std::string style;
    std::string script;
};

/// The page with its data. Nothing of the data is HTML: the page's script shows it as text.
std::string PageOf(const PageParts& parts, const Json& data);

}  // namespace tessactl
