#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace TestSupport {

/// The text of a file that states a report to the letter; its path is that below the folder of the tests.
/// Empty without one.
inline std::string golden(std::string const& path) {
    auto const folder = std::filesystem::path(__FILE__).parent_path().parent_path();
    std::ifstream file(folder / path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace TestSupport
