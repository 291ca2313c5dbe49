#include "exception_history_reader.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace tessactl {
namespace {

using modul_exception::ExceptionHistory;
using modul_exception::ExceptionRecord;
using Outcome = HistoryReading::Outcome;

constexpr char kHistorySection[] = ".exhist";

Outcome FindSection(const ModuleImage& image, IMAGE_SECTION_HEADER& section) {
    const auto headers = image.ReadHeaders();
    if (!headers) return Outcome::kNoImage;
    for (WORD i = 0; i < headers->nt.FileHeader.NumberOfSections; ++i) {
        if (!image.GetSection(*headers, i, section)) return Outcome::kNoImage;
        const auto* name = reinterpret_cast<const char*>(section.Name);
        if (std::strncmp(name, kHistorySection, sizeof section.Name) == 0) return Outcome::kRead;
    }
    return Outcome::kNoSection;
}

/// Byte by byte, with what lies between the members.
bool IsSame(const ExceptionHistory& a, const ExceptionHistory& b) {
    return std::ranges::equal(std::as_bytes(std::span(&a, 1)), std::as_bytes(std::span(&b, 1)));
}

}  // namespace

std::vector<ExceptionRecord> HistoryReading::Records() const {
    std::vector<ExceptionRecord> records;
    for (ULONG64 n = 0; n < ExceptionHistory::kCapacity; ++n) {
        const auto& record = history.records[(history.writeIndex + n) % ExceptionHistory::kCapacity];
        if (record.threadId != 0) records.push_back(record);
    }
    return records;
}

HistoryReading ReadHistory(const MemoryReader& read, ULONG64 base, ULONG64 imageSize) {
    const ModuleImage image(read, base, imageSize);
    HistoryReading reading;
    IMAGE_SECTION_HEADER section = {};
    reading.outcome = FindSection(image, section);
    if (reading.outcome != Outcome::kRead) return reading;
    reading.sectionSize = section.Misc.VirtualSize;
    if (reading.sectionSize != sizeof reading.history)
        reading.outcome = Outcome::kOtherSize;
    else if (!image.Get(section.VirtualAddress, reading.history) ||
             reading.history.writeIndex >= ExceptionHistory::kCapacity)
        reading.outcome = Outcome::kDamaged;
    return reading;
}

HistoryReading ReadSettledHistory(const MemoryReader& read, ULONG64 base, ULONG64 imageSize,
                                  bool& isSettled) {
    constexpr ULONGLONG kLongestMs = 1000;
    const ULONGLONG end = ::GetTickCount64() + kLongestMs;
    HistoryReading before = ReadHistory(read, base, imageSize);
    for (;;) {
        const HistoryReading reading = ReadHistory(read, base, imageSize);
        isSettled = reading.outcome == before.outcome && !reading.IsBeingWritten() &&
                    IsSame(reading.history, before.history);
        if (isSettled || ::GetTickCount64() >= end) return reading;
        before = reading;
        ::Sleep(1);
    }
}

}  // namespace tessactl
