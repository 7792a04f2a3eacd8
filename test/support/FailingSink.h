#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace TestSupport {

/// A stream that takes so many bytes and no more.
class FailingSink : private std::streambuf, public std::ostream {
  public:
    explicit FailingSink(std::size_t bytes) : std::ostream(this), taken_(bytes, '\0') {
        setp(taken_.data(), taken_.data() + bytes);
    }

  private:
    std::string taken_;
};

} // namespace TestSupport
