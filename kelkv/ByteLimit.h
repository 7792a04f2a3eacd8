#pragma once

#include <cstddef>
#include <utility>

namespace KelKv {

/// Memory that many share, in bytes, and the most of it that there may be.
struct ByteLimit {
    std::size_t const most;
    std::size_t used = 0;

    bool isOver() const { return used > most; }
};

/// What one of them takes of it.
///
/// Lifetime: the limit outlives what it takes; a share of nothing may be there longer.
class ByteShare {
  public:
    explicit ByteShare(ByteLimit& of) : of_(of) {}
    ~ByteShare() { sizeIs(0); }
    ByteShare(ByteShare const&) = delete;
    ByteShare& operator=(ByteShare const&) = delete;

    std::size_t size() const { return size_; }
    void sizeIs(std::size_t size) {
        if (size != size_)
            of_.used += size - std::exchange(size_, size);
    }
    bool isOver() const { return of_.isOver(); }

  private:
    ByteLimit& of_;
    std::size_t size_ = 0;
};

} // namespace KelKv
