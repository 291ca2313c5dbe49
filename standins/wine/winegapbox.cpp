#include <windows.h>

#include <string>

#include "message_box_request.h"

// Shows one message box; see message_box_request.h.
namespace {

bool Read(void* buffer, std::size_t size) {
    DWORD read = 0;
    return ::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), buffer, static_cast<DWORD>(size), &read, nullptr) &&
           read == size;
}

bool ReadText(std::wstring& text, DWORD length) {
    text.resize(length);
    return length == 0 || Read(text.data(), length * sizeof(wchar_t));
}

}  // namespace

int wmain() {
    wine_gap::MessageBoxRequest request = {};
    std::wstring title;
    std::wstring message;
    if (!Read(&request, sizeof request) || !ReadText(title, request.titleLength) ||
        !ReadText(message, request.messageLength))
        return 0;
    return ::MessageBoxW(nullptr, message.c_str(), title.c_str(),
                         request.style | MB_SETFOREGROUND | MB_TOPMOST);
}
