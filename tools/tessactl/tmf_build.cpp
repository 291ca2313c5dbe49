#include "tmf_build.h"

#include <filesystem>
#include <fstream>

#include "text.h"

namespace tessactl {

BuildVersion ReadTmfBuild(const std::wstring& folder) {
    const std::wstring path = folder + L"\\build.txt";
    std::ifstream file{std::filesystem::path(path)};
    if (!file) throw ToolError(Utf8(path) + " cannot be opened");
    constexpr std::size_t kLongest = 4096;
    std::string text(kLongest, '\0');
    text.resize(static_cast<std::size_t>(file.read(text.data(), kLongest).gcount()));
    const auto valueOf = [&text](const std::string& name) {
        const std::size_t at = ("\n" + text).find("\n" + name + " ");
        if (at == std::string::npos) return std::string();
        const std::size_t start = at + name.length() + 1;
        return Harmless(Widened(text.substr(start, text.find_first_of("\r\n", start) - start), CP_UTF8));
    };
    const BuildVersion build = {"tessaplug", valueOf("version"), valueOf("commit"), valueOf("date")};
    if (build.version.empty()) throw ToolError(Utf8(path) + " names no version");
    return build;
}

}  // namespace tessactl
