#pragma once

#include <windows.h>

#include <string>

namespace bench {

/// The configuration library's own calls, without the plug-in.
class BareLibrary {
  public:
    /// @throws std::runtime_error if there is none
    BareLibrary();
    ~BareLibrary();
    BareLibrary(const BareLibrary&) = delete;
    BareLibrary& operator=(const BareLibrary&) = delete;

    /// What the plug-in asks of the library to show or hide one model.
    /// @param model as log device names in the new spelling begin
    /// @param hidden "true" or "false"
    void ShowOrHide(const wchar_t* model, const wchar_t* hidden) const;

  private:
    void ListTemplate() const;
    void ShowOrHideOne(const std::wstring& logDevice, const wchar_t* hidden) const;
    template <typename Function>
    void Resolve(Function*& pointer, const char* name);

    HMODULE module_;
    DWORD(WINAPI* exists_)(const wchar_t*, DWORD) = nullptr;
    DWORD(WINAPI* setNdiValue_)(const wchar_t*, const wchar_t*, const wchar_t*) = nullptr;
    DWORD(WINAPI* templateGetEnum_)(const wchar_t*, DWORD, wchar_t*, DWORD*) = nullptr;
};

/// The kinds of log devices that each model has.
inline constexpr const wchar_t* kKinds[] = {L"AUTO", L"XLI", L"PROFIBUS", L"FWL", L"FWL_FAST_LOAD"};

}  // namespace bench
