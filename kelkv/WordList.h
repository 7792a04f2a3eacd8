#pragma once

#include "Text.h"

#include <boost/container/deque.hpp>
#include <boost/range/iterator_range.hpp>

#include <cstddef>

namespace KelKv {

/// A request's words. In blocks, so that a million of them neither move when one more comes nor have to be
/// freed at once.
using WordList =
    boost::container::deque<Word, void, boost::container::deque_options_t<boost::container::block_size<64u>>>;

/// A request's command and its arguments, or some of them that follow one another.
///
/// Lifetime: the words outlive it.
class Arguments : public boost::iterator_range<WordList::const_iterator> {
  public:
    Arguments(const_iterator begin, const_iterator end) : iterator_range(begin, end) {}
    Arguments(WordList const& words) : Arguments(words.begin(), words.end()) {}

    Word const& operator[](std::size_t number) const { return *at(number); }
    /// Requires: there are as many.
    Arguments first(std::size_t count) const { return {begin(), at(count)}; }
    Arguments subspan(std::size_t from) const { return {at(from), end()}; }

  private:
    const_iterator at(std::size_t number) const { return begin() + static_cast<difference_type>(number); }
};

} // namespace KelKv
