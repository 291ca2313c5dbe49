#include "output.h"

#include <windows.h>

#include <cstdio>
#include <io.h>

namespace command_line {

bool OutputIsTaken() {
    return std::ferror(stdout) == 0;
}

int FinishOutput(const char* program, int result) {
    constexpr int kFailed = 1;
    if (std::fflush(stdout) == 0 && OutputIsTaken()) return result;
    // Which error it was is not known any more, and the C run time has several names for a pipe without a
    // reader. But there is no other reason for a pipe to refuse. A program that was started without any
    // output has none of the kinds below.
    const DWORD kind = ::GetFileType(reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(stdout))));
    if (kind != FILE_TYPE_DISK && kind != FILE_TYPE_CHAR) return result;
    std::fprintf(stderr, "%s: the output cannot be written whole; is the disk full?\n", program);
    return kFailed;
}

}  // namespace command_line
