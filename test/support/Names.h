#pragma once

#include <chrono>

namespace Mox {}
namespace Kel {}

/// What tests share; `using namespace TestSupport` brings the names of the libraries along.
namespace TestSupport {
using namespace Mox;
using namespace Kel;
using namespace std::chrono_literals;
} // namespace TestSupport
