#include <windows.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "bare_process.h"
#include "subjects.h"
#include "unique_handle.h"
#include "wine_gap_loader.h"

namespace bench {
namespace {

using UniqueEventLog = UniqueHandle<HANDLE, [](HANDLE log) { ::CloseEventLog(log); }>;

class BareReader {
  public:
    /// Stands behind the newest record then.
    /// @param lastNumber gets the number of the last record that was read
    explicit BareReader(std::atomic_ref<LONG> lastNumber) : lastNumber_(lastNumber) {
        DWORD oldest = 0;
        DWORD count = 0;
        if (!log_ || !::GetOldestEventLogRecord(log_.get(), &oldest) ||
            !::GetNumberOfEventLogRecords(log_.get(), &count))
            throw std::runtime_error("the System log cannot be opened");
        if (count > 0) Read(EVENTLOG_SEEK_READ, oldest + count - 1);
        if (!::NotifyChangeEventLog(log_.get(), changed_.get()))
            throw std::runtime_error("the System log does not tell of changes");
    }

    /// The plug-in's own order of waits and reads.
    void RunUntil(HANDLE stop) {
        const HANDLE events[] = {stop, changed_.get()};
        bool mayHoldMore = false;
        for (;;) {
            if (mayHoldMore) mayHoldMore = ReadOn();
            if (mayHoldMore) continue;
            if (::WaitForMultipleObjects(std::size(events), events, FALSE, kLongestWaitMs) == WAIT_OBJECT_0)
                return;
            mayHoldMore = ReadOn();
            if (mayHoldMore) continue;
            ::ResetEvent(changed_.get());
            mayHoldMore = ReadOn();
        }
    }

  private:
    static constexpr DWORD kLongestWaitMs = 5000;

    bool ReadOn() { return Read(EVENTLOG_SEQUENTIAL_READ, 0); }

    bool Read(DWORD how, DWORD number) {
        DWORD read = 0;
        DWORD needed = 0;
        if (::ReadEventLogW(log_.get(), how | EVENTLOG_FORWARDS_READ, number, buffer_.data(),
                            static_cast<DWORD>(buffer_.size()), &read, &needed)) {
            lastNumber_ = static_cast<LONG>(LastNumber(read));
            return true;
        }
        if (::GetLastError() != ERROR_HANDLE_EOF) throw std::runtime_error("the System log cannot be read");
        return false;
    }

    /// A record ends with its length, so that nothing needs to be taken apart.
    DWORD LastNumber(DWORD read) const {
        DWORD length = 0;
        EVENTLOGRECORD record = {};
        std::memcpy(&length, buffer_.data() + read - sizeof length, sizeof length);
        std::memcpy(&record, buffer_.data() + read - length, sizeof record);
        return record.RecordNumber;
    }

    std::atomic_ref<LONG> lastNumber_;
    const UniqueEventLog log_{::OpenEventLogW(nullptr, L"System")};
    const UniqueKernelHandle changed_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::vector<std::byte> buffer_ = std::vector<std::byte>(0x10000);
};

}  // namespace

void RunBareReader() {
    LoadWineGap();
    const UniqueKernelHandle ready(::OpenEventW(EVENT_MODIFY_STATE, FALSE, kBareProcessIsReady));
    const UniqueKernelHandle stop(::OpenEventW(SYNCHRONIZE, FALSE, kBareProcessShallStop));
    const UniqueKernelHandle memory(::OpenFileMappingW(FILE_MAP_WRITE, FALSE, kBareReaderNumber));
    auto* number = static_cast<LONG*>(::MapViewOfFile(memory.get(), FILE_MAP_WRITE, 0, 0, sizeof(LONG)));
    if (!ready || !stop || number == nullptr)
        throw std::runtime_error("the bare reader is run by the measurement only");
    BareReader reader{std::atomic_ref(*number)};
    ::SetEvent(ready.get());
    reader.RunUntil(stop.get());
}

}  // namespace bench
