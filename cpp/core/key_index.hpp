// Numbering the distinct keys of a book's policies.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace norvane::core {

// Distinct keys numbered in order of first appearance: open addressing in
// one array that doubles when half full, so a book of a million policies
// costs no allocation per policy and few distinct keys stay in cache.
template <std::size_t N>
class KeyIndex {
  public:
    using Key = std::array<std::uint64_t, N>;
    // Room for `expected` keys, so that the index never grows (a rehash of a
    // million keys costs more than the slots).
    explicit KeyIndex(std::size_t expected) : slots_(std::bit_ceil(2 * expected + 2), kEmpty) {
        keys_.reserve(expected);
    }
    // Fetch the slot where `key` would be looked up first into the cache (a
    // book's keys hash to slots far apart; fetched a block ahead, their
    // lookups do not wait on memory one by one).
    void prefetch(const Key& key) const { __builtin_prefetch(&slots_[hash(key) & (slots_.size() - 1)]); }
    // The number of `key`, and whether it is new.
    std::pair<std::uint32_t, bool> insert(const Key& key) { return insert(key, hash(key)); }
    // The same given the key's hash (hashed ahead, many keys at once, their
    // multiplications overlap instead of waiting on one another).
    std::pair<std::uint32_t, bool> insert(const Key& key, std::size_t hashed) {
        std::size_t slot = find(key, hashed);
        if (slots_[slot] != kEmpty) return {slots_[slot], false};
        if (2 * (keys_.size() + 1) > slots_.size()) {
            grow();
            slot = find(key, hashed);
        }
        slots_[slot] = static_cast<std::uint32_t>(keys_.size());
        keys_.push_back(key);
        return {slots_[slot], true};
    }

    static std::size_t hash(const Key& key) {
        std::uint64_t h = 0x9E3779B97F4A7C15ull;
        for (std::uint64_t part : key) h = (h ^ part) * 0xBF58476D1CE4E5B9ull, h ^= h >> 31;
        // Mixed once more, so that keys differing only in their high bits (doubles that
        // are whole numbers) still differ in the low bits that pick a slot.
        h = (h ^ (h >> 27)) * 0x94D049BB133111EBull;
        return static_cast<std::size_t>(h ^ (h >> 31));
    }

  private:
    static constexpr std::uint32_t kEmpty = 0xFFFFFFFFu;
    // The slot holding `key`, or the empty slot where it belongs.
    std::size_t find(const Key& key, std::size_t hashed) const {
        const std::size_t mask = slots_.size() - 1;
        std::size_t slot = hashed & mask;
        while (slots_[slot] != kEmpty && !same(keys_[slots_[slot]], key)) slot = (slot + 1) & mask;
        return slot;
    }
    // Key equality inline, word by word (not a call to memcmp).
    static bool same(const Key& a, const Key& b) {
        for (std::size_t k = 0; k < N; ++k)
            if (a[k] != b[k]) return false;
        return true;
    }
    void grow() {
        slots_.assign(2 * slots_.size(), kEmpty);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = 0; i < keys_.size(); ++i) {
            std::size_t slot = hash(keys_[i]) & mask;
            while (slots_[slot] != kEmpty) slot = (slot + 1) & mask;
            slots_[slot] = static_cast<std::uint32_t>(i);
        }
    }
    std::vector<std::uint32_t> slots_;
    std::vector<Key> keys_;
};

// Bit pattern with -0.0 folded into 0.0, so equal numbers share a key.
inline std::uint64_t bits(double x) { return std::bit_cast<std::uint64_t>(x == 0.0 ? 0.0 : x); }

}  // namespace norvane::core
