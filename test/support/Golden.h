#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace TestSupport {

/// The text of a file that states a report to the letter; its path is that below the folder of the tests.
inline std::string golden(std::string const& path) {
    auto const folder = std::filesystem::path(__FILE__).parent_path().parent_path();
    std::ifstream const file(folder / path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace TestSupport
