#include "kit_list.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace kitrun {
namespace {

std::vector<std::string> Parts(const std::string& line) {
    std::vector<std::string> parts;
    std::istringstream stream(line + '\t');
    for (std::string part; std::getline(stream, part, '\t');)
        parts.push_back(part);
    return parts;
}

bool IsLabel(const std::string& text) {
    return std::ranges::count(kLabels, text) > 0;
}

template <typename Texts>
bool Has(const Texts& texts, const std::string& text) {
    return std::ranges::count(texts, text) > 0;
}

}  // namespace

KitList ParseList(const std::string& text) {
    KitList list;
    std::istringstream lines(text);
    std::getline(lines, list.version);
    if (list.version.ends_with('\r')) list.version.pop_back();
    for (std::string line; std::getline(lines, line);) {
        if (line.ends_with('\r')) line.pop_back();
        if (line.empty()) continue;
        const std::vector<std::string> parts = Parts(line);
        constexpr std::size_t kParts = 6;
        const DWORD seconds = parts.size() == kParts ? std::strtoul(parts[2].c_str(), nullptr, 10) : 0;
        if (seconds == 0 || !IsLabel(parts[0])) throw KitError("the list of tests is damaged: " + line);
        list.tests.push_back({parts[0], parts[1], seconds, parts[3], parts[4], parts[5]});
    }
    return list;
}

bool Selection::Wants(const KitTest& test) const {
    const bool isNamed =
        patterns.empty() || std::ranges::any_of(patterns, [&test](const std::string& pattern) {
            return Matches(pattern.c_str(), test.name.c_str());
        });
    return isNamed && (labels.empty() || Has(labels, test.label));
}

bool Selection::WantsLife() const {
    return Has(labels, kLife) || (labels.empty() && patterns.empty());
}

Selection ParseArguments(const std::vector<std::string>& arguments) {
    Selection selection;
    for (const std::string& argument : arguments) {
        if (argument == "/?" || argument == "--help")
            selection.help = true;
        else if (argument == "/force")
            selection.force = true;
        else if (argument.starts_with('/') || argument.starts_with('-'))
            throw KitError(argument + " is no option; run.cmd /? shows those there are");
        else if (IsLabel(argument) || argument == kLife)
            selection.labels.push_back(argument);
        else
            selection.patterns.push_back(argument);
    }
    return selection;
}

bool Matches(const char* pattern, const char* name) {
    if (*pattern == '\0') return *name == '\0';
    if (*pattern == '*') return Matches(pattern + 1, name) || (*name != '\0' && Matches(pattern, name + 1));
    return *name != '\0' && (*pattern == '?' || *pattern == *name) && Matches(pattern + 1, name + 1);
}

}  // namespace kitrun
