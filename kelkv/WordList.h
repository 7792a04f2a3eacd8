#pragma once

#include "Text.h"

#include <boost/iterator/iterator_facade.hpp>

#include <cstddef>
#include <utility>
#include <vector>

namespace KelKv {

/// A request's words. In blocks, so that a million of them neither move when one more comes nor have to be
/// freed at once.
class WordList {
  public:
    using Blocks = std::vector<std::vector<Word>>;

    std::size_t size() const { return size_; }
    Word const& operator[](std::size_t number) const { return blocks_[number / perBlock][number % perBlock]; }
    Word& operator[](std::size_t number) { return blocks_[number / perBlock][number % perBlock]; }
    void push_back(Word word) {
        if (size_ % perBlock == 0 && blocks_.size() == size_ / perBlock)
            blocks_.emplace_back();
        blocks_.back().push_back(std::move(word));
        ++size_;
    }
    /// Of a few words the room is kept for the next ones.
    void clear() {
        if (blocks_.size() > 1 || size_ > kept)
            blocks_.clear();
        else if (size_ > 0)
            blocks_.front().clear();
        size_ = 0;
    }
    /// Hands out what it has, and has none then.
    Blocks take() {
        size_ = 0;
        return std::exchange(blocks_, {});
    }

  private:
    static constexpr std::size_t perBlock = 1 << 13; // freed in some ten microseconds
    static constexpr std::size_t kept = 64;

    Blocks blocks_;
    std::size_t size_ = 0;
};

/// A request's command and its arguments, or some of them that follow one another.
///
/// Lifetime: the words outlive it.
class Arguments {
  public:
    class Iterator : public boost::iterator_facade<Iterator, Word const, std::random_access_iterator_tag> {
      public:
        Iterator() = default;
        Iterator(WordList const& words, std::size_t at) : words_(&words), at_(at) {}

      private:
        friend class boost::iterator_core_access;
        Word const& dereference() const { return (*words_)[at_]; }
        bool equal(Iterator const& other) const { return at_ == other.at_; }
        void increment() { ++at_; }
        void decrement() { --at_; }
        void advance(std::ptrdiff_t by) { at_ += static_cast<std::size_t>(by); }
        std::ptrdiff_t distance_to(Iterator const& other) const {
            return static_cast<std::ptrdiff_t>(other.at_ - at_);
        }

        WordList const* words_ = nullptr;
        std::size_t at_ = 0;
    };

    Arguments(WordList const& words) : Arguments(words, 0, words.size()) {}

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    Word const& operator[](std::size_t number) const { return (*words_)[from_ + number]; }
    Iterator begin() const { return {*words_, from_}; }
    Iterator end() const { return {*words_, from_ + size_}; }

    /// Requires: there are as many.
    Arguments first(std::size_t count) const { return {*words_, from_, count}; }
    Arguments subspan(std::size_t from) const { return {*words_, from_ + from, size_ - from}; }

  private:
    Arguments(WordList const& words, std::size_t from, std::size_t size)
        : words_(&words), from_(from), size_(size) {}

    WordList const* words_;
    std::size_t from_;
    std::size_t size_;
};

} // namespace KelKv
