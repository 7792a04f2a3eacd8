#pragma once

#include <cstddef>

namespace KelKv {

/// Bytes of the process that are in memory.
std::size_t residentSize();

} // namespace KelKv
