#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "logdevice_db.h"
#include "trace_point.h"
#include "trace_recorder.h"

// The forms of names and template entries are defined by regular expressions. The program takes them apart
// by hand, which is smaller and faster; here the expressions judge it.
namespace {

constexpr int kCases = 20000;

template <typename Char>
std::basic_string<Char> Some(std::mt19937& random, const std::vector<std::basic_string<Char>>& parts) {
    std::basic_string<Char> text;
    for (auto count = 1 + random() % 8; count > 0; --count)
        text += parts[random() % parts.size()];
    return text;
}

/// The number of the trace point that tells which form a name has; 15 if it is refused.
USHORT FormTold(const std::string& name) {
    test_support::TakeTraceNumbers();
    bool isRefused = false;
    try {
        const korvane::LogDeviceName logDevice(name);
    } catch (const std::invalid_argument&) {
        isRefused = true;
    }
    for (const USHORT number : test_support::TakeTraceNumbers())
        if (number != 14) return isRefused == (number == 15) ? number : USHORT{0};
    return 0;
}

USHORT FormByExpressions(const std::string& name) {
    static const std::regex kTemporary(R"(^LDCF_TEMP_LOG_DEVICE.*$)");
    static const std::regex kStrictTemporary(R"(^(LDCF_TEMP_LOG_DEVICE____)(\d*)$)");
    static const std::regex kClassic(R"(^.*\(.*\)$)");
    static const std::regex kNew(R"(^.*\..*\.\d$)");
    if (std::regex_match(name, kTemporary)) return std::regex_match(name, kStrictTemporary) ? 10 : 15;
    if (std::regex_match(name, kClassic)) return 11;
    return std::regex_match(name, kNew) ? 12 : 13;
}

class OneEntry : public quelm::Q5orvix {
  public:
    explicit OneEntry(std::wstring entry) : entry_(std::move(entry)) {}
    void LoadLib() override {}
    DWORD TemplateGetEnum(const wchar_t*, DWORD index, wchar_t* buffer, DWORD* length) override {
        if (index > 0) return quelm::LDCF_ERR_NO_MORE_ITEMS;
        std::ranges::copy(entry_, buffer);
        *length = static_cast<DWORD>(entry_.length());
        return quelm::LDCF_OK;
    }

  private:
    const std::wstring entry_;
};

std::vector<std::string> NamesByExpression(const std::wstring& entry) {
    static const std::wregex kTemplateEntry(LR"(^.*LDT-(.*)\.(.*)$)");
    std::wsmatch match;
    if (!std::regex_match(entry, match, kTemplateEntry)) return {};
    std::string name;
    for (const wchar_t c : match[1].str())
        name += static_cast<char>(c);
    name += '(';
    for (const wchar_t c : match[2].str())
        name += static_cast<char>(std::towupper(c));
    return {name + ")"};
}

}  // namespace

TEST(LogDeviceForms, NamesAreToldApartAsTheExpressionsDo) {
    const std::vector<std::string> parts = {"(", ")",    ".",  ".",  "7",    "A",
                                            "_", "____", "\n", "\r", "\xB2", "LDCF_TEMP_LOG_DEVICE"};
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kVerbose,
                                               trace::kConfiguration);
    std::mt19937 random(1);
    std::vector<int> seen(16);
    for (int i = 0; i < kCases; ++i) {
        std::string name = Some(random, parts);
        if (name.length() > 127) continue;
        const USHORT form = FormByExpressions(name);
        ++seen[form];
        ASSERT_EQ(FormTold(name), form) << name;
    }
    for (const int form : {10, 11, 12, 13, 15})
        EXPECT_GT(seen[static_cast<std::size_t>(form)], 20) << form;
}

TEST(LogDeviceForms, TemplateEntriesAreTakenApartAsTheExpressionDoes) {
    const std::vector<std::wstring> parts = {L"LDT-", L"LDT-", L".", L"a", L"-", L"L", L"\n", L"\r"};
    std::mt19937 random(2);
    int matches = 0;
    for (int i = 0; i < kCases; ++i) {
        const std::wstring entry = Some(random, parts);
        const std::vector<std::string> names = NamesByExpression(entry);
        matches += static_cast<int>(names.size());
        korvane::DefaultLogDeviceDatabaseOrvix logDevices(std::make_unique<OneEntry>(entry));
        ASSERT_EQ(logDevices.Installed(), names) << testing::PrintToString(entry);
    }
    EXPECT_GT(matches, 500);
}
