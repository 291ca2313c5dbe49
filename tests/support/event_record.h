#pragma once

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace test_support {

/// Builds one record of the classic event log. What is out of the ordinary is set on the bytes afterwards.
struct EventRecord {
    std::wstring source = L"fenlu3";
    WORD type = EVENTLOG_ERROR_TYPE;
    DWORD id = 0;
    std::vector<std::wstring> strings;
    DWORD number = 1;
    DWORD timeGenerated = 0;

    std::vector<std::byte> Bytes() const {
        EVENTLOGRECORD fields = {};
        fields.Reserved = 0x654c664c;
        fields.RecordNumber = number;
        fields.TimeGenerated = timeGenerated;
        fields.EventID = id;
        fields.EventType = type;
        fields.NumStrings = static_cast<WORD>(strings.size());
        std::vector<std::byte> bytes(sizeof fields);
        const auto add = [&bytes](const std::wstring& text) {
            const auto* data = reinterpret_cast<const std::byte*>(text.c_str());
            bytes.insert(bytes.end(), data, data + (text.length() + 1) * sizeof(wchar_t));
        };
        add(source);
        add(L"COMPUTER");
        bytes.resize((bytes.size() + 3) & ~std::size_t{3});
        fields.StringOffset = static_cast<DWORD>(bytes.size());
        for (const std::wstring& text : strings)
            add(text);
        bytes.resize((bytes.size() + 3) & ~std::size_t{3});
        fields.Length = static_cast<DWORD>(bytes.size() + sizeof(DWORD));
        bytes.resize(fields.Length);
        std::memcpy(bytes.data() + bytes.size() - sizeof(DWORD), &fields.Length, sizeof(DWORD));
        std::memcpy(bytes.data(), &fields, sizeof fields);
        return bytes;
    }
};

inline EVENTLOGRECORD* FieldsOf(std::vector<std::byte>& bytes) {
    return reinterpret_cast<EVENTLOGRECORD*>(bytes.data());
}

/// The only field that a stump of a record is sure to have.
inline void SetLength(std::vector<std::byte>& bytes, DWORD length) {
    std::memcpy(bytes.data(), &length, sizeof length);
}

inline std::vector<std::byte> Joined(const std::vector<std::vector<std::byte>>& records) {
    std::vector<std::byte> all;
    for (const auto& record : records)
        all.insert(all.end(), record.begin(), record.end());
    return all;
}

}  // namespace test_support
