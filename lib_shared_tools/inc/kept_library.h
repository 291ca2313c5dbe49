#pragma once

#include <windows.h>

namespace operating_system {

/// A second reference to a library that somebody else has loaded: whoever loads it again while this is held
/// finds it loaded, which costs next to nothing. It loads nothing by itself, so that a library that is
/// missing or refuses to be loaded fails where it is needed. For one thread.
class KeptLibrary {
  public:
    /// @param fileName the library's, without its folder; not copied
    explicit KeptLibrary(const wchar_t* fileName) : fileName_(fileName) {}
    ~KeptLibrary();
    KeptLibrary(const KeptLibrary&) = delete;
    KeptLibrary& operator=(const KeptLibrary&) = delete;

    /// Does nothing if it is held already or not loaded. Never throws.
    void KeepIfLoaded() noexcept;
    /// Gives the reference back: the library's own clean-up may run in here, and what that throws or raises
    /// ends here. Never throws.
    void Release() noexcept;

  private:
    const wchar_t* const fileName_;
    HMODULE module_ = nullptr;
};

}  // namespace operating_system
