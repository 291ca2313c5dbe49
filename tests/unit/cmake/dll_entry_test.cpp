#include <windows.h>

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

#include "process_census.h"
#include "program_folder.h"

// Every DLL of the project is linked with the C++ run time of its own.
namespace {

using test_support::CommittedMemory;

struct Library {
    const char* name;
    const wchar_t* path;
};

void PrintTo(const Library& library, std::ostream* out) {
    *out << library.name;
}

class LibraryMemory : public testing::TestWithParam<Library> {
  protected:
    static void LoadAndUnload(int rounds) {
        const std::wstring path = test_support::ProgramFolder() + GetParam().path;
        for (int i = 0; i < rounds; ++i) {
            const HMODULE module = ::LoadLibraryW(path.c_str());
            ASSERT_NE(module, nullptr) << ::GetLastError();
            ASSERT_TRUE(::FreeLibrary(module));
            ASSERT_EQ(::GetModuleHandleW(path.c_str()), nullptr) << "still loaded";
        }
    }
};

}  // namespace

TEST_P(LibraryMemory, IsGivenBackWhenTheLibraryIsUnloaded) {
    LoadAndUnload(20);
    const std::size_t before = CommittedMemory();

    LoadAndUnload(200);

    const std::size_t after = CommittedMemory();
    std::printf("%s: %zu KB before, %zu KB after 200 loads\n", GetParam().name, before / 1024, after / 1024);
    EXPECT_LE(after, before + before / 100);
}

INSTANTIATE_TEST_SUITE_P(
    All, LibraryMemory,
    testing::Values(Library{"tessaplug", L"tessaplug.dll"}, Library{"q5orvix64x", L"q5orvix64x.dll"},
                    Library{"winegap", L"winegap.dll"}, Library{"plug_in_works", L"plug_in_works.dll"},
                    Library{"faulty_library", L"faulty\\answers_code\\bin\\q5orvix64x.dll"}),
    [](const auto& info) { return std::string(info.param.name); });
