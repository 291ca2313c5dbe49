#include "history_print.h"

#include <cstdio>
#include <cstring>

#include "json.h"
#include "text.h"

namespace tessactl {
namespace {

/// A text of a record, which may fill its field, in UTF-8.
template <std::size_t N>
std::string Text(const char (&field)[N]) {
    return InWords({field, ::strnlen(field, N)});
}

}  // namespace

std::string JsonOf(const std::wstring& module, const modul_exception::ExceptionRecord& record) {
    JsonObject object;
    object.Add("module", module.substr(module.rfind(L'\\') + 1))
        .Add("time", Text(record.timeStamp))
        .Add("thread", record.threadId)
        .Add("processor", record.processorNumber)
        .Add("expression", Text(record.expression))
        .Add("what", Text(record.what))
        .Add("file", Text(record.file))
        .Add("function", Text(record.function))
        .Add("line", record.line);
    return object.Text();
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
