#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "log_device_store.h"
#include "program_folder.h"

using configuration_library::LogDeviceStore;

namespace {

constexpr wchar_t kRoot[] = L"SOFTWARE\\tessaplug_test_store";

/// The built library on a store of the test's own.
class ConfigurationLibrary : public testing::Test {
  protected:
    ConfigurationLibrary() {
        ::SetEnvironmentVariableW(L"Q5ORVIX_ROOT", kRoot);
        store_.Wipe();
        store_.Initialise();
        module_ = ::LoadLibraryW((test_support::ProgramFolder() + L"q5orvix64x.dll").c_str());
        Resolve(exists_, "LogDeviceExists");
        Resolve(getValue_, "LogDeviceGetValue");
        Resolve(setNdiValue_, "LogDeviceSetNdiValue");
        Resolve(templateGetEnum_, "TemplateGetEnum");
    }
    ~ConfigurationLibrary() override {
        ::FreeLibrary(module_);
        store_.Wipe();
    }

    template <typename Function>
    void Resolve(Function*& pointer, const char* name) {
        pointer = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module_, name)));
        ASSERT_NE(pointer, nullptr) << name;
    }
    DWORD Get(const wchar_t* device, const wchar_t* parameter, DWORD room = 32) {
        length_ = room;
        return getValue_(device, parameter, buffer_, &length_);
    }

    /// Of the template, as the library lists it; empty if it has none.
    std::wstring FirstEntry() {
        length_ = 32;
        return templateGetEnum_(L"DefaultLogDevices", 0, buffer_, &length_) == 0 ? buffer_ : L"";
    }

    LogDeviceStore store_{kRoot};
    HMODULE module_ = nullptr;
    DWORD(WINAPI* exists_)(const wchar_t*, DWORD) = nullptr;
    DWORD(WINAPI* getValue_)(const wchar_t*, const wchar_t*, wchar_t*, DWORD*) = nullptr;
    DWORD(WINAPI* setNdiValue_)(const wchar_t*, const wchar_t*, const wchar_t*) = nullptr;
    DWORD(WINAPI* templateGetEnum_)(const wchar_t*, DWORD, wchar_t*, DWORD*) = nullptr;
    wchar_t buffer_[32] = {};
    DWORD length_ = 0;
};

}  // namespace

TEST_F(ConfigurationLibrary, TellsWhichLogDevicesExist) {
    store_.Create(L"NX4120.XLI.1", {});
    EXPECT_EQ(exists_(L"NX4120.XLI.1", 0), 0u);
    EXPECT_EQ(exists_(L"nx4120.xli.1", 0), 0u) << "case does not matter";
    EXPECT_EQ(exists_(L"NX4120.FWL.1", 0), 8012u);
    EXPECT_EQ(exists_(nullptr, 0), 87u);
    EXPECT_EQ(exists_(L"", 0), 87u);
    EXPECT_EQ(exists_(std::wstring(129, L'n').c_str(), 0), 87u);
    EXPECT_EQ(exists_(L"NX4120.XLI.1", 16), 87u);
    store_.Wipe();
    EXPECT_EQ(exists_(L"NX4120.XLI.1", 0), 8503u);
}

TEST_F(ConfigurationLibrary, ReadsValuesLinksAndDefaults) {
    store_.Create(L"D",
                  {{L"value", L"text"}, {L"link", L"@value"}, {L"broken", L"@nothing"}, {L"empty", L""}});
    EXPECT_EQ(Get(L"D", L"value"), 0u);
    EXPECT_STREQ(buffer_, L"text");
    EXPECT_EQ(length_, 4u);
    EXPECT_EQ(Get(L"D", L"link"), 0u);
    EXPECT_STREQ(buffer_, L"text");
    EXPECT_EQ(Get(L"D", L"broken"), 8042u);
    EXPECT_EQ(Get(L"D", L"empty"), 8046u);
    EXPECT_EQ(Get(L"D", L"nothing"), 8040u);
    EXPECT_EQ(Get(L"E", L"value"), 8012u);
    EXPECT_EQ(Get(L"D", L"value", 4), 234u) << "no room for the terminating zero";
    EXPECT_EQ(length_, 5u);
    EXPECT_EQ(getValue_(L"D", L"value", nullptr, &length_), 87u);
}

TEST_F(ConfigurationLibrary, WritesTheFlagsOfItsDefinition) {
    store_.Create(L"D", {});
    EXPECT_EQ(setNdiValue_(L"D", L"hidden", L"true"), 0u);
    EXPECT_EQ(Get(L"D", L"hidden"), 0u);
    EXPECT_STREQ(buffer_, L"true");
    EXPECT_EQ(setNdiValue_(L"D", L"hidden", L"TRUE"), 87u);
    EXPECT_EQ(setNdiValue_(L"D", L"other", L"true"), 8044u);
    EXPECT_EQ(setNdiValue_(L"E", L"hidden", L"true"), 8012u);
    EXPECT_EQ(setNdiValue_(nullptr, L"hidden", L"true"), 87u);
}

TEST_F(ConfigurationLibrary, ListsItsTemplate) {
    store_.SetTemplateEntries({L"LDT-A.b", L"LDT-C.d"});
    DWORD length = 32;
    EXPECT_EQ(templateGetEnum_(L"DefaultLogDevices", 1, buffer_, &length), 0u);
    EXPECT_STREQ(buffer_, L"LDT-C.d");
    EXPECT_EQ(length, 7u);
    EXPECT_EQ(templateGetEnum_(L"DefaultLogDevices", 2, buffer_, &length), 259u);
    length = 3;
    EXPECT_EQ(templateGetEnum_(L"DefaultLogDevices", 0, buffer_, &length), 234u);
    EXPECT_EQ(templateGetEnum_(L"Other", 0, buffer_, &length), 87u);
}

TEST_F(ConfigurationLibrary, ListsATemplateThatChanges) {
    for (const wchar_t* entry : {L"LDT-A.b", L"LDT-C.d", L"LDT-E.f"}) {
        store_.SetTemplateEntries({entry});
        EXPECT_EQ(FirstEntry(), entry) << "just written";
        ::Sleep(100);  // older than that it is not read again
        EXPECT_EQ(FirstEntry(), entry);
        EXPECT_EQ(FirstEntry(), entry) << "as it is kept";
    }
    store_.SetTemplateEntries({L"LDT-G.h"});
    EXPECT_EQ(FirstEntry(), L"LDT-G.h");
    store_.SetTemplateEntries({L"LDT-I.j"});
    EXPECT_EQ(FirstEntry(), L"LDT-I.j") << "written twice in a moment";
    store_.Wipe();
    EXPECT_EQ(FirstEntry(), L"") << "there is no template any more";
}

TEST_F(ConfigurationLibrary, TemplateEditedByTwoLosesNothing) {
    const auto add = [](const std::wstring& prefix) {
        for (int i = 0; i < 50; ++i)
            LogDeviceStore(kRoot).EditTemplateEntries(
                [&](std::vector<std::wstring>& entries) { entries.push_back(prefix + std::to_wstring(i)); });
    };
    std::thread first(add, L"LDT-A.");
    std::thread second(add, L"LDT-B.");
    first.join();
    second.join();
    EXPECT_EQ(store_.TemplateEntries().size(), 100u);
    store_.Wipe();
    EXPECT_EQ(store_.EditTemplateEntries([](std::vector<std::wstring>&) {}),
              configuration_library::kDefinitionNotExists);
}

TEST_F(ConfigurationLibrary, NamesAreShownAsPeopleKnowThem) {
    for (const auto* name : {L"NX4120.XLI.1", L"A.1", L"B", L"SAYS\"SO\".X.1"})
        EXPECT_EQ(store_.Create(name, {}), configuration_library::kOk);
    EXPECT_EQ(test_support::RunCommand(L"q5config.exe list --json").output,
              "[{\"name\":\"A.1\",\"state\":\"visible\"},{\"name\":\"B\",\"state\":\"visible\"},"
              "{\"name\":\"NX4120(XLI)\",\"state\":\"visible\"},"
              "{\"name\":\"SAYS\\\"SO\\\"(X)\",\"state\":\"visible\"}]\n");
    EXPECT_EQ(test_support::RunCommand(L"q5config.exe delete A.1").exitCode, 0u);
}

TEST_F(ConfigurationLibrary, HalfWrittenLogDeviceIsNone) {
    // As a process leaves it that is killed before the last value is written.
    const std::wstring key = std::wstring(kRoot) + L"\\LogDevices\\HALF";
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"stale", REG_SZ, L"x", 4);
    EXPECT_EQ(exists_(L"HALF", 0), 8012u);
    EXPECT_TRUE(store_.LogDevices().empty());

    EXPECT_EQ(store_.Create(L"HALF", {{L"fresh", L"y"}}), configuration_library::kOk);

    EXPECT_EQ(exists_(L"HALF", 0), 0u);
    EXPECT_EQ(Get(L"HALF", L"stale"), 8040u) << "nothing of it is left";
}

TEST_F(ConfigurationLibrary, MarkOfCompletenessIsNoParameter) {
    EXPECT_EQ(store_.Create(L"D", {{L"(Complete)", L"1"}}), configuration_library::kInvalidParameters);
    EXPECT_EQ(exists_(L"D", 0), 8012u);
    store_.Create(L"D", {});
    EXPECT_EQ(Get(L"D", L"(complete)"), 87u);
}

TEST_F(ConfigurationLibrary, WritersAtOnceLeaveWholeLogDevices) {
    const auto work = [] {
        const LogDeviceStore store(kRoot);
        for (int i = 0; i < 100; ++i) {
            store.Create(L"D", {{L"a", L"1"}, {L"b", L"2"}});
            store.Delete(L"D");
        }
    };
    std::thread first(work);
    std::thread second(work);
    for (int i = 0; i < 200; ++i) {
        std::wstring value;
        const auto code = store_.GetValue(L"D", L"b", value);
        EXPECT_TRUE(code == 0 ? value == L"2" : code == 8012 || code == 8040) << code;
    }
    first.join();
    second.join();
    store_.Create(L"D", {{L"a", L"1"}});
    EXPECT_EQ(exists_(L"D", 0), 0u);
}
