// The columns of a book as the caller's arrays hold them, shared by the
// certain and the life book kernels.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace norvane::core {

// A column of a book as the caller's array holds it: read in place and
// converted to double block by block, so an integer or float32 column costs
// no copy of the book's size.
struct BookColumn {
    enum class Type { Float64, Float32, Int64, Int32 };
    const void* data = nullptr;
    std::size_t size = 0;
    Type type = Type::Float64;

    BookColumn() = default;
    BookColumn(const void* data_, std::size_t size_, Type type_) : data(data_), size(size_), type(type_) {}
    BookColumn(std::span<const double> values) : data(values.data()), size(values.size()) {}  // NOLINT
    double operator[](std::size_t i) const {
        switch (type) {
            case Type::Float32:
                return static_cast<const float*>(data)[i];
            case Type::Int64:
                return static_cast<double>(static_cast<const std::int64_t*>(data)[i]);
            case Type::Int32:
                return static_cast<const std::int32_t*>(data)[i];
            default:
                return static_cast<const double*>(data)[i];
        }
    }
};

inline constexpr std::size_t kBlock = 256;  // policies read together
using Block = std::array<double, kBlock>;
using WholeBlock = std::array<std::int32_t, kBlock>;

// values[0 .. len) as doubles into out, vectorised (the integers exactly,
// as static_cast<double> converts them).
void to_doubles(const std::int64_t* values, std::size_t len, double* out);
void to_doubles(const std::int32_t* values, std::size_t len, double* out);
void to_doubles(const float* values, std::size_t len, double* out);

// values[0 .. len) as 32-bit integers into out, when every one is a whole
// number in [0, 2^31); false (out unspecified) otherwise. Vectorised.
bool to_whole(const double* values, std::size_t len, std::int32_t* out);
bool to_whole(const float* values, std::size_t len, std::int32_t* out);
bool to_whole(const std::int64_t* values, std::size_t len, std::int32_t* out);

// One input of a book: a value per policy, or one value for every policy.
class Column {
  public:
    Column() = default;
    Column(BookColumn values, std::size_t size) : values_(values), repeated_(values.size == 1 && size != 1) {
        if (repeated_) block_.fill(values[0]);
    }
    double operator[](std::size_t i) const { return values_[repeated_ ? 0 : i]; }
    // Whether every policy has the same value (one given for all).
    bool repeated() const { return repeated_ || values_.size == 1; }
    // The values of policies i, i + 1, ... as the caller's array holds them,
    // when that array holds one T per policy; null otherwise.
    template <typename T>
    const T* as(std::size_t i) const {
        if (repeated_ || values_.type != type_of<T>()) return nullptr;
        return static_cast<const T*>(values_.data) + i;
    }
    // The values of policies i .. i + len - 1 (len <= kBlock): in place for
    // doubles, else converted into `scratch`.
    const double* block(std::size_t i, std::size_t len, Block& scratch) const {
        if (repeated_) return block_.data();
        switch (values_.type) {
            case BookColumn::Type::Float64:
                return static_cast<const double*>(values_.data) + i;
            case BookColumn::Type::Float32:
                to_doubles(static_cast<const float*>(values_.data) + i, len, scratch.data());
                break;
            case BookColumn::Type::Int64:
                to_doubles(static_cast<const std::int64_t*>(values_.data) + i, len, scratch.data());
                break;
            case BookColumn::Type::Int32:
                to_doubles(static_cast<const std::int32_t*>(values_.data) + i, len, scratch.data());
                break;
        }
        return scratch.data();
    }
    // The same as whole numbers in [0, 2^31) (a column of int32 is read in
    // place, its values known >= 0 by the book's checks); null when some
    // value of the block is not one.
    const std::int32_t* whole_block(std::size_t i, std::size_t len, WholeBlock& scratch) const {
        if (repeated_) return to_whole(block_.data(), len, scratch.data()) ? scratch.data() : nullptr;
        bool whole = true;
        switch (values_.type) {
            case BookColumn::Type::Int32:
                return static_cast<const std::int32_t*>(values_.data) + i;
            case BookColumn::Type::Float64:
                whole = to_whole(static_cast<const double*>(values_.data) + i, len, scratch.data());
                break;
            case BookColumn::Type::Float32:
                whole = to_whole(static_cast<const float*>(values_.data) + i, len, scratch.data());
                break;
            case BookColumn::Type::Int64:
                whole = to_whole(static_cast<const std::int64_t*>(values_.data) + i, len, scratch.data());
                break;
        }
        return whole ? scratch.data() : nullptr;
    }

  private:
    template <typename T>
    static constexpr BookColumn::Type type_of() {
        if constexpr (std::is_same_v<T, std::int64_t>) return BookColumn::Type::Int64;
        if constexpr (std::is_same_v<T, std::int32_t>) return BookColumn::Type::Int32;
        if constexpr (std::is_same_v<T, float>) return BookColumn::Type::Float32;
        return BookColumn::Type::Float64;
    }
    BookColumn values_;
    bool repeated_ = false;
    Block block_{};
};

// The table each policy of a life book names: numbers (the index of a
// table), or texts of `width` code points (zero-padded, as NumPy holds
// fixed-width strings) matched against the tables' names. Reads NaN for a
// policy that names no table.
class TableColumn {
  public:
    TableColumn() = default;
    TableColumn(BookColumn codes, std::size_t size) : codes_(codes, size) {}
    // `rows` texts: one per policy, or one for all.
    TableColumn(const std::uint32_t* text, std::size_t width, std::size_t rows, std::size_t size,
                const std::vector<std::u32string>& names)
        : text_(text), width_(width), repeated_(rows == 1 && size != 1), single_(rows == 1) {
        // A name longer than the texts matches none of them.
        for (std::size_t k = 0; k < names.size(); ++k) {
            if (names[k].size() > width) continue;
            std::u32string padded = names[k];
            padded.resize(width, U'\0');
            names_.emplace_back(k, std::move(padded));
        }
    }
    double operator[](std::size_t i) const {
        if (!text_) return codes_[i];
        const std::uint32_t* row = text_ + (repeated_ ? 0 : i) * width_;
        for (const auto& [k, name] : names_)
            if (std::equal(row, row + width_, name.begin())) return static_cast<double>(k);
        return std::numeric_limits<double>::quiet_NaN();
    }
    // As Column::repeated.
    bool repeated() const { return text_ ? single_ : codes_.repeated(); }
    // What tells policies' tables apart without matching names: a text of one
    // code point is that code point (the usual "M" and "F"), otherwise the table.
    double key(std::size_t i) const {
        return text_ && width_ == 1 ? static_cast<double>(text_[repeated_ ? 0 : i]) : (*this)[i];
    }
    // As block, of key.
    const double* key_block(std::size_t i, std::size_t len, Block& scratch) const {
        if (!text_ || width_ != 1 || repeated_) return block(i, len, scratch);
        for (std::size_t k = 0; k < len; ++k) scratch[k] = static_cast<double>(text_[i + k]);
        return scratch.data();
    }
    // As Column::block.
    const double* block(std::size_t i, std::size_t len, Block& scratch) const {
        if (!text_) return codes_.block(i, len, scratch);
        if (width_ != 1 || repeated_) {
            for (std::size_t k = 0; k < len; ++k) scratch[k] = (*this)[i + k];
            return scratch.data();
        }
        // Names of one character (the usual "M" and "F"): a comparison a name, without branches.
        const std::uint32_t* text = text_ + i;
        std::fill_n(scratch.begin(), len, std::numeric_limits<double>::quiet_NaN());
        for (const auto& [index, name] : names_) {
            const auto code = static_cast<double>(index);
            const std::uint32_t letter = name[0];
            for (std::size_t k = 0; k < len; ++k) scratch[k] = text[k] == letter ? code : scratch[k];
        }
        return scratch.data();
    }

  private:
    Column codes_;
    const std::uint32_t* text_ = nullptr;
    std::size_t width_ = 0;
    bool repeated_ = false, single_ = false;
    std::vector<std::pair<std::size_t, std::u32string>> names_;  // (index, padded name)
};

}  // namespace norvane::core
