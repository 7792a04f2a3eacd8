#pragma once

#include <cstdint>

namespace Mox {

using U8 = std::uint8_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

} // namespace Mox
