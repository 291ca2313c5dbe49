#include "long_recording.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "trace_file.h"

namespace test_support {
namespace {

constexpr ULONG64 kStart = 134'000'000'000'000'000;  // a file time in the year 2025
// The plug-in's files, as their trace points name them.
constexpr GUID kFunctionTrace = {
    0x6c1f2f5e, 0x0b0f, 0x4f6e, {0x9f, 0x0c, 0x3a, 0x52, 0xd4, 0xe1, 0xb7, 0x01}};
constexpr GUID kPlugAndPlay = {0xa4c8e2b6, 0x7f1d, 0x4e35, {0x8c, 0x90, 0x2d, 0x6b, 0x9f, 0x3a, 0x1e, 0x12}};
constexpr DWORD kProcess = 4711;
constexpr DWORD kEntry = 10;
constexpr DWORD kExit = 11;
constexpr DWORD kUnhide = 22;

class Recording {
  public:
    explicit Recording(const std::wstring& path) : file_(std::filesystem::path(path), std::ios::binary) {
        wine_gap::TraceFileHeader header = {};
        std::memcpy(header.magic, wine_gap::TraceFileHeader::kMagic, sizeof header.magic);
        header.bufferSize = 64;
        header.startTime = kStart;
        header.endTime = kStart + 1;
        file_.write(reinterpret_cast<const char*>(&header), sizeof header);
    }
    void Call(DWORD number, DWORD thread, std::string_view function) {
        Write(kFunctionTrace, number, thread,
              std::string("tessaplug_pnp\0", 14).append(function).append(1, '\0'));
    }
    void Say(DWORD thread, std::wstring_view name) {
        std::string bytes(reinterpret_cast<const char*>(name.data()), name.size() * sizeof(wchar_t));
        Write(kPlugAndPlay, kUnhide, thread, bytes.append(sizeof(wchar_t), '\0'));
    }
    /// @throws std::runtime_error if it is not whole
    void Close() {
        file_.close();
        if (!file_) throw std::runtime_error("the recording cannot be written");
    }

  private:
    void Write(const GUID& source, DWORD number, DWORD thread, const std::string& arguments) {
        const wine_gap::TraceFileRecord record = {static_cast<DWORD>(sizeof record + arguments.size()),
                                                  number,
                                                  kStart + 10 * ++count_,
                                                  kProcess,
                                                  thread,
                                                  source};
        file_.write(reinterpret_cast<const char*>(&record), sizeof record);
        file_.write(arguments.data(), static_cast<std::streamsize>(arguments.size()));
    }

    std::ofstream file_;
    std::size_t count_ = 0;
};

}  // namespace

void WriteLongRecording(const std::wstring& path, std::size_t messages) {
    constexpr std::string_view kFunctions[] = {"tessaplug::DeviceNotifier::OnDeviceArrival",
                                               "tessaplug::SysAdjust::UnhideAccessPoints",
                                               "korvane::LogDevice::WriteStringParameter"};
    constexpr std::size_t kRound = 7;
    Recording recording(path);
    for (std::size_t i = 0; i < messages; ++i) {
        const auto thread = static_cast<DWORD>(100 + i / kRound % 3);
        const std::size_t step = i % kRound;
        if (step < 3)
            recording.Call(kEntry, thread, kFunctions[step]);
        else if (step == 3)
            recording.Say(thread, L"Fennlink U3(FWL_FAST_LOAD)");
        else
            recording.Call(kExit, thread, kFunctions[kRound - 1 - step]);
    }
    recording.Close();
}

}  // namespace test_support
