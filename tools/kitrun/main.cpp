#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "footprint.h"
#include "kit_list.h"
#include "machine.h"
#include "report.h"
#include "service_life.h"
#include "test_process.h"

// kitrun: tries out everything that the kit holds on the machine that it was unpacked on. It shares no code
// with what it tries out.
namespace kitrun {
namespace {

enum ExitCode { kGood = 0, kBad = 1, kUsage = 2, kRefused = 3 };

constexpr char kHelp[] =
    "usage: run.cmd [/force] [LABEL...] [NAME...]\n"
    "\n"
    "Runs the tests, each in a process of its own, then the life of the service, removes what they made, "
    "and\n"
    "writes result.txt. As administrator. Without arguments everything, a quarter of an hour.\n"
    "\n"
    "  LABEL   plain     needs nothing but a Windows\n"
    "          service   needs the service manager and an administrator's rights\n"
    "          session   shows message boxes to the user who is logged on\n"
    "          driver    needs the stand-in drivers, and test signing\n"
    "          winegap   is for Wine only\n"
    "          life      the service is installed, started, looked at, stopped and removed\n"
    "  NAME    tests of that name; * is any text, ? any character: Station.*\n"
    "  /force  also on a machine that has parts of a real station, which the tests change\n"
    "\n"
    "Ends with 0 if everything passed, 1 if not, 2 if it was not understood, 3 if it may not run here.\n";

std::atomic<bool> isInterrupted = false;

/// What was made is removed first. When a window is closed Windows ends the process as soon as this returns,
/// or after some seconds.
BOOL WINAPI OnInterrupt(DWORD event) {
    isInterrupted = true;
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) ::Sleep(INFINITE);
    return TRUE;
}

std::wstring KitFolder() {
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring program = path;
    return program.substr(0, program.rfind(L'\\') + 1);
}

std::string ListOfTests(const std::wstring& path) {
    std::string text = ContentOf(path);
    if (text.empty()) throw KitError(Utf8(path) + " is missing: unpack the whole kit");
    return text;
}

/// Takes the place of a file at once and lasts, as a driver may take the machine down.
/// @param text with line feeds; the file gets carriage returns, too, as Windows' own editor wants it
bool Replace(const std::wstring& path, const std::string& text) {
    const std::wstring part = path + L".part";
    std::ofstream file{std::filesystem::path(part)};
    file << text;
    file.close();
    return file &&
           ::MoveFileExW(part.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
}

std::string Now() {
    SYSTEMTIME time = {};
    ::GetLocalTime(&time);
    char text[32] = {};
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", time.wYear, time.wMonth, time.wDay,
                  time.wHour, time.wMinute, time.wSecond);
    return text;
}

std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts)
        joined += "\n  " + text;
    return joined;
}

class Run {
  public:
    Run(std::wstring folder, Selection selection)
        : folder_(std::move(folder)), programs_(folder_ + L"bin\\"), selection_(std::move(selection)) {
        report_.system = SystemVersion();
        report_.started = Now();
        report_.version = "tessaplug, kit of an unknown version";
    }

    ExitCode Everything() {
        const KitList list = ParseList(ListOfTests(folder_ + L"tests.txt"));
        report_.version = list.version;
        if (!MayRun()) return Refuse();
        if (!selection_.WantsLife() &&
            std::ranges::none_of(list.tests, [this](const KitTest& test) { return selection_.Wants(test); }))
            throw KitError("no test has such a name and label");
        ::SetConsoleCtrlHandler(&OnInterrupt, TRUE);
        std::printf("%s\n%s\n", report_.version.c_str(), report_.system.c_str());
        if (!Save()) throw KitError(Utf8(ResultPath()) + " cannot be written");
        const Footprint footprint(programs_);
        for (const std::string& label : kLabels)
            RunLabel(label, list.tests);
        if (selection_.WantsLife() && !isInterrupted) Live();
        for (const std::string& left : footprint.Remove())
            report_.remarks.push_back("could not be removed: " + left);
        if (isInterrupted) report_.remarks.emplace_back("interrupted by the user");
        report_.isFinished = !isInterrupted;
        const char* const verdict = report_.IsGood() ? "passed" : "FAILED";
        if (!Save()) {
            std::printf("%s, but %s cannot be written\n", verdict, Utf8(ResultPath()).c_str());
            return kBad;
        }
        std::printf("%s: see %s\n", verdict, Utf8(ResultPath()).c_str());
        return report_.IsGood() ? kGood : kBad;
    }

  private:
    std::wstring ResultPath() const { return folder_ + L"result.txt"; }

    /// A failure on the way must not keep what was made from being removed; the last one counts.
    bool Save() {
        report_.seconds = static_cast<DWORD>((::GetTickCount64() - start_) / 1000);
        return Replace(ResultPath(), report_.Text());
    }

    bool MayRun() {
        const std::vector<std::string> parts = PartsOfAStation(programs_);
        if (!IsAdministrator())
            report_.refusal =
                "run.cmd has to be run as administrator: right-click it, or open a command prompt, with "
                "\"Run as "
                "administrator\".";
        else if (!parts.empty() && !selection_.force)
            report_.refusal =
                "The tests would change what this machine has of a real station:" + Joined(parts) +
                "\nTake another machine, or run.cmd /force if this one may be changed.";
        else if (!parts.empty())
            report_.remarks.push_back("run in spite of parts of a station:" + Joined(parts));
        return report_.refusal.empty();
    }

    ExitCode Refuse() {
        Save();
        std::fprintf(stderr, "%s\n", report_.refusal.c_str());
        DWORD mode = 0;
        if (::GetConsoleMode(::GetStdHandle(STD_INPUT_HANDLE), &mode)) {
            std::fputs("Press Enter.\n",
                       stderr);  // who started it from the desktop could not read it otherwise
            std::getchar();
        }
        return kRefused;
    }

    void RunLabel(const std::string& label, const std::vector<KitTest>& tests) {
        const std::string reason = LeftOutBecause(label);
        int leftOut = 0;
        for (const KitTest& test : tests) {
            if (isInterrupted || test.label != label || !selection_.Wants(test)) continue;
            if (reason.empty())
                RunTest(test);
            else
                ++leftOut;
        }
        if (leftOut > 0)
            report_.leftOut.push_back(std::to_string(leftOut) + " tests of " + label + ": " + reason);
        Save();
    }

    void RunTest(const KitTest& test) {
        const std::wstring program(test.program.begin(), test.program.end());
        const std::wstring arguments(test.arguments.begin(), test.arguments.end());
        TestOutcome outcome;
        outcome.test = test;
        outcome.result = RunLimited(L"\"" + programs_ + program + L"\" " + arguments, programs_, test.seconds,
                                    test.environment);
        outcome.verdict = Judge(outcome.result);
        std::printf("%-8s %-9s %s\n", test.label.c_str(), Name(outcome.verdict), test.name.c_str());
        std::fflush(stdout);
        report_.outcomes.push_back(std::move(outcome));
        if (test.label == "driver") Save();
    }

    void Live() {
        report_.life = LiveOnce(programs_, folder_ + L"life.etl", [](const LifeStep& step) {
            std::printf("life     %-9s %s\n", step.isRight ? "right" : "WRONG", step.command.c_str());
            std::fflush(stdout);
        });
        Save();
    }

    const std::wstring folder_;
    const std::wstring programs_;
    const Selection selection_;
    const ULONGLONG start_ = ::GetTickCount64();
    Report report_;
};

}  // namespace
}  // namespace kitrun

int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i)
        arguments.push_back(kitrun::Utf8(argv[i]));
    try {
        kitrun::Selection selection = kitrun::ParseArguments(arguments);
        if (selection.help) {
            std::fputs(kitrun::kHelp, stdout);
            return kitrun::kGood;
        }
        return kitrun::Run(kitrun::KitFolder(), std::move(selection)).Everything();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "run.cmd: %s\n", error.what());
        return kitrun::kUsage;
    }
}
