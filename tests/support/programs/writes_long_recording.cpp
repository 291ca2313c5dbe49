#include <cstdio>
#include <cwchar>
#include <exception>

#include "long_recording.h"

// writes_long_recording FILE MESSAGES
int wmain(int argc, wchar_t** argv) {
    if (argc != 3) return 2;
    try {
        test_support::WriteLongRecording(argv[1], std::wcstoul(argv[2], nullptr, 10));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "writes_long_recording: %s\n", error.what());
        return 1;
    }
}
