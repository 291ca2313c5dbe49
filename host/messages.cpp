#include "messages.h"

#include <cstdio>

namespace host {

void ConsoleMessages::Tell(const std::wstring& line) {
    std::fputws((line + L"\n").c_str(), stdout);
}

void ConsoleMessages::Complain(const std::wstring& text) {
    std::fputws((L"tessahost: " + text + L"\n").c_str(), stderr);
}

}  // namespace host
