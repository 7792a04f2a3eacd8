#pragma once

#include <mox/Integers.h>

#include <boost/intrusive/list.hpp>

#include <cstddef>
#include <utility>

namespace KelKv {

class ByteLimit;

/// What one of many takes of memory that they share.
///
/// Lifetime: the limit outlives what it takes; a share of nothing may be there longer.
class ByteShare
    : public boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
  public:
    explicit ByteShare(ByteLimit& of);
    virtual ~ByteShare() { sizeIs(0); }
    ByteShare(ByteShare const&) = delete;
    ByteShare& operator=(ByteShare const&) = delete;

    /// Bytes that there is always room for: who takes little does not go without because others take much.
    static constexpr std::size_t always = 1 << 16;

    std::size_t size() const { return size_; }
    void sizeIs(std::size_t size);
    bool isOver() const;
    /// The same, and this is one of those who take much.
    bool isTooMuch() const { return isOver() && size_ > always; }
    /// Its owner has to go without.
    void refusedInc();

    /// Whether it can be given up, for others.
    virtual bool mayGiveUp() const { return false; }
    virtual void giveUp() {}

  private:
    ByteLimit& of_;
    std::size_t size_ = 0;
};

/// Memory that many share, in bytes, and the most of it that there is to be.
class ByteLimit {
  public:
    explicit ByteLimit(std::size_t most) : most_(most) {}

    std::size_t most() const { return most_; }
    std::size_t used() const { return used_; }
    bool isOver() const { return used_ > most_; }
    /// All that was given back so far.
    Mox::U64 released() const { return released_; }
    /// How often somebody had to go without.
    Mox::U64 refused() const { return refused_; }
    void refusedInc() { ++refused_; }

    /// Takes the largest share away of those that may be given up: who takes little is not to pay for who
    /// takes much, however early that came.
    void reclaim() {
        ByteShare* largest = nullptr;
        for (ByteShare& share : shares_)
            if (share.mayGiveUp() && (!largest || share.size() > largest->size()))
                largest = &share;
        if (!largest)
            return;
        refusedInc();
        largest->giveUp();
    }

  private:
    friend class ByteShare;

    std::size_t const most_;
    std::size_t used_ = 0;
    Mox::U64 released_ = 0;
    Mox::U64 refused_ = 0;
    boost::intrusive::list<ByteShare, boost::intrusive::constant_time_size<false>> shares_;
};

inline ByteShare::ByteShare(ByteLimit& of) : of_(of) { of.shares_.push_back(*this); }

inline void ByteShare::sizeIs(std::size_t size) {
    if (size == size_)
        return;
    of_.released_ += size < size_ ? size_ - size : 0;
    of_.used_ += size - std::exchange(size_, size);
}

inline bool ByteShare::isOver() const { return of_.isOver(); }
inline void ByteShare::refusedInc() { of_.refusedInc(); }

} // namespace KelKv
