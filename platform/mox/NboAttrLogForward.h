#pragma once

#include <mox/Ptr.h>

#include <concepts>

namespace Mox::NboAttrLog {

class In;
class Out;

/// In, for the log constructors of types that are also made from a number: as templates, they leave a literal
/// 0 a number.
template <class T>
concept AnyIn = std::same_as<T, In>;

} // namespace Mox::NboAttrLog
