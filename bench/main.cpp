#include <cstdio>
#include <exception>
#include <string_view>

#include "exception_history.h"
#include "subjects.h"

// Times mean nothing: the machine is shared and virtual. The ratio to the bare counterpart, with which each
// measure takes turns in the same run, does.
namespace {

constexpr struct {
    std::wstring_view name;
    void (*measure)();
} kSubjects[] = {
    {L"trace", &bench::MeasureTracing},
    {L"handler", &bench::MeasureControlHandler},
    {L"plug", &bench::MeasurePlugEvents},
    {L"bare-station", &bench::RunBareStation},
    {L"messages", &bench::MeasureDriverMessages},
    {L"records", &bench::MeasureForeignRecords},
    {L"lifecycle", &bench::MeasureStartAndStop},
    {L"dump", &bench::MeasureMemoryDump},
    {L"decode", &bench::MeasureTraceDecoding},
    {L"init-once", &bench::MeasureInitOnce},
    {L"inits", &bench::SummariseInits},
    {L"growth-template", &bench::MeasureTemplateGrowth},
    {L"growth-components", &bench::MeasureComponentGrowth},
    {L"growth-records", &bench::MeasureRecordGrowth},
    {L"bare-reader", &bench::RunBareReader},
    {L"answers", &bench::MeasureAnswers},
    {L"million", &bench::MeasureLongRecording},
};

}  // namespace

int wmain(int argc, wchar_t** argv) {
    modul_exception::InitializeExceptionHistory();
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // each number as soon as it is there, also into a file
    const std::wstring_view name = argc == 2 ? argv[1] : L"";
    try {
        for (const auto& subject : kSubjects) {
            if (subject.name != name) continue;
            subject.measure();
            return 0;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessabench: %s\n", error.what());
        return 1;
    }
    std::fputs("usage: tessabench WHAT; scripts/bench.sh and scripts/growth.sh run them all\n", stderr);
    return 2;
}
