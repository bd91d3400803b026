#include "core/distinct.hpp"

#include "core/key_index.hpp"
#include "core/life.hpp"
#include "core/parallel.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

namespace norvane::core {

bool KeyWord::repeated() const {
    if (tables_) return tables_->repeated();
    return values_->repeated() && (!select_ || select_->repeated());
}

double KeyWord::operator[](std::size_t i) const {
    if (tables_) return tables_->key(i);
    return select_ ? select_age_of((*values_)[i], (*select_)[i]) : (*values_)[i];
}

const double* KeyWord::block(std::size_t i, std::size_t len, Block& scratch, Block& more) const {
    if (tables_) return tables_->key_block(i, len, scratch);
    const double* values = values_->block(i, len, scratch);
    if (!select_) return values;
    const double* select = select_->block(i, len, more);
    for (std::size_t k = 0; k < len; ++k) more[k] = select_age_of(values[k], select[k]);
    return more.data();
}

namespace {

// A policy's words packed into one 64-bit word, each in `width` bits, when
// every one of them is a whole number in [0, 2^width): the usual key (table
// letters, whole ages, terms in years) then costs one word to hash and to
// compare. `packs[k]` says whether policy k of the block packs.
struct Packing {
    explicit Packing(std::size_t words) : width(static_cast<unsigned>(std::min<std::size_t>(31, 64 / words))) {}
    unsigned width;
};

__attribute__((target_clones("avx2", "default"))) void pack_block(const double* const* columns, std::size_t count,
                                                                  unsigned width, std::size_t len,
                                                                  std::uint64_t* packed, std::uint64_t* packs) {
    const double limit = std::ldexp(1.0, static_cast<int>(width));
    for (std::size_t k = 0; k < len; ++k) packed[k] = 0, packs[k] = 1;
    for (std::size_t w = 0; w < count; ++w) {
        const double* values = columns[w];
        const unsigned shift = static_cast<unsigned>(w) * width;
        // Without branches, so that it vectorises (NaN is in no range).
        for (std::size_t k = 0; k < len; ++k) {
            const double x = values[k];
            const bool in_range = (x >= 0.0) & (x < limit);
            const auto whole = static_cast<std::int32_t>(in_range ? x : 0.0);
            packs[k] &= static_cast<std::uint64_t>(in_range & (static_cast<double>(whole) == x));
            packed[k] |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(whole)) << shift;
        }
    }
}

// The distinct policies by the `words` that tell them apart (at most N). Each
// core numbers those of its part of the book, the keys that pack in one index
// and the others in full in another; the parts' numbers are then made one,
// by full keys (the distinct policies are few against the book). The columns
// are read a block at a time (table texts matched, integers converted, vectorised).
template <std::size_t N>
std::vector<std::uint32_t> number(std::span<const KeyWord* const> words, std::span<std::uint32_t> of) {
    const std::size_t size = of.size();
    using Key = typename KeyIndex<N>::Key;
    const std::size_t count = words.size();
    const std::size_t parts =
        std::max<std::size_t>(1, std::min<std::size_t>(std::max(1u, std::thread::hardware_concurrency()), size >> 16));
    const std::size_t chunk = (size + parts - 1) / parts;
    // A part's number of a key kept in full has this bit set (books of fewer than 2^31 policies).
    const bool packing = size < (std::size_t{1} << 31);
    const std::uint32_t in_full = packing ? 0x80000000u : 0u;
    const Packing packed_as(count);
    struct Leads {
        std::vector<std::uint32_t> packed, full;  // in order of appearance
    };
    std::vector<Leads> leads(parts);
    parallel_for(parts, 1, [&](std::size_t first, std::size_t last) {
        std::array<std::array<Block, 2>, N> scratch;
        std::array<const double*, N> columns{};
        std::array<std::uint64_t, kBlock> packed;
        std::array<std::uint64_t, kBlock> packs{};
        for (std::size_t part = first; part < last; ++part) {
            const std::size_t begin = part * chunk, end = std::min(size, begin + chunk);
            const std::size_t expected = std::min<std::size_t>(end - begin, std::size_t{1} << 12);
            KeyIndex<1> packed_index(expected);
            KeyIndex<N> full_index(packing ? 16 : expected);
            for (std::size_t i = begin; i < end; i += kBlock) {
                const std::size_t len = std::min(kBlock, end - i);
                for (std::size_t w = 0; w < count; ++w)
                    columns[w] = words[w]->block(i, len, scratch[w][0], scratch[w][1]);
                if (packing) pack_block(columns.data(), count, packed_as.width, len, packed.data(), packs.data());
                for (std::size_t k = 0; k < len; ++k) {
                    const auto row = static_cast<std::uint32_t>(i + k);
                    if (packs[k]) {
                        const auto [number, added] = packed_index.insert({packed[k]});
                        if (added) leads[part].packed.push_back(row);
                        of[row] = number;
                        continue;
                    }
                    Key key{};
                    for (std::size_t w = 0; w < count; ++w) key[w] = bits(columns[w][k]);
                    const auto [number, added] = full_index.insert(key);
                    if (added) leads[part].full.push_back(row);
                    of[row] = number | in_full;
                }
            }
        }
    });
    // Each part's keys numbered for the book in order of first appearance: its two lists of
    // first policies merged by row.
    std::vector<std::uint32_t> found;
    KeyIndex<N> index(leads[0].packed.size() + leads[0].full.size());
    std::vector<std::vector<std::uint32_t>> packed_number(parts), full_number(parts);
    for (std::size_t part = 0; part < parts; ++part) {
        const Leads& first = leads[part];
        std::size_t a = 0, b = 0;
        while (a < first.packed.size() || b < first.full.size()) {
            const bool is_packed =
                b == first.full.size() || (a < first.packed.size() && first.packed[a] < first.full[b]);
            const std::uint32_t i = is_packed ? first.packed[a++] : first.full[b++];
            Key key{};
            for (std::size_t w = 0; w < count; ++w) key[w] = bits((*words[w])[i]);
            const auto [k, added] = index.insert(key);
            if (added) found.push_back(i);
            (is_packed ? packed_number : full_number)[part].push_back(k);
        }
    }
    // The first part's numbers are already the book's when all its keys packed (they were numbered first).
    const std::size_t from = packing && leads[0].full.empty() ? std::min(chunk, size) : 0;
    parallel_for(size - from, std::size_t{1} << 16, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = from + begin; i < from + end; ++i) {
            const std::uint32_t n = of[i];
            const bool full = !packing || (n & in_full);
            of[i] = full ? full_number[i / chunk][n & ~in_full] : packed_number[i / chunk][n];
        }
    });
    return found;
}

}  // namespace

std::vector<std::uint32_t> distinct_policies(std::span<const KeyWord> key, std::span<std::uint32_t> of) {
    std::vector<const KeyWord*> words;
    for (const KeyWord& word : key)
        if (!word.repeated()) words.push_back(&word);
    if (words.empty()) {
        std::fill(of.begin(), of.end(), 0u);
        return of.empty() ? std::vector<std::uint32_t>{} : std::vector<std::uint32_t>{0};
    }
    // A key as wide as its words: each word more is one more step of every policy's hash.
    switch (words.size()) {
        case 1:
            return number<1>(words, of);
        case 2:
            return number<2>(words, of);
        case 3:
            return number<3>(words, of);
        case 4:
            return number<4>(words, of);
        case 5:
            return number<5>(words, of);
        case 6:
            return number<6>(words, of);
        default:
            return words.size() <= 8 ? number<8>(words, of) : number<kMaxKeyWords>(words, of);
    }
}

namespace {

// The fewest values any part holds: the numbers of distinct policies must be below it.
template <typename Parts>
std::size_t fewest(const Parts& parts) {
    std::size_t least = std::numeric_limits<std::size_t>::max();
    for (const auto& part : parts) least = std::min(least, part.size());
    return least;
}

bool numbered_below(const std::uint32_t* number, std::size_t len, std::size_t count) {
    return len == 0 || *std::max_element(number, number + len) < count;
}

}  // namespace

bool gather_parts(std::span<const std::uint32_t> of, std::span<const std::span<const double>> units,
                  std::span<const Column> amounts, std::span<const Column> shares, std::span<double> out) {
    const std::size_t least = fewest(units);
    std::atomic<bool> within{true};
    parallel_for(of.size(), std::size_t{1} << 16, [&](std::size_t begin, std::size_t end) {
        std::vector<Block> scratch(2 * units.size());
        std::vector<const double*> amount(units.size()), share(units.size());
        for (std::size_t i = begin; i < end; i += kBlock) {
            const std::size_t len = std::min(kBlock, end - i);
            const std::uint32_t* number = of.data() + i;
            if (!numbered_below(number, len, least)) {
                within = false;
                return;
            }
            for (std::size_t p = 0; p < units.size(); ++p) {
                amount[p] = amounts[p].block(i, len, scratch[2 * p]);
                share[p] = shares[p].block(i, len, scratch[2 * p + 1]);
            }
            // Row by row, the parts in order: each row's number read once, its value written once.
            for (std::size_t k = 0; k < len; ++k) {
                const std::uint32_t n = number[k];
                double value = units[0][n] * (amount[0][k] * share[0][k]);
                for (std::size_t p = 1; p < units.size(); ++p) value += units[p][n] * (amount[p][k] * share[p][k]);
                out[i + k] = value;
            }
        }
    });
    return within;
}

bool sum_parts(std::span<const std::uint32_t> of, std::span<const Column> amounts, std::span<const Column> shares,
               std::span<const std::span<double>> sums) {
    const std::size_t least = fewest(sums);
    Block amount_scratch, share_scratch;
    for (std::size_t i = 0; i < of.size(); i += kBlock) {
        const std::size_t len = std::min(kBlock, of.size() - i);
        const std::uint32_t* number = of.data() + i;
        if (!numbered_below(number, len, least)) return false;
        for (std::size_t p = 0; p < sums.size(); ++p) {
            const double* amount = amounts[p].block(i, len, amount_scratch);
            const double* share = shares[p].block(i, len, share_scratch);
            double* sum = sums[p].data();
            for (std::size_t k = 0; k < len; ++k) sum[number[k]] += amount[k] * share[k];
        }
    }
    return true;
}

}  // namespace norvane::core
