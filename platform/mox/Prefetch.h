#pragma once

#include <cstddef>
#include <cstdint>

namespace Mox {

/// Has the caches fetch what lies that many bytes from an address. The address is not looked at: it may be
/// null, or of an object that is gone.
inline void prefetch(void const* address, std::ptrdiff_t offset = 0) {
    __builtin_prefetch(reinterpret_cast<void const*>(reinterpret_cast<std::uintptr_t>(address) +
                                                     static_cast<std::uintptr_t>(offset)));
}

} // namespace Mox
