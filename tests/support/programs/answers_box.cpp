#include <windows.h>

#include <cstdlib>

#include "message_window.h"

// A user in a process of its own: waits for a message box and answers it. Arguments: title, button.
// Ends with 0 if there was one.
int wmain(int argc, wchar_t** argv) {
    if (argc != 3) return 2;
    const HWND box = test_support::WaitForMessageBox(argv[1]);
    return box != nullptr && test_support::Answer(box, static_cast<WORD>(std::wcstoul(argv[2], nullptr, 10)))
               ? 0
               : 1;
}
