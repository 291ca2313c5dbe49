#pragma once

#include <windows.h>

#include <vector>

#include "exception_history.h"
#include "module_image.h"

namespace tessactl {

/// A module's exception history as it was found in memory that is trusted in nothing.
struct HistoryReading {
    enum class Outcome {
        kRead,
        kNoImage,    ///< the memory at the module's base is no 64-bit image
        kNoSection,  ///< the image has no exception history
        kOtherSize,  ///< it has one that is not laid out as this tool knows it
        kDamaged,    ///< its index points nowhere, or it lies outside of the module
    };
    Outcome outcome = Outcome::kNoImage;
    ULONG sectionSize = 0;  ///< as the image states it
    modul_exception::ExceptionHistory history = {};

    /// The exceptions, oldest first; entries that were never written are left out.
    std::vector<modul_exception::ExceptionRecord> Records() const;
    /// Whether a thread was writing, or about to.
    bool IsBeingWritten() const { return history.lock.OwningThread != nullptr; }
};

/// Finds the section by its name in the headers of a module in memory, and reads it.
/// @param imageSize of the module; nothing outside of it is read
HistoryReading ReadHistory(const MemoryReader& read, ULONG64 base, ULONG64 imageSize);

/// Reads the history of a process that goes on running until nobody wrote it meanwhile: until two readings
/// are the same and the history's lock is free.
/// @param isSettled false if that did not come about in a second; the last reading is returned then
HistoryReading ReadSettledHistory(const MemoryReader& read, ULONG64 base, ULONG64 imageSize, bool& isSettled);

}  // namespace tessactl
