#include "plug_in.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "module_hooks.h"
#include "program_folder.h"

using host::PlugIn;
using host::PlugInError;
using test_support::ProgramFolder;

namespace {

std::string TextOf(const std::wstring& path) {
    try {
        const PlugIn plugIn(path);
    } catch (const PlugInError& error) {
        return error.what();
    }
    return "loaded";
}

/// What an action lets out, as "code text".
template <typename Action>
std::wstring Error(Action action) {
    try {
        action();
    } catch (const PlugInError& error) {
        return std::to_wstring(error.Code()) + L" " + error.Text();
    }
    return L"nothing";
}

void WINAPI CountStatus(void* context, SERVICE_STATUS* status) {
    *static_cast<DWORD*>(context) = status->dwCheckPoint;
}

class FaultyPlugIn : public testing::Test {
  protected:
    static std::wstring Path(const std::wstring& kind) {
        return ProgramFolder() + L"plug_in_" + kind + L".dll";
    }
    DWORD Init(PlugIn& plugIn) {
        return plugIn.Init(reinterpret_cast<SERVICE_STATUS_HANDLE>(1), &CountStatus, &checkPoint_);
    }
    DWORD checkPoint_ = 0;
    test_support::ModuleHooks hooks_;  // the module's diagnostics, which the guards use
};

}  // namespace

TEST(HostPlugIn, IsLoadedByItsThreeExports) {
    const PlugIn plugIn(ProgramFolder() + L"plug_in_works.dll");
    EXPECT_NE(::GetModuleHandleW(L"plug_in_works.dll"), nullptr);
}

TEST(HostPlugIn, MissingFileNamesThePath) {
    const std::string text = TextOf(L"C:\\no such\\plug_in.dll");
    EXPECT_TRUE(text.starts_with("The plug-in C:\\no such\\plug_in.dll cannot be loaded: ")) << text;
}

TEST(HostPlugIn, MissingExportIsNamedAndTheLibraryFreed) {
    const std::string text = TextOf(ProgramFolder() + L"plug_in_without_cleanup.dll");
    EXPECT_NE(text.find("is no plug-in of this host"), std::string::npos) << text;
    EXPECT_NE(text.find("tessaplug_cleanup"), std::string::npos) << text;
    EXPECT_EQ(::GetModuleHandleW(L"plug_in_without_cleanup.dll"), nullptr);
}

TEST(HostPlugIn, FileThatIsNoLibraryIsRefused) {
    const std::wstring path = L"C:\\windows\\temp\\no_library.dll";
    std::ofstream(std::filesystem::path(path)) << "just text";
    EXPECT_TRUE(TextOf(path).find("cannot be loaded") != std::string::npos);
    ::DeleteFileW(path.c_str());
}

TEST(HostPlugIn, PathOutsideTheCodePageIsToldWhole) {
    try {
        const PlugIn plugIn(L"C:\\\x65E5\x672C.dll");
        FAIL();
    } catch (const PlugInError& error) {
        EXPECT_NE(error.Text().find(L"C:\\\x65E5\x672C.dll"), std::wstring::npos);
        EXPECT_EQ(error.Code(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    }
}

TEST_F(FaultyPlugIn, OneThatIsNotCallsThrough) {
    PlugIn plugIn(Path(L"works"));
    EXPECT_EQ(Init(plugIn), 1u);
    EXPECT_EQ(checkPoint_, 7u);
    EXPECT_EQ(plugIn.ServiceCtrlHandler(13, 0, nullptr), 13u);
    plugIn.Cleanup();
}

TEST_F(FaultyPlugIn, FaultComesOutAsAnErrorThatNamesTheExport) {
    PlugIn init(Path(L"faults_in_init"));
    EXPECT_EQ(Error([&] { Init(init); }), L"1064 The plug-in " + Path(L"faults_in_init") +
                                              L" let the exception 0xC0000005 out of tessaplug_init");
    PlugIn cleanup(Path(L"faults_in_cleanup"));
    EXPECT_TRUE(Error([&] { cleanup.Cleanup(); }).ends_with(L"0xC0000005 out of tessaplug_cleanup"));
    PlugIn handler(Path(L"faults_in_handler"));
    EXPECT_TRUE(Error([&] {
                    handler.ServiceCtrlHandler(11, 0, nullptr);
                }).ends_with(L"0xC0000005 out of tessaplug_service_ctrl_handler"));
}

TEST_F(FaultyPlugIn, ExceptionComesOutAsAnErrorWithItsText) {
    PlugIn init(Path(L"throws_in_init"));
    EXPECT_EQ(Error([&] { Init(init); }),
              L"1064 The plug-in " + Path(L"throws_in_init") +
                  L" let a C++ exception (thrown in a caf\x00e9) out of tessaplug_init");
    PlugIn cleanup(Path(L"throws_in_cleanup"));
    Init(cleanup);
    EXPECT_TRUE(Error([&] { cleanup.Cleanup(); }).ends_with(L"out of tessaplug_cleanup"));
    PlugIn handler(Path(L"throws_in_handler"));
    EXPECT_TRUE(Error([&] {
                    handler.ServiceCtrlHandler(11, 0, nullptr);
                }).ends_with(L"out of tessaplug_service_ctrl_handler"));
}

TEST_F(FaultyPlugIn, StaysLoadedIfToldTo) {
    {
        PlugIn(Path(L"works"));
    }
    EXPECT_EQ(::GetModuleHandleW(L"plug_in_works.dll"), nullptr);
    {
        PlugIn(Path(L"works")).KeepLoaded();
    }
    EXPECT_NE(::GetModuleHandleW(L"plug_in_works.dll"), nullptr);
}
