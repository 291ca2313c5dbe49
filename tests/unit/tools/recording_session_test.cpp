#include "recording_session.h"

#include <gtest/gtest.h>
#include <string>

#include "command.h"
#include "text.h"
#include "tracing_fixture.h"

using tessactl::LossesInWords;
using tessactl::RunningRecording;
using tessactl::StartRecording;
using tessactl::StopRecording;
using tracing_test::Told;

namespace {

constexpr GUID kSharedTools = {0xadc03568, 0x3c4e, 0x4804, {0x97, 0x10, 0x96, 0x8b, 0x39, 0x9e, 0x7f, 0x56}};
constexpr GUID kPlugIn = {0xee8c6c7c, 0x3531, 0x4072, {0xa8, 0x29, 0xd7, 0x41, 0xb5, 0x89, 0xe5, 0xa2}};

/// Somebody who traces with one of the plug-in's control GUIDs.
class Provider {
  public:
    explicit Provider(const GUID& control) {
        TRACE_GUID_REGISTRATION registration = {&control, nullptr};
        EXPECT_EQ(::RegisterTraceGuidsW(&tracing_test::OnControl, &told_, &control, 1, &registration, nullptr,
                                        nullptr, &handle_),
                  0U);
    }
    ~Provider() { ::UnregisterTraceGuids(handle_); }
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;
    /// What it was told when a recording began.
    const Told& ToldAtBegin() const {
        EXPECT_TRUE(test_support::Eventually([&] { return told_.request == WMI_ENABLE_EVENTS; }));
        return told_;
    }

  private:
    Told told_;
    TRACEHANDLE handle_ = 0;
};

class RecordingSession : public WineGap {
  protected:
    RecordingSession() { StopRecording(); }
    ~RecordingSession() override {
        StopRecording();
        ::DeleteFileW(tracing_test::kFile);
    }
};

}  // namespace

TEST_F(RecordingSession, HasBothPartsOfThePlugInTraceWhatIsAskedFor) {
    const Provider providers[] = {Provider(kSharedTools), Provider(kPlugIn)};
    StartRecording({tracing_test::kFile, 3, 0x4});
    for (const Provider& provider : providers) {
        EXPECT_EQ(provider.ToldAtBegin().level, 3);
        EXPECT_EQ(provider.ToldAtBegin().flags, 4U);
    }
}

TEST_F(RecordingSession, IsToldWithItsLimitAndWhatItHasLost) {
    const Provider provider(kPlugIn);
    StartRecording({tracing_test::kFile, 5, 0xFFFFFFFF, 3, true});
    const std::string tooLarge(65536, 'x');
    EXPECT_EQ(::TraceMessage(provider.ToldAtBegin().logger, 0x2B, &tracing_test::kMessageGuid, 17,
                             tooLarge.data(), tooLarge.size(), nullptr),
              static_cast<ULONG>(ERROR_MORE_DATA));
    for (const auto& recording : {RunningRecording(), StopRecording()}) {
        const tessactl::RecordingState state = recording.value_or(tessactl::RecordingState{});
        EXPECT_EQ(state.file, tracing_test::kFile);
        EXPECT_TRUE(state.isCircular);
        EXPECT_EQ(state.megabytes, 3U);
        EXPECT_EQ(state.eventsLost, 1U);
        EXPECT_EQ(state.buffersLost, 0U);
    }
    EXPECT_FALSE(RunningRecording());
    EXPECT_FALSE(StopRecording());
}

TEST_F(RecordingSession, IntoAPathThatIsTooLongIsRefused) {
    const auto refusal = [](std::size_t length) -> std::string {
        try {
            StartRecording({L"C:\\" + std::wstring(length - 3, L'x')});
        } catch (const tessactl::ToolError& error) {
            return error.what();
        }
        return {};
    };
    EXPECT_TRUE(refusal(1024).starts_with("the recording's path is too long: C:\\"));
    EXPECT_TRUE(refusal(1023).starts_with("starting the recording failed: ")) << "by the system";
}

TEST(RecordingLosses, AreToldInWords) {
    EXPECT_EQ(LossesInWords(0, 0), "no events were lost");
    EXPECT_EQ(LossesInWords(1, 0), "1 event was lost");
    EXPECT_EQ(LossesInWords(0, 1), "1 buffer was lost");
    EXPECT_EQ(LossesInWords(2, 0), "2 events were lost");
    EXPECT_EQ(LossesInWords(1, 1), "1 event and 1 buffer were lost");
    EXPECT_EQ(LossesInWords(3, 2), "3 events and 2 buffers were lost");
}
