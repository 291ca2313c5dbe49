#pragma once

#include <windows.h>

#include <string>
#include <utility>

namespace test_support {

/// Counts how often libraries of one file name are loaded into and unloaded from this process, by what the
/// loader itself tells: a second reference is no load.
class LibraryLoads {
  public:
    explicit LibraryLoads(std::wstring fileName) : fileName_(std::move(fileName)) {
        const auto add = Function<AddNotification>("LdrRegisterDllNotification");
        if (add != nullptr) add(0, &OnLoader, this, &cookie_);
    }
    ~LibraryLoads() {
        if (cookie_ != nullptr) Function<RemoveNotification>("LdrUnregisterDllNotification")(cookie_);
    }
    LibraryLoads(const LibraryLoads&) = delete;
    LibraryLoads& operator=(const LibraryLoads&) = delete;

    int Loaded() const { return loaded_; }
    int Unloaded() const { return unloaded_; }

  private:
    // As documented; no header has them.
    struct Text {
        USHORT bytes;
        USHORT room;
        const wchar_t* characters;
    };
    struct Library {
        ULONG flags;
        const Text* path;
        const Text* name;
        void* base;
        ULONG size;
    };
    using OnNotification = void CALLBACK(ULONG reason, const Library* library, void* context);
    using AddNotification = LONG NTAPI(ULONG flags, OnNotification* function, void* context, void** cookie);
    using RemoveNotification = LONG NTAPI(void* cookie);

    template <typename Type>
    static Type* Function(const char* name) {
        return reinterpret_cast<Type*>(
            reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), name)));
    }
    static void CALLBACK OnLoader(ULONG reason, const Library* library, void* context) {
        constexpr ULONG kLoaded = 1;
        auto& self = *static_cast<LibraryLoads*>(context);
        const std::wstring name(library->name->characters, library->name->bytes / sizeof(wchar_t));
        if (::lstrcmpiW(name.c_str(), self.fileName_.c_str()) != 0) return;
        ++(reason == kLoaded ? self.loaded_ : self.unloaded_);
    }

    const std::wstring fileName_;
    void* cookie_ = nullptr;
    int loaded_ = 0;
    int unloaded_ = 0;
};

}  // namespace test_support
