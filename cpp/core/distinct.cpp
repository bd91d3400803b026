#include "core/distinct.hpp"

#include "core/key_index.hpp"
#include "core/life.hpp"
#include "core/parallel.hpp"

#include <algorithm>
#include <array>
#include <atomic>
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

// The distinct policies by the `words` that tell them apart (at most N). Each
// core numbers those of its part of the book; the parts' numbers are then
// made one (the distinct policies are few against the book). The columns are
// read a block at a time (table texts matched, integers converted, vectorised).
template <std::size_t N>
std::vector<std::uint32_t> number(std::span<const KeyWord* const> words, std::span<std::uint32_t> of) {
    const std::size_t size = of.size();
    using Key = typename KeyIndex<N>::Key;
    const std::size_t count = words.size();
    const std::size_t parts =
        std::max<std::size_t>(1, std::min<std::size_t>(std::max(1u, std::thread::hardware_concurrency()), size >> 16));
    const std::size_t chunk = (size + parts - 1) / parts;
    std::vector<std::uint32_t> found;
    std::vector<std::vector<std::uint32_t>> leads(parts);
    parallel_for(parts, 1, [&](std::size_t first, std::size_t last) {
        std::array<std::array<Block, 2>, N> scratch;
        std::vector<Key> keys(kBlock);  // words past `count` stay 0
        std::array<std::size_t, kBlock> hashes;
        for (std::size_t part = first; part < last; ++part) {
            const std::size_t begin = part * chunk, end = std::min(size, begin + chunk);
            KeyIndex<N> index(std::min<std::size_t>(end - begin, std::size_t{1} << 12));
            for (std::size_t i = begin; i < end; i += kBlock) {
                const std::size_t len = std::min(kBlock, end - i);
                for (std::size_t w = 0; w < count; ++w) {
                    const double* values = words[w]->block(i, len, scratch[w][0], scratch[w][1]);
                    for (std::size_t k = 0; k < len; ++k) keys[k][w] = bits(values[k]);
                }
                for (std::size_t k = 0; k < len; ++k) hashes[k] = KeyIndex<N>::hash(keys[k]);
                for (std::size_t k = 0; k < len; ++k) {
                    const auto [number, added] = index.insert(keys[k], hashes[k]);
                    if (added) leads[part].push_back(static_cast<std::uint32_t>(i + k));
                    of[i + k] = number;
                }
            }
        }
    });
    KeyIndex<N> index(leads[0].size());
    std::vector<std::vector<std::uint32_t>> number(parts);
    for (std::size_t part = 0; part < parts; ++part)
        for (const std::uint32_t i : leads[part]) {
            Key key{};
            for (std::size_t w = 0; w < count; ++w) key[w] = bits((*words[w])[i]);
            const auto [k, added] = index.insert(key);
            if (added) found.push_back(i);
            number[part].push_back(k);
        }
    // The first part's numbers are already the book's (its keys were numbered first).
    if (parts > 1)
        parallel_for(size - chunk, std::size_t{1} << 16, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = chunk + begin; i < chunk + end; ++i) of[i] = number[i / chunk][of[i]];
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

bool gather_parts(std::span<const std::uint32_t> of, std::span<const std::span<const double>> units,
                  std::span<const Column> amounts, std::span<const Column> shares, std::span<double> out) {
    std::size_t least = std::numeric_limits<std::size_t>::max();
    for (const auto& part : units) least = std::min(least, part.size());
    std::atomic<bool> within{true};
    parallel_for(of.size(), std::size_t{1} << 16, [&](std::size_t begin, std::size_t end) {
        std::vector<Block> scratch(2 * units.size());
        std::vector<const double*> amount(units.size()), share(units.size());
        for (std::size_t i = begin; i < end; i += kBlock) {
            const std::size_t len = std::min(kBlock, end - i);
            const std::uint32_t* number = of.data() + i;
            if (*std::max_element(number, number + len) >= least) {
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

}  // namespace norvane::core
