#include "mutation.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <gtest/gtest.h>
#include <iterator>

namespace test_support {
namespace {

constexpr std::uint64_t kSeed = 20261121;

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

struct Case {
    std::uint64_t seed = 0;
    std::uint64_t number = 0;
};
Case running;  // counted from 1: 0 is none

void Name(const char* what, Case named) {
    std::fprintf(stderr,
                 "mutation: %s; again with TESSAPLUG_MUTATION_SEED=%llu TESSAPLUG_MUTATION_CASE=%llu\n", what,
                 static_cast<unsigned long long>(named.seed), static_cast<unsigned long long>(named.number));
    std::fflush(stderr);
}

/// Names the case before the process ends of it. C++ exceptions are no such end.
LONG WINAPI OnException(EXCEPTION_POINTERS* exception) {
    const DWORD code = exception->ExceptionRecord->ExceptionCode;
    const bool isFault = code == EXCEPTION_ACCESS_VIOLATION || code == EXCEPTION_ILLEGAL_INSTRUCTION ||
                         code == EXCEPTION_INT_DIVIDE_BY_ZERO || code == EXCEPTION_STACK_OVERFLOW;
    if (isFault && running.number != 0) Name("a fault", {running.seed, running.number - 1});
    return EXCEPTION_CONTINUE_SEARCH;
}

void Run(const Case& one, const std::function<void(Mutator& mutator)>& test) {
    // Neighbouring numbers are to give cases that have nothing in common.
    Mutator mutator(one.seed * 0x9E3779B97F4A7C15 + one.number * 0xBF58476D1CE4E5B9);
    running = {one.seed, one.number + 1};
    try {
        test(mutator);
    } catch (const std::exception& error) {
        ADD_FAILURE() << "exception: " << error.what();
    } catch (...) {
        ADD_FAILURE() << "unknown exception";
    }
    running = {};
}

}  // namespace

void Mutator::OverwriteNumber(Bytes& bytes) {
    static constexpr std::uint64_t kNumbers[] = {0,
                                                 1,
                                                 2,
                                                 3,
                                                 4,
                                                 7,
                                                 8,
                                                 0x7F,
                                                 0x80,
                                                 0xFF,
                                                 0x100,
                                                 0x7FFF,
                                                 0x8000,
                                                 0xFFFF,
                                                 0x10000,
                                                 0x10001,
                                                 0x7FFFFFFF,
                                                 0x80000000,
                                                 0xFFFFFFFC,
                                                 0xFFFFFFFE,
                                                 0xFFFFFFFF,
                                                 0x100000000,
                                                 0x7FFFFFFFFFFFFFFF,
                                                 0x8000000000000000,
                                                 0xFFFFFFFFFFFFFFFF};
    const std::size_t choice = Below(std::size(kNumbers) + 4);
    // Half of them around the length, where the mistakes are.
    const std::uint64_t number =
        choice < std::size(kNumbers) ? kNumbers[choice] : bytes.size() + choice - std::size(kNumbers) - 2;
    const std::size_t width = std::size_t{1} << Below(4);
    const std::size_t at = Below(bytes.size());
    std::memcpy(bytes.data() + at, &number, std::min(width, bytes.size() - at));
}

void Mutator::DamageOnce(Bytes& bytes) {
    if (bytes.empty()) bytes.resize(1 + Below(8));
    const std::size_t at = Below(bytes.size());
    const auto here = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    const std::size_t length = 1 + Below(std::min<std::size_t>(bytes.size() - at, 64));
    const auto end = here + static_cast<std::ptrdiff_t>(length);
    switch (Below(8)) {
        case 0:
            *here ^= std::byte{1} << Below(8);
            break;
        case 1:
            *here = static_cast<std::byte>(Below(256));
            break;
        case 2:
        case 3:
            OverwriteNumber(bytes);
            break;
        case 4:
            bytes.erase(here, end);
            break;
        case 5: {
            const Bytes piece(here, end);
            bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(Below(bytes.size())), piece.begin(),
                         piece.end());
            break;
        }
        case 6:
            bytes.resize(at);
            break;
        default:
            std::generate(here, end, [this] { return static_cast<std::byte>(Below(256)); });
            break;
    }
}

Bytes Mutator::Damaged(const Bytes& sound) {
    Bytes bytes;
    bytes.reserve(sound.size() + 1024);
    bytes = sound;
    for (std::size_t places = 1 + Below(8); places > 0; --places)
        DamageOnce(bytes);
    // Without room behind its end, so that reading there is noticed.
    bytes.shrink_to_fit();
    return bytes;
}

std::string Mutator::Damaged(const std::string& sound) {
    const auto* data = reinterpret_cast<const std::byte*>(sound.data());
    const Bytes bytes = Damaged(Bytes(data, data + sound.size()));
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void ForEachCase(const std::function<void(Mutator& mutator)>& test) {
    constexpr std::uint64_t kAll = ~std::uint64_t{0};
    const std::uint64_t seed = FromEnvironment("TESSAPLUG_MUTATION_SEED", kSeed);
    const std::uint64_t cases = FromEnvironment("TESSAPLUG_MUTATION_CASES", MUTATION_CASES);
    const std::uint64_t only = FromEnvironment("TESSAPLUG_MUTATION_CASE", kAll);
    void* handler = ::AddVectoredExceptionHandler(1, &OnException);
    const ULONGLONG start = ::GetTickCount64();
    if (only != kAll) Run({seed, only}, test);
    for (std::uint64_t number = 0; only == kAll && number < cases; ++number) {
        Run({seed, number}, test);
        if (!testing::Test::HasFailure()) continue;
        Name("a failure", Case{seed, number});
        break;
    }
    ::RemoveVectoredExceptionHandler(handler);
    std::printf("%llu cases with seed %llu in %llu ms\n", static_cast<unsigned long long>(cases),
                static_cast<unsigned long long>(seed), ::GetTickCount64() - start);
}

}  // namespace test_support
