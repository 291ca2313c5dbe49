#include "json_text.h"

#include <cstdio>

#include "function_trace.h"
#include "toolbox.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\json_text", "b3e60f17-92d4-4c8a-9f35-1d7c84a5e602", trace::kSharedTools);

namespace toolbox {

std::string JsonText(const std::wstring& text) {
    FUNCTION_TRACE();
    std::string json = "\"";
    for (const char c : WstringToString(text, CP_UTF8)) {
        if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8] = {};
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned int>(c));
            json += escape;
            continue;
        }
        if (c == '"' || c == '\\') json += '\\';
        json += c;
    }
    return json + "\"";
}

}  // namespace toolbox
