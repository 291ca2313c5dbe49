#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <vector>

/// Damaged input by the hundred thousand, the same in every run.
///
/// TESSAPLUG_MUTATION_CASES  number of cases of each test
/// TESSAPLUG_MUTATION_SEED   another series of cases
/// TESSAPLUG_MUTATION_CASE   one case only, the one that a failed run has named
namespace test_support {

using Bytes = std::vector<std::byte>;

/// Damages input in up to eight places: bits, bytes, numbers that matter to whoever reads lengths and
/// offsets, pieces cut out, doubled or taken from elsewhere, the end cut off or longer.
class Mutator {
  public:
    explicit Mutator(std::uint64_t seed) : random_(seed) {}

    Bytes Damaged(const Bytes& sound);
    std::string Damaged(const std::string& sound);
    /// A number below `limit`, which is not 0.
    std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(random_() % limit); }

  private:
    void DamageOnce(Bytes& bytes);
    void OverwriteNumber(Bytes& bytes);

    std::mt19937_64 random_;
};

/// Runs `test` with the mutator of each case. A case that fails, throws or crashes is named with its seed.
void ForEachCase(const std::function<void(Mutator& mutator)>& test);

}  // namespace test_support
