#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

namespace TestSupport {

/// What the script prints of that input, line by line; its path is that below the folder of the tests. A
/// script that ends with an error fails the test.
inline std::vector<std::string> python(std::string const& script, std::string_view input) {
    std::string path = (std::filesystem::temp_directory_path() / "keltask-XXXXXX").string();
    ::close(::mkstemp(path.data()));
    std::ofstream(path, std::ios::binary) << input;
    auto const folder = std::filesystem::path(__FILE__).parent_path().parent_path();
    std::string const output = path + ".out";
    std::string const command =
        "python3 '" + (folder / script).string() + "' < '" + path + "' > '" + output + "'";
    EXPECT_EQ(0, std::system(command.c_str()));
    std::vector<std::string> lines;
    std::ifstream file(output);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    std::filesystem::remove(path);
    std::filesystem::remove(output);
    return lines;
}

} // namespace TestSupport
