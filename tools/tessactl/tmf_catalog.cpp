#include "tmf_catalog.h"

#include <windows.h>
#include <objbase.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include "text.h"
#include "toolbox.h"

namespace tessactl {
namespace {

GUID GuidFrom(const std::string& text, const std::string& name) {
    GUID guid = {};
    const std::wstring braced = L"{" + toolbox::StringToWstring(text) + L"}";
    if (FAILED(::CLSIDFromString(braced.c_str(), &guid)))
        throw ToolError(name + ": its first line has no message GUID");
    return guid;
}

std::string ContentOf(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file) throw ToolError(Utf8(path) + " cannot be read");
    return content.str();
}

/// A text with conversions such as %10!u!.
std::vector<TmfPiece> PiecesOf(const std::string& text) {
    static const std::regex kConversion(R"(%%|%(\d+)!(\w+)!)");
    std::vector<TmfPiece> pieces(1);
    std::size_t at = 0;
    for (std::sregex_iterator match(text.begin(), text.end(), kConversion), end; match != end; ++match) {
        pieces.back().words += text.substr(at, static_cast<std::size_t>(match->position()) - at);
        at = static_cast<std::size_t>(match->position() + match->length());
        if (match->str() == "%%") {
            pieces.back().words += '%';
        } else {
            pieces.back().conversion = (*match)[2];
            pieces.emplace_back();
        }
    }
    pieces.back().words += text.substr(at);
    return pieces;
}

}  // namespace

bool GuidLess::operator()(const GUID& a, const GUID& b) const {
    return std::memcmp(&a, &b, sizeof a) < 0;
}

TmfCatalog TmfCatalog::FromFolder(const std::wstring& folder) {
    TmfCatalog catalog;
    WIN32_FIND_DATAW found = {};
    const HANDLE search = ::FindFirstFileW((folder + L"\\*.tmf").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        throw ToolError("There are no .tmf files in " + Utf8(folder) +
                        "; name the folder that came with the plug-in with --tmf.");
    const std::unique_ptr<void, decltype(&::FindClose)> owner(search, &::FindClose);
    do {
        const std::wstring path = folder + L"\\" + found.cFileName;
        catalog.Add(ContentOf(path), Utf8(path));
    } while (::FindNextFileW(search, &found));
    return catalog;
}

void TmfCatalog::Add(const std::string& text, const std::string& name) {
    constexpr std::size_t kLongestLine = 4096;
    static const std::regex kHead(R"(^(\S+) ([!-~]+) //.*)");
    static const std::regex kMessage(
        R"re(^#typev \S+ (\d{1,9}) "%0(.*)" //.*LEVEL=(\d{1,9})\b(?:.* FUNC=(\S+))?.*)re");
    static const std::regex kItem(R"(^\S+, (Item\w+) -- \d+\s*)");
    // What is printed is UTF-8, whatever the file is.
    std::istringstream lines(Utf8(Widened(text, CP_UTF8)));
    std::string line;
    std::smatch match;
    const auto nextLine = [&] {
        const bool isLine = !std::getline(lines, line).fail();
        if (line.ends_with('\r')) line.pop_back();
        // The expressions need some stack for each character.
        if (line.length() > kLongestLine) throw ToolError(name + " has a line of more than 4096 characters");
        return isLine;
    };
    if (!nextLine() || !std::regex_match(line, match, kHead))
        throw ToolError(name + " is no trace message format file");
    auto& messages = messages_[GuidFrom(match[1], name)];
    const std::string source = match[2];
    TmfMessage* current = nullptr;
    while (nextLine()) {
        if (std::regex_match(line, match, kMessage)) {
            current = &messages[static_cast<unsigned int>(std::stoul(match[1]))];
            *current = {
                source, PiecesOf(match[2]), {}, static_cast<unsigned int>(std::stoul(match[3])), match[4]};
        } else if (current != nullptr && std::regex_match(line, match, kItem)) {
            current->items.push_back(match[1]);
        } else if (!line.empty() && line != "{" && line != "}" && !line.starts_with("//")) {
            throw ToolError(name + " is not understood from \"" + line + "\"");
        }
    }
}

const TmfMessage* TmfCatalog::Find(const GUID& messageGuid, unsigned int number) const {
    const auto file = messages_.find(messageGuid);
    if (file == messages_.end()) return nullptr;
    const auto message = file->second.find(number);
    return message != file->second.end() ? &message->second : nullptr;
}

}  // namespace tessactl
