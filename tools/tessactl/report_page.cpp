#include "report_page.h"

#include <algorithm>
#include <utility>

namespace tessactl {
namespace {

/// The list that takes the most room, of those with more than one element.
std::pair<Json::json_pointer, std::size_t> LargestList(const Json& json, const Json::json_pointer& at) {
    std::pair<Json::json_pointer, std::size_t> largest{at, 0};
    if (json.is_array() && json.size() > 1) largest.second = ScriptSafe(json).size();
    if (json.is_object())
        for (const auto& [name, value] : json.items())
            if (const auto inner = LargestList(value, at / name); inner.second > largest.second)
                largest = inner;
    return largest;
}

void DropOlderHalf(Json& data, const Json::json_pointer& at) {
    Json& list = data[at];
    const std::size_t lost = list.size() / 2;
    list.erase(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(lost));
    // A new member moves the others: the list is not touched any more.
    Json& shortened = data["shortened"];
    const std::string name = at.to_string();
    for (Json& known : shortened)
        if (known["list"] == name) {
            known["lost"] = known["lost"].get<std::size_t>() + lost;
            return;
        }
    shortened.push_back({{"list", name}, {"lost", lost}});
}

void ReplaceOnce(std::string& text, const std::string& mark, const std::string& by) {
    const std::size_t at = text.find(mark);
    if (at != std::string::npos) text.replace(at, mark.length(), by);
}

}  // namespace

std::string ScriptSafe(const Json& json) {
    // nlohmann-json writes whatever is beyond ASCII, and every control character, as an escape.
    const std::string ascii = json.dump(-1, ' ', true, Json::error_handler_t::replace);
    std::string safe;
    safe.reserve(ascii.size());
    for (const char c : ascii) {
        switch (c) {
            case '<':
                safe += "\\u003c";
                break;
            case '>':
                safe += "\\u003e";
                break;
            case '&':
                safe += "\\u0026";
                break;
            default:
                safe += c;
        }
    }
    return safe;
}

void LimitTexts(Json& json, std::size_t most) {
    if (json.is_string()) {
        auto& text = json.get_ref<std::string&>();
        if (text.length() <= most) return;
        std::size_t end = most;
        const auto isInsideACharacter = [&] {
            return (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80;
        };
        while (end > 0 && isInsideACharacter())
            --end;
        text = text.substr(0, end) + "...";
    } else if (json.is_structured()) {
        for (Json& element : json)
            LimitTexts(element, most);
    }
}

void LimitSize(Json& data, std::size_t most) {
    while (ScriptSafe(data).size() > most) {
        const auto [list, size] = LargestList(data, Json::json_pointer());
        if (size == 0) return;  // no list is left; single texts are limited by LimitTexts
        DropOlderHalf(data, list);
    }
}

std::string PageOf(const PageParts& parts, const Json& data) {
    std::string page = parts.html;
    // The data last: what looks like a mark in it stays what it is.
    ReplaceOnce(page, "/*STYLE*/", parts.style);
    ReplaceOnce(page, "/*SCRIPT*/", parts.script);
    ReplaceOnce(page, "{\"data\":0}", ScriptSafe(data));
    return page;
}

}  // namespace tessactl
