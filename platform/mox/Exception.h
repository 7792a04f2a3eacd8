#pragma once

#include <mox/Export.h>

#include <stdexcept>
#include <string>

namespace Mox {

/// Base of what the libraries throw; `what()` is the message alone.
class MOX_EXPORT Exception : public std::exception {
  public:
    explicit Exception(std::string message) : message_(std::move(message)) {}
    char const* what() const noexcept override { return message_.c_str(); }

  private:
    std::string message_;
};

/// A value, name or key outside what its receiver accepts. Nothing was changed.
class MOX_EXPORT RangeException : public Exception {
  public:
    using Exception::Exception;
};

/// An operation that the receiver has by name but never carries out, such as writing a constant.
class MOX_EXPORT OperationNotSupportedException : public Exception {
  public:
    using Exception::Exception;
};

} // namespace Mox
