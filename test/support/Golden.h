#pragma once

#include <boost/assert/source_location.hpp>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace TestSupport {

/// The text of a file that states an output to the letter, in the folder `golden` beside the test.
inline std::string golden(std::string const& name,
                          boost::source_location const& test = BOOST_CURRENT_LOCATION) {
    std::filesystem::path const folder = std::filesystem::path(test.file_name()).parent_path();
    std::ifstream file(folder / "golden" / (name + ".txt"), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace TestSupport
