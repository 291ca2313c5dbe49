#define PSAPI_VERSION 2  // the functions of kernel32
#include "running_process.h"

#include <psapi.h>

#include <vector>

#include "text.h"

namespace tessactl {
namespace {

std::vector<HMODULE> ModulesOf(HANDLE process, DWORD id) {
    std::vector<HMODULE> modules(256);
    for (;;) {
        const auto size = static_cast<DWORD>(modules.size() * sizeof(HMODULE));
        DWORD needed = 0;
        if (!::EnumProcessModulesEx(process, modules.data(), size, &needed, LIST_MODULES_64BIT)) {
            const DWORD error = ::GetLastError();
            throw ToolError("process " + std::to_string(id) +
                            " does not tell its modules: " + ErrorInWords(error));
        }
        modules.resize(needed / sizeof(HMODULE));
        if (needed <= size) return modules;
    }
}

/// Of the program itself if there is no module. Empty if it was unloaded meanwhile.
std::wstring PathOf(HANDLE process, HMODULE module) {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameExW(process, module, path.data(), static_cast<DWORD>(path.length())));
    return path;
}

bool HasFileName(const std::wstring& path, const std::wstring& fileName) {
    return IsSameFileName(path.substr(path.rfind(L'\\') + 1), fileName);
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
    for (const HMODULE handle : ModulesOf(process_.get(), id_)) {
        const std::wstring path = PathOf(process_.get(), handle);
        MODULEINFO information = {};
        if (HasFileName(path, fileName) &&
            ::GetModuleInformation(process_.get(), handle, &information, sizeof information))
            return Module{path, reinterpret_cast<ULONG64>(information.lpBaseOfDll), information.SizeOfImage};
    }
    return std::nullopt;
}

bool RunningProcess::Read(ULONG64 address, void* to, std::size_t size) const {
    SIZE_T read = 0;
    return ::ReadProcessMemory(process_.get(), reinterpret_cast<const void*>(address), to, size, &read) &&
           read == size;
}

}  // namespace tessactl
