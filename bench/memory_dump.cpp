#include "memory_dump.h"

#include <windows.h>

#include <stdexcept>
#include <string>

#include "exception_history.h"
#include "measure.h"
#include "subjects.h"
#include "wine_gap_loader.h"

namespace bench {

void MeasureMemoryDump() {
    LoadWineGap();
    operating_system::MemoryDump dump;
    const double time = MillisecondsOf([&dump] {
        if (!dump.Create(L"tessabench.exe")) throw std::runtime_error("no dump can be written");
    });
    const std::wstring path = dump.GetMemoryDumpAbsFileName();
    WIN32_FILE_ATTRIBUTE_DATA file = {};
    ::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &file);
    ::DeleteFileW(path.c_str());
    Print("a full dump of this process", time, "ms");
    Print("  its size", file.nFileSizeLow / 1048576.0, "MB");
    const std::runtime_error exception("the text of an exception");
    Print("filing one exception into the history",
          NanosecondsOf(100000,
                        [&exception] {
                            modul_exception::RecordException(exception, "std::runtime_error(text)",
                                                             "bench\\memory_dump", "Class::Function", 1);
                        }),
          "ns");
}

}  // namespace bench
