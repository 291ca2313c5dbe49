#include <windows.h>

#include <cstdio>

// Holds a library as the event-log service holds the file of its messages, and as a program that runs it,
// until its input ends.
int wmain(int argc, wchar_t** argv) {
    if (argc != 2) return 2;
    const HMODULE messages =
        ::LoadLibraryExW(argv[1], nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    const HMODULE code = ::LoadLibraryExW(argv[1], nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (messages == nullptr || code == nullptr) return 1;
    std::puts("held");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}
