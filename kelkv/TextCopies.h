#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace KelKv {

/// Copies of texts. The first few lie in it; those that follow in blocks, which become larger, up to a size
/// that is the system's again when it is freed, in some ten microseconds.
class TextCopies {
  public:
    using Blocks = std::vector<std::unique_ptr<char[]>>;

    static constexpr std::size_t blockMax = 1 << 17;

    TextCopies() = default;
    TextCopies(TextCopies const&) = delete;
    TextCopies& operator=(TextCopies const&) = delete;

    /// Good until `take()`. One that would leave much of a block empty has its own.
    std::string_view copy(std::string_view text) {
        if (text.size() > blockMax / 4)
            return put(text, newBlock(text.size()));
        if (text.size() > room_.size()) {
            room_ = newBlock(std::max(next_, text.size()));
            next_ = std::min(2 * room_.size(), blockMax);
        }
        return put(text, std::exchange(room_, room_.subspan(text.size())));
    }
    /// Hands out what it has but for the first few, and begins anew.
    Blocks take() {
        room_ = first_;
        next_ = 2 * first_.size();
        return std::exchange(blocks_, {});
    }

  private:
    static std::string_view put(std::string_view text, std::span<char> room) {
        return {room.data(), text.copy(room.data(), text.size())};
    }
    std::span<char> newBlock(std::size_t size) {
        return {blocks_.emplace_back(std::make_unique_for_overwrite<char[]>(size)).get(), size};
    }

    std::array<char, 512> first_;
    std::span<char> room_ = first_;
    std::size_t next_ = 2 * first_.size(); // bytes of the next block
    Blocks blocks_;
};

} // namespace KelKv
