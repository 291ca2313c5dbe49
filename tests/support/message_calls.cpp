#include "message_calls.h"

#include <atomic>

namespace test_support {
namespace {

std::atomic<MessageCalls*> liveCalls = nullptr;

template <typename Function>
Function System(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), name)));
}

DWORD WINAPI Format(DWORD flags, const void* source, DWORD messageId, DWORD languageId, wchar_t* buffer,
                    DWORD size, va_list* arguments) {
    static const auto system = System<decltype(&::FormatMessageW)>("FormatMessageW");
    MessageCalls* calls = liveCalls;
    if (calls == nullptr) return system(flags, source, messageId, languageId, buffer, size, arguments);
    FormatCall call{flags, source, messageId, languageId, arguments != nullptr, {}, true};
    if (call.hasArguments && (flags & FORMAT_MESSAGE_ARGUMENT_ARRAY) != 0) {
        const auto* texts = reinterpret_cast<const wchar_t* const*>(arguments);
        for (int i = 0; i < 99 && texts[i] != nullptr; ++i)
            call.arguments.emplace_back(texts[i]);
        call.lastArgumentIsNull = texts[98] == nullptr;
    }
    calls->formatted.push_back(call);
    if (calls->onFormat) calls->onFormat();
    return system(flags, source, messageId, languageId, buffer, size, arguments);
}

HMODULE WINAPI Load(const wchar_t* file, HANDLE reserved, DWORD flags) {
    static const auto system = System<decltype(&::LoadLibraryExW)>("LoadLibraryExW");
    MessageCalls* calls = liveCalls;
    if (calls == nullptr) return system(file, reserved, flags);
    if (calls->onLoad) calls->onLoad();
    HMODULE module = system(file, reserved, flags);
    calls->loaded.push_back({file, reserved, flags, module});
    return module;
}

HLOCAL WINAPI Free(HLOCAL memory) {
    static const auto system = System<decltype(&::LocalFree)>("LocalFree");
    if (MessageCalls* calls = liveCalls) calls->freed.push_back(memory);
    return system(memory);
}

}  // namespace

MessageCalls::MessageCalls() {
    liveCalls = this;
}

MessageCalls::~MessageCalls() {
    liveCalls = nullptr;
}

}  // namespace test_support

using test_support::Format;
using test_support::Free;
using test_support::Load;

// In place of the import library's pointers.
extern "C" {
extern void* const __imp_FormatMessageW;
extern void* const __imp_LoadLibraryExW;
extern void* const __imp_LocalFree;
void* const __imp_FormatMessageW = reinterpret_cast<void*>(&Format);
void* const __imp_LoadLibraryExW = reinterpret_cast<void*>(&Load);
void* const __imp_LocalFree = reinterpret_cast<void*>(&Free);
}
