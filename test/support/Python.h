#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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
    std::string const command = "python3 '" + (folder / script).string() + "' < '" + path + "' 2>&1";
    FILE* const pipe = popen(command.c_str(), "r");
    std::stringstream output;
    for (int c; pipe && (c = std::fgetc(pipe)) != EOF;)
        output << static_cast<char>(c);
    EXPECT_EQ(0, pclose(pipe)) << output.str();
    std::filesystem::remove(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);)
        lines.push_back(line);
    return lines;
}

} // namespace TestSupport
