#pragma once

#include <ostream>
#include <streambuf>

namespace TestSupport {

/// A stream that takes so many bytes and no more.
class FailingSink : private std::streambuf, public std::ostream {
  public:
    explicit FailingSink(std::size_t bytes) : std::ostream(this), left_(bytes) {}

  private:
    using Buffer = std::streambuf;
    Buffer::int_type overflow(Buffer::int_type byte) override {
        if (left_ == 0)
            return Buffer::traits_type::eof();
        --left_;
        return Buffer::traits_type::not_eof(byte);
    }

    std::size_t left_;
};

} // namespace TestSupport
