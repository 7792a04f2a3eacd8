#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace KelKv {

/// Copies of texts. The first few lie in it; those that follow in blocks, which become larger, up to a size
/// that is the system's again when it is freed, in some ten microseconds.
class TextCopies {
  public:
    using Blocks = std::vector<std::string>;

    static constexpr std::size_t blockMax = 1 << 17;

    TextCopies() = default;
    TextCopies(TextCopies const&) = delete;
    TextCopies& operator=(TextCopies const&) = delete;

    /// Good until `take()`, as is the other.
    std::string_view copy(std::string_view text) {
        if (text.size() <= first_.size() - firstUsed_) {
            char* const at = first_.data() + std::exchange(firstUsed_, firstUsed_ + text.size());
            return {at, text.copy(at, text.size())};
        }
        if (text.size() > blockMax / 4)
            return keep(std::string(text));
        if (blocks_.empty() || text.size() > blocks_.back().capacity() - blocks_.back().size()) {
            blocks_.emplace_back().reserve(std::max(next_, text.size()));
            next_ = std::min(2 * next_, blockMax);
        }
        std::string& block = blocks_.back();
        return std::string_view(block.append(text)).substr(block.size() - text.size());
    }
    /// What is large becomes a block as it is, before the one that has room. Requires: no string that lies in
    /// itself.
    std::string_view keep(std::string&& text) {
        blocks_.push_back(std::move(text));
        std::string_view const kept = blocks_.back();
        if (blocks_.size() > 1)
            std::swap(blocks_.back(), blocks_[blocks_.size() - 2]);
        return kept;
    }
    /// Hands out what it has but for the first few, and begins anew.
    Blocks take() {
        firstUsed_ = 0;
        next_ = nextAtFirst;
        return std::exchange(blocks_, {});
    }

  private:
    static constexpr std::size_t nextAtFirst = 1024;

    std::array<char, 512> first_;
    std::size_t firstUsed_ = 0;      // bytes
    std::size_t next_ = nextAtFirst; // bytes of the next block
    Blocks blocks_;
};

} // namespace KelKv
