#pragma once

#include <string>

namespace Mox {

/// What is wrong with something, or stands in its way, in words; empty when nothing does.
///
/// A class tells the preconditions of an operation by a function beside it (`problemOf...`), for those who
/// have to ask before: the operation itself ends in an assertion.
using Problem = std::string;

} // namespace Mox
