#include <kel/SlicedText.h>

namespace Kel {

SlicedText::~SlicedText() = default;

bool SlicedLines::next(std::string& text) {
    std::vector<std::string> lines;
    bool const more = nextLines(lines);
    for (std::string const& line : lines)
        text.append(line).push_back('\n');
    return more;
}

std::string wholeText(SlicedText& text) {
    std::string whole;
    while (text.next(whole)) {
    }
    return whole;
}

} // namespace Kel
