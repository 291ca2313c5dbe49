#include "win_setupapi.h"

#include <gtest/gtest.h>
#include <string>

#include "structured_exception.h"
#include "text_of.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using test_support::TextOf;
using windows_api::SetupApi;

namespace {

constexpr GUID kClass = {0x11112222, 0x3333, 0x4444, {5, 5, 6, 6, 7, 7, 8, 8}};

bool IsLoaded(const std::string& dllName) {
    return ::GetModuleHandleA(dllName.c_str()) != nullptr;
}

/// Code of the foreign exception that a call throws, 0 for none.
template <typename Call>
DWORD ForeignCode(Call call) {
    try {
        call();
    } catch (const operating_system::ForeignException& exception) {
        return exception.code;
    }
    return 0;
}

}  // namespace

TEST(SetupApi, ReachesTheSystemsLibrary) {
    SetupApi setupApi;
    EXPECT_TRUE(IsLoaded("setupapi.dll"));
    const HDEVINFO set =
        setupApi.SetupDiGetClassDevsW(&kClass, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    ASSERT_NE(set, INVALID_HANDLE_VALUE);
    SP_DEVICE_INTERFACE_DATA data = {};
    data.cbSize = sizeof data;
    EXPECT_FALSE(setupApi.SetupDiEnumDeviceInterfaces(set, nullptr, &kClass, 0, &data));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS)) << "the last error gets through";
    EXPECT_TRUE(setupApi.SetupDiDestroyDeviceInfoList(set));
}

TEST(SetupApi, MissingLibraryIsNamed) {
    const std::string text = TextOf<CWindowsApiExcp>([] { SetupApi("no_such_setup_library.dll"); });
    EXPECT_TRUE(text.starts_with("FAILED! LoadLibraryA! LE(126): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: no_such_setup_library.dll\n")) << text;
}

TEST(SetupApi, FirstMissingFunctionIsNamedAndTheLibraryFreed) {
    const char* const functions[] = {"SetupDiGetClassDevsW", "SetupDiDestroyDeviceInfoList",
                                     "SetupDiEnumDeviceInterfaces", "SetupDiGetDeviceInterfaceDetailW",
                                     "SetupDiOpenDeviceInterfaceRegKey"};
    for (std::size_t present = 0; present < std::size(functions); ++present) {
        const std::string library = "setup_library_" + std::to_string(present) + ".dll";
        const std::string text = TextOf<CWindowsApiExcp>([&] { SetupApi{library.c_str()}; });
        EXPECT_TRUE(text.starts_with("FAILED! GetProcAddress()! LE(127): ")) << text;
        EXPECT_TRUE(text.ends_with(std::string(" Hint: ") + functions[present] + "\n")) << text;
        EXPECT_FALSE(IsLoaded(library));
    }
}

TEST(SetupApi, KeepsItsLibraryLoadedWhileItLives) {
    {
        const SetupApi setupApi("setup_library_5.dll");
        EXPECT_TRUE(IsLoaded("setup_library_5.dll"));
    }
    EXPECT_FALSE(IsLoaded("setup_library_5.dll"));
}

TEST(SetupApi, ExceptionsOfOtherRunTimesComeAsForeignExceptions) {
    constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;
    SetupApi setupApi("setup_library_5.dll");
    EXPECT_EQ(ForeignCode([&] { setupApi.SetupDiGetClassDevsW(&kClass, nullptr, nullptr, 0); }),
              kCppExceptionOfAnotherRunTime);
    EXPECT_EQ(ForeignCode([&] { setupApi.SetupDiDestroyDeviceInfoList(nullptr); }),
              kCppExceptionOfAnotherRunTime);
    EXPECT_EQ(
        ForeignCode([&] { setupApi.SetupDiEnumDeviceInterfaces(nullptr, nullptr, &kClass, 0, nullptr); }),
        kCppExceptionOfAnotherRunTime);
    EXPECT_EQ(ForeignCode([&] {
                  setupApi.SetupDiGetDeviceInterfaceDetailW(nullptr, nullptr, nullptr, 0, nullptr, nullptr);
              }),
              kCppExceptionOfAnotherRunTime);
    EXPECT_EQ(ForeignCode([&] { setupApi.SetupDiOpenDeviceInterfaceRegKey(nullptr, nullptr, 0, KEY_READ); }),
              kCppExceptionOfAnotherRunTime);
}
