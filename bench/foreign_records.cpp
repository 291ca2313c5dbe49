#include <windows.h>

#include <cstddef>
#include <cwchar>
#include <memory>
#include <stdexcept>
#include <vector>

#include "event_log_file.h"
#include "event_log_tells.h"
#include "evlog_check.h"
#include "measure.h"
#include "private_bytes.h"
#include "subjects.h"
#include "wine_gap_loader.h"

namespace bench {
namespace {

constexpr wchar_t kBenchLog[] = L"TessaBench";
constexpr wchar_t kBenchLogKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\TessaBench";
constexpr std::size_t kForeignRecords = 1000000;

void AppendForeignRecords(const wine_gap::EventLogFile& file) {
    constexpr std::size_t kBatch = 10000;
    const std::vector<wine_gap::Event> batch(
        kBatch,
        {L"Service Control Manager", EVENTLOG_INFORMATION_TYPE, 0, 0x40001B7C, {L"spooler", L"running"}, {}});
    for (std::size_t i = 0; i < kForeignRecords; i += kBatch)
        file.Append(batch);
}

std::size_t CountWholeRecords(const std::vector<std::byte>& buffer) {
    std::size_t count = 0;
    for (std::size_t at = 0; at < buffer.size(); ++count)
        at += reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at)->Length;
    return count;
}

/// Records one after the other, by a road of its own.
class Road {
  public:
    virtual ~Road() = default;

    /// Nanoseconds of one record, as many being read as belong to one round.
    double ReadRound() {
        // Each round ends with a whole buffer: some are left over for that.
        constexpr std::size_t kRecordsOfRound = kForeignRecords / (kRounds + 2);
        std::size_t count = 0;
        const auto start = Clock::now();
        while (count < kRecordsOfRound)
            count += ReadSome();
        return std::chrono::duration<double, std::nano>(Clock::now() - start).count() /
               static_cast<double>(count);
    }

  private:
    /// @return how many
    virtual std::size_t ReadSome() = 0;
};

/// The same buffers, each record copied and its source name compared.
class BareLoop : public Road {
  public:
    ~BareLoop() override { ::CloseEventLog(log_); }

  private:
    std::size_t ReadSome() override {
        DWORD read = 0;
        DWORD needed = 0;
        if (!::ReadEventLogW(log_, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0, buffer_.data(),
                             static_cast<DWORD>(buffer_.size()), &read, &needed))
            throw std::runtime_error("the log cannot be read");
        std::size_t count = 0;
        for (DWORD at = 0; at < read; ++count) {
            const auto* raw = reinterpret_cast<const EVENTLOGRECORD*>(buffer_.data() + at);
            record_.assign(buffer_.data() + at, buffer_.data() + at + raw->Length);
            if (std::wcscmp(reinterpret_cast<const wchar_t*>(record_.data() + sizeof(EVENTLOGRECORD)),
                            L"fenlu3") == 0)
                throw std::runtime_error("there should be no record of the driver");
            at += raw->Length;
        }
        return count;
    }

    const HANDLE log_ = ::OpenEventLogW(nullptr, kBenchLog);
    std::vector<std::byte> buffer_ = std::vector<std::byte>(0x10000);
    std::vector<std::byte> record_;
};

/// The plug-in's reader, parser and filter.
class PlugInLoop : public Road {
  public:
    PlugInLoop() {
        log_.Open();
        log_.CancelRead();
        log_.BlockingRead();  // takes its position
    }

  private:
    std::size_t ReadSome() override {
        const std::vector<std::byte> buffer = log_.BlockingRead();
        parser_.Process(buffer, messages_);
        return CountWholeRecords(buffer);
    }

    operating_system::EventLog log_{kBenchLog};
    operating_system::EventRecordParser parser_{std::make_shared<operating_system::FilterChain>(
        operating_system::FilterChain{std::make_shared<operating_system::Fenlu3>()})};
    std::vector<operating_system::UserMessage> messages_;
};

}  // namespace

void MeasureForeignRecords() {
    LoadWineGap();
    const DWORD limit = 0x20000000;
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kBenchLogKey, L"MaxSize", REG_DWORD, &limit, sizeof limit);
    const wine_gap::EventLogFile file(kBenchLog);
    file.Clear();
    TellBySetting(true);  // the first read is not to wait for a pulse that came before it
    Comparison times;
    SIZE_T before = 0;
    SIZE_T after = 0;
    {
        BareLoop bare;
        PlugInLoop plugIn;
        AppendForeignRecords(file);
        before = PrivateBytes();
        times = Alternate([&] { return plugIn.ReadRound(); }, [&] { return bare.ReadRound(); });
        after = PrivateBytes();
    }
    file.Clear();
    TellBySetting(false);
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kBenchLogKey);
    Print("a bare loop over a million foreign records, each", "reader, parser and filter", "ns", times);
    Print("memory after the million, compared with before",
          (static_cast<double>(after) - static_cast<double>(before)) / 1024, "KB");
}

}  // namespace bench
