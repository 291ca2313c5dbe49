#include "history_print.h"

#include <cstdio>
#include <cstring>

#include "text.h"

namespace tessactl {
namespace {

/// A text of a record, which may fill its field, in UTF-8.
template <std::size_t N>
std::string Text(const char (&field)[N]) {
    return InWords({field, ::strnlen(field, N)});
}

}  // namespace

Json JsonOf(const std::wstring& module, const modul_exception::ExceptionRecord& record) {
    return {{"schema", 1},
            {"module", Utf8(module.substr(module.rfind(L'\\') + 1))},
            {"time", Text(record.timeStamp)},
            {"thread", record.threadId},
            {"processor", record.processorNumber},
            {"expression", Text(record.expression)},
            {"what", Text(record.what)},
            {"file", Text(record.file)},
            {"function", Text(record.function)},
            {"line", record.line}};
}

void Print(const modul_exception::ExceptionRecord& record) {
    std::printf("  %s  thread %lu, processor %lu\n    %s\n    thrown by %s in %s(%lu)\n    as %s\n",
                Text(record.timeStamp).c_str(), record.threadId, record.processorNumber,
                Text(record.what).c_str(), Text(record.function).c_str(), Text(record.file).c_str(),
                record.line, Text(record.expression).c_str());
}

std::string OneLineOf(const modul_exception::ExceptionRecord& record) {
    return Text(record.timeStamp) + " UTC, " + Text(record.file) + "(" + std::to_string(record.line) +
           "): " + Text(record.what);
}

}  // namespace tessactl
