#pragma once

#include <boost/algorithm/string.hpp>

#include <string>
#include <vector>

namespace KelKv {

/// The rows of a table in one text: an end of a line, or two blanks, are between them.
inline std::vector<std::string> rowsOf(std::string text) {
    std::vector<std::string> rows, parts;
    boost::replace_all(text, "  ", "\n");
    boost::split(parts, text, boost::is_any_of("\n"), boost::token_compress_on);
    for (std::string const& part : parts)
        if (std::string const row = boost::trim_copy(part); !row.empty())
            rows.push_back(row);
    return rows;
}

} // namespace KelKv
