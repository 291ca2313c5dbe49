#include <windows.h>
#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "bare_process.h"
#include "event_log_file.h"
#include "event_log_tells.h"
#include "measure.h"
#include "running_station.h"
#include "subjects.h"

namespace bench {
namespace {

constexpr int kFloods = 11;

/// Foreign records that are written while their readers are measured.
struct Flood {
    const char* what;                ///< as the points are named
    std::vector<std::size_t> rates;  ///< records per second
    /// Each record by itself, so that the log changes as often, or those of a hundredth of a second at once,
    /// so that it changes equally often at each rate.
    bool oneByOne = false;
};

/// The System log, large enough for all that is written here. It is empty afterwards.
class RoomySystemLog {
  public:
    RoomySystemLog() {
        DWORD size = sizeof limit_;
        hadLimit_ = ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kLimit, RRF_RT_REG_DWORD, nullptr, &limit_,
                                   &size) == ERROR_SUCCESS;
        const DWORD roomy = 0x40000000;
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kLimit, REG_DWORD, &roomy, sizeof roomy);
    }
    ~RoomySystemLog() {
        file_.Clear();
        if (hadLimit_)
            ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kLimit, REG_DWORD, &limit_, sizeof limit_);
        else
            ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, kLimit);
    }
    RoomySystemLog(const RoomySystemLog&) = delete;
    RoomySystemLog& operator=(const RoomySystemLog&) = delete;

    DWORD LastNumber() const { return file_.State().next - 1; }

    /// Writes so many foreign records in each second of the time.
    /// @throws std::runtime_error if the machine is too slow for that
    void WriteFor(std::chrono::milliseconds time, std::size_t rate, bool oneByOne) const {
        const wine_gap::Event foreign = {L"Service Control Manager",
                                         EVENTLOG_INFORMATION_TYPE,
                                         0,
                                         0x40001B7C,
                                         {L"spooler", L"running"},
                                         {}};
        const auto start = Clock::now();
        std::size_t written = 0;
        const auto writeUntil = [&](Clock::duration passed) {
            const auto due = static_cast<std::size_t>(static_cast<double>(rate) *
                                                      std::chrono::duration<double>(passed).count());
            while (written < due) {
                const std::size_t count = oneByOne ? 1 : due - written;
                file_.Append(std::vector(count, foreign));
                written += count;
            }
        };
        for (auto passed = Clock::duration(0); passed < time; passed = Clock::now() - start) {
            writeUntil(passed);
            ::Sleep(10);
        }
        writeUntil(time);
        if (Clock::now() - start > time * 3 / 2)
            throw std::runtime_error("so many records cannot be written in a second");
    }

  private:
    static constexpr wchar_t kKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\System";
    static constexpr wchar_t kLimit[] = L"MaxSize";

    const wine_gap::EventLogFile file_{L"System"};
    bool hadLimit_ = false;
    DWORD limit_ = 0;
};

/// Records are told of as one setting of the machine says, as long as this lives.
class ToldSo {
  public:
    explicit ToldSo(bool sets) { TellBySetting(sets); }
    ~ToldSo() { TellBySetting(false); }
    ToldSo(const ToldSo&) = delete;
    ToldSo& operator=(const ToldSo&) = delete;
};

using ThreadTimes = std::map<DWORD, double>;

double Milliseconds(const FILETIME& time) {
    return static_cast<double>((static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime) /
           1e4;
}

/// Milliseconds of a processor that each thread of a process has used, kernel and user. GetProcessTimes would
/// be one call, but under Wine it tells of any process the time of the caller.
ThreadTimes ThreadTimesOf(DWORD process) {
    ThreadTimes times;
    const UniqueKernelHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Thread32First(snapshot.get(), &entry); more;
         more = ::Thread32Next(snapshot.get(), &entry)) {
        if (entry.th32OwnerProcessID != process) continue;
        const UniqueKernelHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, entry.th32ThreadID));
        FILETIME created = {};
        FILETIME ended = {};
        FILETIME kernel = {};
        FILETIME user = {};
        if (thread && ::GetThreadTimes(thread.get(), &created, &ended, &kernel, &user))
            times[entry.th32ThreadID] = Milliseconds(kernel) + Milliseconds(user);
    }
    if (times.empty()) throw std::runtime_error("the process has ended");
    return times;
}

/// What a process uses of the processors from the beginning of its life on, in milliseconds.
class ProcessorUse {
  public:
    explicit ProcessorUse(DWORD process) : process_(process), before_(ThreadTimesOf(process)) {}

    double Milliseconds() const {
        double used = 0;
        for (const auto& [thread, time] : ThreadTimesOf(process_)) {
            const auto found = before_.find(thread);
            used += time - (found == before_.end() ? 0 : found->second);
        }
        return used;
    }

  private:
    DWORD process_;
    ThreadTimes before_;
};

/// The number of the last record that the bare reader has read.
class LastRead {
  public:
    LastRead()
        : memory_(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG),
                                       kBareReaderNumber)),
          number_(static_cast<LONG*>(::MapViewOfFile(memory_.get(), FILE_MAP_WRITE, 0, 0, sizeof(LONG)))) {
        if (number_ == nullptr) throw std::runtime_error("no shared memory");
    }
    ~LastRead() { ::UnmapViewOfFile(number_); }
    LastRead(const LastRead&) = delete;
    LastRead& operator=(const LastRead&) = delete;

    DWORD Number() const { return static_cast<DWORD>(std::atomic_ref(*number_).load()); }

  private:
    const UniqueKernelHandle memory_;
    LONG* const number_;
};

/// In percent of one processor.
struct Use {
    double service = 0;
    double bare = 0;
};

/// Service and bare reader read the same records at the same time.
class TwoReaders {
  public:
    /// @param lag in which both have read what was written, unless the machine is busy
    TwoReaders(const RoomySystemLog& log, std::chrono::milliseconds lag) : log_(log), lag_(lag) {
        WaitUntilItListens();
    }

    /// What reading costs that is written in this time, whenever it is read.
    Use Read(std::chrono::milliseconds time, std::size_t rate, bool oneByOne) const {
        const ProcessorUse ofService(service_.ProcessId());
        const ProcessorUse ofReader(reader_.ProcessId());
        log_.WriteFor(time, rate, oneByOne);
        if (rate > 0) WaitUntilRead();
        const auto percent = [time](const ProcessorUse& use) {
            return use.Milliseconds() / static_cast<double>(time.count()) * 100;
        };
        return {percent(ofService), percent(ofReader)};
    }

  private:
    void WaitUntilRead() const {
        ::Sleep(static_cast<DWORD>(lag_.count()));
        const ULONGLONG end = ::GetTickCount64() + 10000;
        while (lastRead_.Number() != log_.LastNumber()) {
            if (::GetTickCount64() > end) throw std::runtime_error("not all records were read");
            ::Sleep(100);
        }
    }

    const RoomySystemLog& log_;
    const std::chrono::milliseconds lag_;
    const LastRead lastRead_;
    const RunningService service_;
    const RunningBareProcess reader_{L"bare-reader"};
};

void Measure(const RoomySystemLog& log, const Flood& flood, std::chrono::milliseconds time,
             std::chrono::milliseconds lag) {
    std::vector<std::vector<double>> service(flood.rates.size());
    std::vector<std::vector<double>> bare(flood.rates.size());
    std::vector<std::vector<double>> difference(flood.rates.size());
    {
        const TwoReaders readers(log, lag);
        readers.Read(time, flood.rates.back(), flood.oneByOne);  // warm
        for (int round = 0; round < kFloods; ++round) {
            for (std::size_t i = 0; i < flood.rates.size(); ++i) {
                const Use use = readers.Read(time, flood.rates[i], flood.oneByOne);
                service[i].push_back(use.service);
                bare[i].push_back(use.bare);
                difference[i].push_back(use.service - use.bare);
            }
        }
    }
    const auto print = [&flood](const char* who, const auto& values) {
        for (std::size_t i = 0; i < flood.rates.size(); ++i)
            PrintPoint(flood.what, who, flood.rates[i], "records/s", values[i], "%");
    };
    print(RunningService::kName, service);
    print("bare-reader", bare);
    print("difference", difference);
}

}  // namespace

void MeasureRecordGrowth() {
    using std::chrono_literals::operator""ms;
    const std::vector<std::size_t> rates = {0, 100, 1000, 10000};
    const std::vector<std::size_t> slowRates = {1000};  // the log is opened anew for each record
    const RoomySystemLog log;
    {
        // The log is quiet for five seconds after a pulse, and is looked at every five seconds.
        const ToldSo pulsed(false);
        Measure(log, {"processor-time", rates}, 5000ms, 5500ms);
        Measure(log, {"processor-time-one-by-one", slowRates, true}, 5000ms, 5500ms);
    }
    const ToldSo set(true);
    Measure(log, {"processor-time-each-told", rates}, 2000ms, 500ms);
    Measure(log, {"processor-time-one-by-one-each-told", slowRates, true}, 2000ms, 500ms);
}

}  // namespace bench
