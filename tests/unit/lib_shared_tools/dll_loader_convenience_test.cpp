#include "dll_loader_convenience.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

#include "text_of.h"
#include "windows_api_excp.h"

using operating_system::CheckAndInitFunctionPointer;
using test_support::TextOf;

namespace {

using TickCount = DWORD WINAPI();

DWORD WINAPI OwnTickCount() {
    return 42;
}

HMODULE Kernel32() {
    return ::GetModuleHandleW(L"kernel32.dll");
}

}  // namespace

TEST(CheckAndInitFunctionPointer, ResolvesAnExport) {
    TickCount* pointer = nullptr;
    CheckAndInitFunctionPointer(Kernel32(), pointer, "GetTickCount");
    EXPECT_EQ(reinterpret_cast<void*>(pointer),
              reinterpret_cast<void*>(::GetProcAddress(Kernel32(), "GetTickCount")));
}

TEST(CheckAndInitFunctionPointer, LeavesAPointerAloneThatIsSetAlready) {
    TickCount* pointer = &OwnTickCount;
    CheckAndInitFunctionPointer(Kernel32(), pointer, "GetTickCount");
    EXPECT_EQ(pointer, &OwnTickCount);
    EXPECT_NO_THROW(CheckAndInitFunctionPointer(Kernel32(), pointer, "NoSuchFunction"));
}

TEST(CheckAndInitFunctionPointer, NeedsALoadedLibraryEvenThen) {
    for (TickCount* pointer : {static_cast<TickCount*>(nullptr), &OwnTickCount}) {
        EXPECT_EQ(TextOf<std::runtime_error>(
                      [&] { CheckAndInitFunctionPointer(nullptr, pointer, "GetTickCount"); }),
                  "Invalid Sequence! Open DLL first!");
    }
}

TEST(CheckAndInitFunctionPointer, NamesTheFunctionThatIsMissing) {
    TickCount* pointer = nullptr;
    const std::string text = TextOf<modul_exception::CWindowsApiExcp>(
        [&] { CheckAndInitFunctionPointer(Kernel32(), pointer, "NoSuchFunction"); });
    EXPECT_TRUE(text.starts_with("FAILED! GetProcAddress()! LE(127): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: NoSuchFunction\n")) << text;
    EXPECT_EQ(pointer, nullptr);
}
