#include "protected_folder.h"

#include <aclapi.h>
#include <sddl.h>

#include <array>

#include "exception_history.h"
#include "function_trace.h"
#include "system_error.h"
#include "toolbox.h"
#include "trace_point.h"
#include "unique_handle.h"
#include "win_convenience.h"

TRACE_SOURCE("lib_shared_tools\\src\\protected_folder", "e81b5f04-3a7d-4d29-b6c0-94f2107ad53e",
             trace::kSharedTools);

namespace operating_system {
namespace {

using UniqueLocal = UniqueHandle<void*, [](void* memory) { ::LocalFree(memory); }>;

/// Owned by the administrators; inherited from nowhere; everything for SYSTEM and the administrators, also in
/// what is made in it. Without the owner it would belong to the account that makes it, which another
/// account's service would have to refuse.
constexpr wchar_t kProtected[] = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

[[noreturn]] void Refuse(const std::wstring& text) {
    FUNCTION_TRACE();
    TRACE_ERROR(10, "%S", text);
    MODUL_THROW(PathRefused(text));
}

UniqueLocal ProtectedDescriptor() {
    FUNCTION_TRACE();
    void* descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kProtected, SDDL_REVISION_1, &descriptor,
                                                                nullptr))
        Refuse(L"The rights of a protected folder cannot be made: " + DescribeSystemError(::GetLastError()));
    return UniqueLocal(descriptor);
}

bool IsAdministrator() {
    FUNCTION_TRACE();
    std::array<BYTE, SECURITY_MAX_SID_SIZE> administrators = {};
    DWORD size = administrators.size();
    BOOL isMember = FALSE;
    return ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators.data(), &size) &&
           ::CheckTokenMembership(nullptr, administrators.data(), &isMember) && isMember;
}

bool IsRunningAccount(PSID sid) {
    FUNCTION_TRACE();
    HANDLE opened = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened)) return false;
    const UniqueKernelHandle token(opened);
    alignas(TOKEN_USER) std::array<BYTE, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user = {};
    DWORD size = 0;
    return ::GetTokenInformation(token.get(), TokenUser, user.data(), static_cast<DWORD>(user.size()),
                                 &size) &&
           ::EqualSid(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid, sid);
}

bool IsTrustedInstaller(PSID sid) {
    FUNCTION_TRACE();
    // The well-known name of the account that owns what Windows itself has installed.
    void* installer = nullptr;
    if (!::ConvertStringSidToSidW(L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464",
                                  &installer))
        return false;
    const UniqueLocal owner(installer);
    return ::EqualSid(installer, sid) != FALSE;
}

bool IsTrusted(PSID sid) {
    FUNCTION_TRACE();
    return ::IsWellKnownSid(sid, WinLocalSystemSid) || ::IsWellKnownSid(sid, WinBuiltinAdministratorsSid) ||
           IsTrustedInstaller(sid) || (IsRunningAccount(sid) && IsAdministrator());
}

/// "MACHINE\name", or the identifier of an account that is gone.
std::wstring NameOf(PSID sid) {
    FUNCTION_TRACE();
    wchar_t name[256] = {};
    wchar_t domain[256] = {};
    DWORD nameLength = ARRAYSIZE(name);
    DWORD domainLength = ARRAYSIZE(domain);
    SID_NAME_USE use = {};
    if (::LookupAccountSidW(nullptr, sid, name, &nameLength, domain, &domainLength, &use))
        return *domain == L'\0' ? name : std::wstring(domain) + L"\\" + name;
    wchar_t* text = nullptr;
    if (!::ConvertSidToStringSidW(sid, &text)) return L"an unknown account";
    const UniqueLocal owner(text);
    return text;
}

/// Whether an entry of a list of rights lets somebody who is not trusted change something. What is not an
/// ordinary entry counts, as it takes more to know whom it concerns.
bool LetsOthersWrite(const ACE_HEADER& header) {
    FUNCTION_TRACE();
    constexpr DWORD kWrite = FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY | FILE_DELETE_CHILD | DELETE | WRITE_DAC |
                             WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
    if (header.AceType == ACCESS_DENIED_ACE_TYPE) return false;
    if (header.AceType != ACCESS_ALLOWED_ACE_TYPE) return true;
    const auto& entry = reinterpret_cast<const ACCESS_ALLOWED_ACE&>(header);
    return (entry.Mask & kWrite) != 0 && !IsTrusted(const_cast<DWORD*>(&entry.SidStart));
}

bool OthersMayWrite(ACL* rights) {
    FUNCTION_TRACE();
    if (rights == nullptr) return true;  // no list: everything for everybody
    for (DWORD i = 0; i < rights->AceCount; ++i) {
        void* entry = nullptr;
        if (!::GetAce(rights, i, &entry) || LetsOthersWrite(*static_cast<ACE_HEADER*>(entry))) return true;
    }
    return false;
}

void SetProtectedRights(const std::wstring& folder, HANDLE opened) {
    FUNCTION_TRACE();
    TRACE_WARNING(11, "%S was open to others, its rights are set", folder);
    const UniqueLocal descriptor = ProtectedDescriptor();
    ACL* rights = nullptr;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ::GetSecurityDescriptorDacl(descriptor.get(), &present, &rights, &defaulted);
    const DWORD result = ::SetSecurityInfo(opened, SE_FILE_OBJECT,
                                           DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                           nullptr, nullptr, rights, nullptr);
    if (result != ERROR_SUCCESS)
        Refuse(L"The rights of the folder " + folder + L" cannot be set: " + DescribeSystemError(result));
}

BY_HANDLE_FILE_INFORMATION InformationOf(const std::wstring& path, HANDLE opened,
                                         windows_api::CKernel32& kernel32) {
    FUNCTION_TRACE();
    BY_HANDLE_FILE_INFORMATION information = {};
    if (!kernel32.GetFileInformationByHandle(opened, &information))
        Refuse(path + L" cannot be looked at: " + DescribeSystemError(::GetLastError()));
    if ((information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        Refuse(path + L" is a link; name the place that is meant");
    return information;
}

enum class Rights { kStay, kSetIfOpen };

/// Link and owner are those of the opened folder, not of whatever bears its name a moment later.
void CheckFolder(const std::wstring& folder, Rights rights, windows_api::CKernel32& kernel32) {
    FUNCTION_TRACE();
    // Some right to the data has to be asked for: otherwise the share mode, which keeps the folder from being
    // replaced meanwhile, means nothing.
    const DWORD access = FILE_LIST_DIRECTORY | READ_CONTROL | FILE_READ_ATTRIBUTES |
                         (rights == Rights::kSetIfOpen ? WRITE_DAC : 0);
    const UniqueKernelHandle opened(kernel32.CreateFileW(
        folder.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!opened)
        Refuse(L"The folder " + folder + L" cannot be opened: " + DescribeSystemError(::GetLastError()));
    if ((InformationOf(folder, opened.get(), kernel32).dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        Refuse(folder + L" is a file, not a folder");
    PSID owner = nullptr;
    ACL* list = nullptr;
    void* descriptor = nullptr;
    const DWORD result = ::GetSecurityInfo(opened.get(), SE_FILE_OBJECT,
                                           OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                                           nullptr, &list, nullptr, &descriptor);
    const UniqueLocal descriptorOwner(descriptor);
    if (result != ERROR_SUCCESS)
        Refuse(L"The owner of the folder " + folder + L" is not known: " + DescribeSystemError(result));
    if (owner == nullptr || !IsTrusted(owner))
        Refuse(L"The folder " + folder + L" belongs to " + (owner == nullptr ? L"nobody" : NameOf(owner)) +
               L", who is not an administrator; remove it, or have an administrator take it over");
    if (rights == Rights::kSetIfOpen && OthersMayWrite(list)) SetProtectedRights(folder, opened.get());
}

void MakeFolder(const std::wstring& folder, windows_api::CKernel32& kernel32) {
    FUNCTION_TRACE();
    const UniqueLocal descriptor = ProtectedDescriptor();
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor.get(), FALSE};
    if (kernel32.CreateDirectoryW(folder.c_str(), &attributes)) {
        TRACE_INFO(12, "%S made for SYSTEM and administrators", folder);
        return;
    }
    const DWORD error = ::GetLastError();
    // Of a folder that is there, and of a drive's root, it is told in various ways.
    if (::GetFileAttributesW(folder.c_str()) != INVALID_FILE_ATTRIBUTES) return;
    if (error == ERROR_INVALID_OWNER || error == ERROR_ACCESS_DENIED)
        Refuse(L"The folder " + folder + L" cannot be made; run this as administrator");
    Refuse(L"The folder " + folder + L" cannot be made: " + DescribeSystemError(error));
}

UniqueKernelHandle Open(const std::wstring& file, DWORD access, DWORD shareMode, DWORD disposition,
                        windows_api::CKernel32& kernel32) {
    FUNCTION_TRACE();
    return UniqueKernelHandle(
        kernel32.CreateFileW(file.c_str(), access | FILE_READ_ATTRIBUTES | SYNCHRONIZE, shareMode, nullptr,
                             disposition, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

void RefuseLinks(const std::wstring& file, HANDLE opened, windows_api::CKernel32& kernel32) {
    FUNCTION_TRACE();
    if (::GetFileType(opened) != FILE_TYPE_DISK) Refuse(file + L" is not a file of a disk");
    const DWORD links = InformationOf(file, opened, kernel32).nNumberOfLinks;
    if (links > 1)
        Refuse(file + L" has " + std::to_wstring(links) + L" names (hard links); remove it or name another");
}

}  // namespace

PathRefused::PathRefused(const std::wstring& text)
    : std::runtime_error(toolbox::WstringToString(text)), text_(text) {}

std::wstring ProductDataFolder() {
    FUNCTION_TRACE();
    return windows_api::GetSysDirInternal(FOLDERID_ProgramData) + L"\\Tessaplug";
}

void EnsureProtectedFolder(const std::wstring& folder, const Kernel32Pointer& kernel32) {
    FUNCTION_TRACE();
    MakeFolder(folder, *kernel32);
    CheckFolder(folder, Rights::kSetIfOpen, *kernel32);
}

void EnsureTrustedFolder(const std::wstring& folder, const Kernel32Pointer& kernel32) {
    FUNCTION_TRACE();
    const std::size_t end = folder.find_last_of(L"\\/");
    const bool isThere = ::GetFileAttributesW(folder.c_str()) != INVALID_FILE_ATTRIBUTES;
    if (!isThere && end != std::wstring::npos) EnsureTrustedFolder(folder.substr(0, end), kernel32);
    if (!isThere) MakeFolder(folder, *kernel32);
    // A drive's name alone means its current folder.
    CheckFolder(folder.ends_with(L':') ? folder + L"\\" : folder, Rights::kStay, *kernel32);
}

void RequireNoLink(const std::wstring& file, const Kernel32Pointer& kernel32) {
    FUNCTION_TRACE();
    const UniqueKernelHandle opened =
        Open(file, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING, *kernel32);
    const DWORD error = ::GetLastError();
    if (opened)
        RefuseLinks(file, opened.get(), *kernel32);
    else if (error != ERROR_FILE_NOT_FOUND)
        Refuse(file + L" cannot be looked at: " + DescribeSystemError(error));
}

HANDLE OpenWithoutLinks(const std::wstring& file, DWORD access, DWORD shareMode, DWORD disposition,
                        const Kernel32Pointer& kernel32) {
    FUNCTION_TRACE();
    UniqueKernelHandle opened = Open(file, access, shareMode, disposition, *kernel32);
    if (!opened) Refuse(file + L" cannot be opened: " + DescribeSystemError(::GetLastError(), file));
    RefuseLinks(file, opened.get(), *kernel32);
    return opened.release();
}

}  // namespace operating_system
