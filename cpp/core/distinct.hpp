// The distinct policies of a book: those equal in every column of a key,
// each valued once and its value spread back over its copies.
#pragma once

#include "core/book_columns.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace norvane::core {

// One word of a key: a column's values, the tables a table column names, or
// a life's select age (select_age_of(age, select_age)).
class KeyWord {
  public:
    KeyWord(const Column& values) : values_(&values) {}       // NOLINT
    KeyWord(const TableColumn& tables) : tables_(&tables) {}  // NOLINT
    static KeyWord select_age(const Column& age, const Column& select_age) {
        KeyWord word(age);
        word.select_ = &select_age;
        return word;
    }
    // Whether every policy has the same value (a word that tells none apart).
    bool repeated() const;
    double operator[](std::size_t i) const;
    // The values of policies i .. i + len - 1 (len <= kBlock), in place or in the scratch blocks.
    const double* block(std::size_t i, std::size_t len, Block& scratch, Block& more) const;

  private:
    const Column* values_ = nullptr;
    const TableColumn* tables_ = nullptr;
    const Column* select_ = nullptr;
};

// The most words of a key that tell policies apart (repeated ones are left out).
inline constexpr std::size_t kMaxKeyWords = 16;

// The first policy of each distinct one, in order of first appearance; the
// number of each policy's distinct one is written to `of` (one per policy).
// Requires fewer than 2^32 policies and at most kMaxKeyWords words that are
// not repeated. Numbered on all cores.
std::vector<std::uint32_t> distinct_policies(std::span<const KeyWord> key, std::span<std::uint32_t> of);

// out[i] = the sum over parts p, in order, of
// units[p][of[i]] * (amounts[p][i] * shares[p][i]): the policies' values from
// their distinct ones' unit values. False (out unfinished) when some of[i] is
// not below a part's count of units.
bool gather_parts(std::span<const std::uint32_t> of, std::span<const std::span<const double>> units,
                  std::span<const Column> amounts, std::span<const Column> shares, std::span<double> out);

// The other way: sums[p][k] = the sum over the policies i with of[i] = k, in
// order, of amounts[p][i] * shares[p][i] (sums[p] of the distinct policies'
// count, zeroed by the caller). False (sums unfinished) when some of[i] is
// not below that count.
bool sum_parts(std::span<const std::uint32_t> of, std::span<const Column> amounts, std::span<const Column> shares,
               std::span<const std::span<double>> sums);

}  // namespace norvane::core
