#pragma once

#include <string>

namespace TestSupport {

/// The text of a file that states a report to the letter; the path is that below the folder of the tests. A
/// file that is not there is a failure of the test.
std::string golden(std::string const& path);

} // namespace TestSupport
