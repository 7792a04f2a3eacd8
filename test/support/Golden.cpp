#include <support/Golden.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

std::string TestSupport::golden(std::string const& path) {
    auto const folder = std::filesystem::path(__FILE__).parent_path().parent_path();
    std::ifstream file(folder / path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}
