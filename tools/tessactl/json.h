#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "text.h"

namespace tessactl {

/// Members stay in the order in which they are added. Texts are UTF-8.
/// What a command prints is written down in docs/json.md: the first member of every object, in an array of
/// every element, is "schema", the number of the form, which grows when a member goes or changes its meaning.
using Json = nlohmann::ordered_json;

/// On one line. Bytes that are no UTF-8 are replaced: JSON has to be read by others.
inline std::string JsonText(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// An array with one line for each element.
inline std::string JsonLines(const Json& array) {
    std::string all;
    for (const Json& element : array)
        all += (all.empty() ? "" : ",\n ") + JsonText(element);
    return "[" + all + "]";
}

}  // namespace tessactl
