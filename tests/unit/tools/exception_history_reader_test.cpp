#include "exception_history_reader.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "module_hooks.h"

using modul_exception::ExceptionHistory;
using tessactl::HistoryReading;
using tessactl::MemoryReader;
using tessactl::ReadHistory;
using tessactl::ReadSettledHistory;
using Outcome = tessactl::HistoryReading::Outcome;

namespace {

constexpr ULONG64 kBase = 0x180000000;
constexpr ULONG kSectionAt = 0x1000;

/// A module in memory with nothing but headers and a history. Whoever reads outside of it is told on.
class Module {
  public:
    Module() : bytes_(kSectionAt + sizeof(ExceptionHistory)) {
        IMAGE_DOS_HEADER dos = {};
        dos.e_magic = IMAGE_DOS_SIGNATURE;
        dos.e_lfanew = kHeadersAt;
        Put(0, dos);
        IMAGE_NT_HEADERS64 nt = {};
        nt.Signature = IMAGE_NT_SIGNATURE;
        nt.FileHeader.NumberOfSections = 2;
        nt.FileHeader.SizeOfOptionalHeader = sizeof nt.OptionalHeader;
        nt.OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR64_MAGIC;
        Put(kHeadersAt, nt);
        section_.Misc.VirtualSize = sizeof(ExceptionHistory);
        section_.VirtualAddress = kSectionAt;
        PutSection(".exhist");
        for (DWORD i = 0; i < 4; ++i) {  // the fifth was never written
            history_.records[i].threadId = 100 + i;
            history_.records[i].line = i;
        }
        history_.writeIndex = 2;
        PutHistory();
    }

    HistoryReading Read() const { return ReadHistory(Reader(), kBase, bytes_.size()); }
    MemoryReader Reader() const {
        return [this](ULONG64 address, void* to, std::size_t size) {
            const bool isInside =
                address >= kBase && size <= bytes_.size() && address - kBase <= bytes_.size() - size;
            EXPECT_TRUE(isInside) << std::hex << address << " " << size;
            if (isInside) std::memcpy(to, bytes_.data() + (address - kBase), size);
            return isInside;
        };
    }
    void PutSection(const char* name) {
        std::memset(section_.Name, 0, sizeof section_.Name);
        std::memcpy(section_.Name, name, std::strlen(name));
        Put(kHeadersAt + sizeof(IMAGE_NT_HEADERS64) + sizeof section_, section_);
    }
    void PutHistory() { Put(kSectionAt, history_); }
    template <typename T>
    void Put(std::size_t at, const T& value) {
        std::memcpy(bytes_.data() + at, static_cast<const void*>(&value), sizeof value);
    }

    static constexpr ULONG kHeadersAt = 0x80;
    std::vector<std::byte> bytes_;
    IMAGE_SECTION_HEADER section_ = {};
    ExceptionHistory history_ = {};
};

/// A reader of this very process, as of another one.
bool ReadThisProcess(ULONG64 address, void* to, std::size_t size) {
    SIZE_T read = 0;
    return ::ReadProcessMemory(::GetCurrentProcess(), reinterpret_cast<const void*>(address), to, size,
                               &read) &&
           read == size;
}

void Record(unsigned int number) {
    const std::string text = std::to_string(number);
    modul_exception::RecordException(std::runtime_error(text), text.c_str(), text.c_str(), text.c_str(),
                                     number);
}

}  // namespace

TEST(HistoryReading, RecordsComeOldestFirstWithoutThoseNeverWritten) {
    const HistoryReading reading = Module().Read();
    ASSERT_EQ(reading.outcome, Outcome::kRead);
    std::vector<DWORD> threads;
    for (const auto& record : reading.Records())
        threads.push_back(record.threadId);
    EXPECT_EQ(threads, (std::vector<DWORD>{102, 103, 100, 101}));
}

TEST(HistoryReading, ModuleWithoutTheSectionHasNone) {
    Module module;
    module.PutSection(".exhis");
    EXPECT_EQ(module.Read().outcome, Outcome::kNoSection);
    module.PutSection(".exhist2");
    EXPECT_EQ(module.Read().outcome, Outcome::kNoSection);
}

TEST(HistoryReading, SectionOfAnotherSizeIsRefused) {
    constexpr DWORD kKnown = sizeof(ExceptionHistory);
    for (const DWORD size : {DWORD{0}, kKnown - 8, kKnown - 1, kKnown + 1, kKnown + 8}) {
        Module module;
        module.section_.Misc.VirtualSize = size;
        module.PutSection(".exhist");
        const HistoryReading reading = module.Read();
        EXPECT_EQ(reading.outcome, Outcome::kOtherSize);
        EXPECT_EQ(reading.sectionSize, module.section_.Misc.VirtualSize);
    }
}

TEST(HistoryReading, SectionThatEndsOutsideOfTheModuleIsRefused) {
    for (const DWORD address : {DWORD{kSectionAt + 1}, DWORD{0xFFFFFFFF}}) {
        Module module;
        module.section_.VirtualAddress = address;
        module.PutSection(".exhist");
        EXPECT_EQ(module.Read().outcome, Outcome::kDamaged);
    }
}

TEST(HistoryReading, IndexBehindTheLastRecordIsRefused) {
    Module module;
    module.history_.writeIndex = ExceptionHistory::kCapacity;
    module.PutHistory();
    EXPECT_EQ(module.Read().outcome, Outcome::kDamaged);
}

TEST(HistoryReading, WhatIsNoImageIsRefused) {
    Module noDosHeader;
    noDosHeader.Put<WORD>(0, 0);
    EXPECT_EQ(noDosHeader.Read().outcome, Outcome::kNoImage);
    Module noHeaders;
    noHeaders.Put<DWORD>(Module::kHeadersAt, 0);
    EXPECT_EQ(noHeaders.Read().outcome, Outcome::kNoImage);
    Module of32Bits;
    of32Bits.Put<WORD>(Module::kHeadersAt + offsetof(IMAGE_NT_HEADERS64, OptionalHeader),
                       IMAGE_NT_OPTIONAL_HDR32_MAGIC);
    EXPECT_EQ(of32Bits.Read().outcome, Outcome::kNoImage);
    Module negative;
    negative.Put<LONG>(offsetof(IMAGE_DOS_HEADER, e_lfanew), -4);
    EXPECT_EQ(negative.Read().outcome, Outcome::kNoImage);
}

TEST(HistoryReading, CutOffModuleIsReadNowhereOutside) {
    const Module whole;
    for (std::size_t size = 0; size < whole.bytes_.size(); size += 7) {
        Module cut;
        cut.bytes_.resize(size);
        EXPECT_NE(cut.Read().outcome, Outcome::kRead) << size;
    }
}

TEST(HistoryReading, DamagedHeadersAreReadNowhereOutside) {
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        Module module;
        for (int n = 0; n < 3; ++n)
            module.bytes_[random() % 0x200] = static_cast<std::byte>(random());
        module.Read();
    }
}

TEST(SettledHistory, IsThatOfARealModule) {
    modul_exception::InitializeExceptionHistory();
    Record(11);
    Record(12);
    const HMODULE self = ::GetModuleHandleW(nullptr);
    bool isSettled = false;
    const HistoryReading reading =
        ReadSettledHistory(&ReadThisProcess, reinterpret_cast<ULONG64>(self), 0x10000000, isSettled);
    EXPECT_TRUE(isSettled);
    ASSERT_EQ(reading.outcome, Outcome::kRead);
    const auto records = reading.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_STREQ(records[0].what, "11");
    EXPECT_STREQ(records[1].what, "12");
    EXPECT_EQ(records[1].threadId, ::GetCurrentThreadId());
}

TEST(SettledHistory, IsReadAgainWhileItChanges) {
    Module module;
    const MemoryReader whole = module.Reader();
    int readings = 0;
    bool isSettled = false;
    const HistoryReading reading = ReadSettledHistory(
        [&](ULONG64 address, void* to, std::size_t size) {
            if (size == sizeof(ExceptionHistory) && ++readings < 5) {
                ++module.history_.records[0].line;
                module.PutHistory();
            }
            return whole(address, to, size);
        },
        kBase, module.bytes_.size(), isSettled);
    EXPECT_TRUE(isSettled);
    EXPECT_EQ(readings, 5) << "the fifth was like the fourth";
    EXPECT_EQ(reading.history.records[0].line, 4u);
}

TEST(SettledHistory, IsReadAgainWhileItsLockIsHeld) {
    Module module;
    module.history_.lock.OwningThread = reinterpret_cast<HANDLE>(std::uintptr_t{7});
    module.PutHistory();
    const MemoryReader whole = module.Reader();
    int readings = 0;
    bool isSettled = false;
    ReadSettledHistory(
        [&](ULONG64 address, void* to, std::size_t size) {
            if (size == sizeof(ExceptionHistory) && ++readings == 4) {
                module.history_.lock.OwningThread = nullptr;
                module.PutHistory();
            }
            return whole(address, to, size);
        },
        kBase, module.bytes_.size(), isSettled);
    EXPECT_TRUE(isSettled);
    EXPECT_EQ(readings, 5);
}

TEST(SettledHistory, ThatNeverComesIsGivenUpAndTold) {
    Module module;
    module.history_.lock.OwningThread = reinterpret_cast<HANDLE>(std::uintptr_t{7});
    module.PutHistory();
    const ULONGLONG start = ::GetTickCount64();
    bool isSettled = true;
    const HistoryReading reading =
        ReadSettledHistory(module.Reader(), kBase, module.bytes_.size(), isSettled);
    EXPECT_FALSE(isSettled);
    EXPECT_EQ(reading.Records().size(), 4u);
    EXPECT_LT(::GetTickCount64() - start, 5000u);
}

TEST(SettledHistory, HasWholeRecordsOnlyWhileAnotherThreadThrows) {
    modul_exception::InitializeExceptionHistory();
    std::atomic<bool> ends = false;
    std::thread thrower([&ends] {
        for (unsigned int number = 1; !ends; ++number) {
            Record(number);
            if (number % 50 == 0) ::Sleep(2);
        }
    });
    int settled = 0;
    for (int i = 0; i < 100; ++i) {
        bool isSettled = false;
        const HistoryReading reading = ReadSettledHistory(
            &ReadThisProcess, reinterpret_cast<ULONG64>(::GetModuleHandleW(nullptr)), 0x10000000, isSettled);
        if (!isSettled) continue;
        ++settled;
        for (const auto& record : reading.Records()) {
            const std::string number = std::to_string(record.line);
            EXPECT_EQ(record.what, number);
            EXPECT_EQ(record.function, number);
        }
    }
    ends = true;
    thrower.join();
    EXPECT_GT(settled, 50);
}
