#pragma once

#include <mox/Exception.h>

#include <string>

namespace TestSupport {

/// What the exception says that the call throws; nothing when it throws none.
template <class Call> std::string refusal(Call&& call) {
    try {
        call();
    } catch (Mox::Exception const& e) {
        return e.what();
    }
    return {};
}

} // namespace TestSupport
