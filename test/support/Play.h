#pragma once

#include <sstream>
#include <string>

namespace TestSupport {

/// Has the operations of a text performed one by one, each "name" or "name:number".
template <class Perform> void play(std::string const& operations, Perform const& perform) {
    std::istringstream stream(operations);
    for (std::string name; stream >> name;) {
        auto const colon = std::min(name.find(':'), name.size());
        perform(name.substr(0, colon), colon == name.size() ? 0.0 : std::stod(name.substr(colon + 1)));
    }
}

} // namespace TestSupport
