#define PSAPI_VERSION 2  // the functions of kernel32
#include "running_process.h"

#include <psapi.h>
#include <tlhelp32.h>

#include "text.h"

namespace tessactl {
namespace {

/// The names, places and sizes of all modules at once: psapi goes through the whole list for each name.
UniqueKernelHandle ModulesOf(DWORD id) {
    constexpr int kMostTries = 100;
    for (int tries = 1;; ++tries) {
        UniqueKernelHandle modules(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, id));
        if (modules) return modules;
        const DWORD error = ::GetLastError();
        // The list changed meanwhile.
        if (error != ERROR_BAD_LENGTH || tries == kMostTries)
            throw ToolError("process " + std::to_string(id) +
                            " does not tell its modules: " + ErrorInWords(error));
        ::Sleep(1);
    }
}

/// Of the program itself if there is no module. Empty if it was unloaded meanwhile.
std::wstring PathOf(HANDLE process, HMODULE module) {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameExW(process, module, path.data(), static_cast<DWORD>(path.length())));
    return path;
}

}  // namespace

bool IsSameFileName(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

RunningProcess::RunningProcess(DWORD id)
    : id_(id), process_(::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id)) {
    if (process_) return;
    const DWORD error = ::GetLastError();
    if (error == ERROR_ACCESS_DENIED)
        throw NoRights("looking into process " + std::to_string(id) +
                       " is not allowed; run it as administrator");
    throw ToolError("process " + std::to_string(id) + " cannot be opened: " + ErrorInWords(error));
}

std::optional<RunningProcess::Module> RunningProcess::Program() const {
    const std::wstring path = PathOf(process_.get(), nullptr);
    return path.empty() ? std::nullopt : FindModule(path.substr(path.rfind(L'\\') + 1));
}

std::optional<RunningProcess::Module> RunningProcess::FindModule(const std::wstring& fileName) const {
    const UniqueKernelHandle modules = ModulesOf(id_);
    MODULEENTRY32W module = {};
    module.dwSize = sizeof module;
    for (BOOL more = ::Module32FirstW(modules.get(), &module); more;
         more = ::Module32NextW(modules.get(), &module))
        if (IsSameFileName(module.szModule, fileName)) {
            const std::wstring path = PathOf(process_.get(), module.hModule);
            if (!path.empty())
                return Module{path, reinterpret_cast<ULONG64>(module.modBaseAddr), module.modBaseSize};
        }
    return std::nullopt;
}

bool RunningProcess::Read(ULONG64 address, void* to, std::size_t size) const {
    SIZE_T read = 0;
    return ::ReadProcessMemory(process_.get(), reinterpret_cast<const void*>(address), to, size, &read) &&
           read == size;
}

}  // namespace tessactl
