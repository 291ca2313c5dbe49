#include <windows.h>

#include <stdexcept>
#include <string>

#include "measure.h"
#include "subjects.h"
#include "trace_decoder.h"
#include "trace_point.h"

namespace bench {

void MeasureTraceDecoding() {
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring folder(self);
    folder.replace(folder.rfind(L'\\') + 1, std::wstring::npos, L"tmf");
    const auto catalog = tessactl::TmfCatalog::FromFolder(folder);
    // "Unhide %S" of tessaplug_pnp, as it is recorded.
    constexpr wchar_t kName[] = L"Fennlink U3(FWL_FAST_LOAD)";
    const auto* bytes = reinterpret_cast<const BYTE*>(kName);
    tessactl::RecordedMessage message;
    message.messageGuid = trace::GuidFrom("a4c8e2b6-7f1d-4e35-8c90-2d6b9f3a1e12");
    message.number = 22;
    message.arguments.assign(bytes, bytes + sizeof kName);
    if (tessactl::Decode(catalog, message).text != "Unhide Fennlink U3(FWL_FAST_LOAD)")
        throw std::runtime_error("the message is not decoded");
    const double line =
        NanosecondsOf(20000, [&] { tessactl::TextLine(message, tessactl::Decode(catalog, message)); });
    Print("trace messages decoded to text", 1e6 / line, "thousand/s");
}

}  // namespace bench
