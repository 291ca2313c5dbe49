#include "output.h"

#include <windows.h>

#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <io.h>
#include <string>

using command_line::FinishOutput;
using command_line::OutputIsTaken;

namespace {

/// Gives standard output another end for as long as it lives.
class OutputTo {
  public:
    explicit OutputTo(int file) {
        std::fflush(stdout);
        ::_dup2(file, ::_fileno(stdout));
        ::_close(file);
    }
    ~OutputTo() {
        std::fflush(stdout);
        ::_dup2(before_, ::_fileno(stdout));
        ::_close(before_);
        std::clearerr(stdout);
    }
    OutputTo(const OutputTo&) = delete;
    OutputTo& operator=(const OutputTo&) = delete;

  private:
    const int before_ = ::_dup(::_fileno(stdout));
};

int PipeWithoutAReader() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::_pipe(ends, 4096, _O_BINARY), 0);
    ::_close(ends[0]);
    return ends[1];
}

int FileThatRefuses() {
    return ::_wopen(L"C:\\windows\\win.ini", _O_RDONLY);
}

/// Writes more than any buffer holds.
void WriteMuch() {
    for (int i = 0; i < 10000; ++i)
        std::puts("one line of many");
}

struct Finished {
    int result;
    bool wasTaken;
    std::string told;
};

Finished FinishOn(int file, void (*write)(), int result) {
    testing::internal::CaptureStderr();
    Finished finished = {};
    {
        const OutputTo redirected(file);
        write();
        finished.result = FinishOutput("program", result);
        finished.wasTaken = OutputIsTaken();
    }
    finished.told = testing::internal::GetCapturedStderr();
    return finished;
}

}  // namespace

TEST(Output, ThatIsTakenKeepsTheResult) {
    std::puts("hello");
    EXPECT_EQ(FinishOutput("program", 3), 3);
    EXPECT_TRUE(OutputIsTaken());
}

TEST(Output, ReaderWhoHasGoneIsNoError) {
    for (const auto write : {+[] { std::puts("few"); }, +[] { WriteMuch(); }}) {
        const Finished finished = FinishOn(PipeWithoutAReader(), write, 3);
        EXPECT_EQ(finished.result, 3) << "the command's own";
        EXPECT_FALSE(finished.wasTaken);
        EXPECT_EQ(finished.told, "");
    }
}

TEST(Output, FileThatTakesNothingMoreIsToldAndFails) {
    for (const auto write : {+[] { std::puts("few"); }, +[] { WriteMuch(); }}) {
        const Finished finished = FinishOn(FileThatRefuses(), write, 0);
        EXPECT_EQ(finished.result, 1);
        EXPECT_FALSE(finished.wasTaken);
        EXPECT_EQ(finished.told, "program: the output cannot be written whole; is the disk full?\n");
    }
}
