#pragma once

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>
#include <winver.h>

namespace test_support {

/// Bytes of a version resource and of what leads to it, as they lie in a module.
class ResourceBytes {
  public:
    /// The resources of a module: directories of type, name and language, then the version.
    /// @param at where they begin in the module
    explicit ResourceBytes(DWORD at) {
        for (const DWORD id : {16u, 1u, 0x409u}) {
            IMAGE_RESOURCE_DIRECTORY directory = {};
            directory.NumberOfIdEntries = 1;
            Append(directory);
            IMAGE_RESOURCE_DIRECTORY_ENTRY entry = {};
            entry.Name = id;
            entry.OffsetToData = static_cast<DWORD>(bytes_.size() + sizeof entry);
            if (id != 0x409) entry.OffsetToData |= 0x80000000;
            Append(entry);
        }
        const std::size_t dataAt = bytes_.size();
        Append(IMAGE_RESOURCE_DATA_ENTRY{});
        const std::size_t versionAt = bytes_.size();
        AppendVersion();
        const IMAGE_RESOURCE_DATA_ENTRY data = {at + static_cast<DWORD>(versionAt),
                                                static_cast<DWORD>(bytes_.size() - versionAt), 0, 0};
        std::memcpy(bytes_.data() + dataAt, &data, sizeof data);
    }

    const std::vector<std::byte>& Bytes() const { return bytes_; }

  private:
    template <typename T>
    void Append(const T& value) {
        const auto* from = reinterpret_cast<const std::byte*>(&value);
        bytes_.insert(bytes_.end(), from, from + sizeof value);
    }
    void Align() { bytes_.resize((bytes_.size() + 3) & ~std::size_t{3}); }

    /// @return where its length stands, for Close
    std::size_t Open(const std::wstring& name, WORD valueLength, WORD type) {
        Align();
        const std::size_t at = bytes_.size();
        for (const WORD word : {WORD{0}, valueLength, type})
            Append(word);
        for (const wchar_t c : name)
            Append(c);
        Append(L'\0');
        Align();
        return at;
    }
    void Close(std::size_t at) {
        const auto length = static_cast<WORD>(bytes_.size() - at);
        std::memcpy(bytes_.data() + at, &length, sizeof length);
    }
    void AppendText(const std::wstring& name, const std::wstring& value) {
        const std::size_t at = Open(name, static_cast<WORD>(value.length() + 1), 1);
        for (const wchar_t c : value)
            Append(c);
        Append(L'\0');
        Close(at);
    }
    void AppendVersion() {
        VS_FIXEDFILEINFO fixed = {};
        fixed.dwSignature = VS_FFI_SIGNATURE;
        fixed.dwFileVersionMS = MAKELONG(2, 1);
        fixed.dwFileVersionLS = MAKELONG(4, 3);
        const std::size_t root = Open(L"VS_VERSION_INFO", sizeof fixed, 0);
        Append(fixed);
        const std::size_t texts = Open(L"StringFileInfo", 0, 1);
        const std::size_t language = Open(L"040904B0", 0, 1);
        AppendText(L"BuildDate", L"a date");
        AppendText(L"Commit", L"a commit");
        AppendText(L"FileVersion", L"a version");
        AppendText(L"ProductName", L"a product");
        Close(language);
        Close(texts);
        const std::size_t variables = Open(L"VarFileInfo", 0, 1);
        const std::size_t translation = Open(L"Translation", sizeof(DWORD), 0);
        Append(DWORD{0x04B00409});
        Close(translation);
        Close(variables);
        Close(root);
    }

    std::vector<std::byte> bytes_;
};

}  // namespace test_support
