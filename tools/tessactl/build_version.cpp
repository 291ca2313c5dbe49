#include "build_version.h"

#include <algorithm>

#include "build_info.h"
#include "text.h"

namespace tessactl {

BuildVersion OwnBuild() {
    return {"tessaplug", TESSA_VERSION_TEXT, TESSA_COMMIT, TESSA_BUILD_DATE};
}

std::string InWords(const BuildVersion& build) {
    std::string words = build.version.empty() ? "no version" : build.version;
    words += build.commit.empty() ? ", commit not told" : ", commit " + build.commit;
    if (!build.date.empty()) words += " of " + build.date;
    return words;
}

std::string Harmless(const std::wstring& text) {
    constexpr std::size_t kLongest = 200;
    std::wstring harmless = text.substr(0, kLongest);
    const auto isControl = [](wchar_t c) { return c < L' ' || (c >= 0x7F && c < 0xA0); };
    std::ranges::replace_if(harmless, isControl, L'?');
    return Utf8(harmless);
}

}  // namespace tessactl
