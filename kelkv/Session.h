#pragma once

#include <mox/SteadyClock.h>

#include <boost/intrusive/list_hook.hpp>

#include <string>
#include <string_view>

namespace KelKv {

/// What is known of a client, for its commands and for who asks who is there: it stands in the engine's list
/// as long as its connection is open.
struct Session
    : boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
    Mox::U64 id = 0;
    bool isOperator = false;
    std::string peer; // address and port
    std::string here; // the same of our end
    bool isResp3 = false;
    std::string name;             // as CLIENT SETNAME says
    std::string library;          // as CLIENT SETINFO says
    std::string libraryVersion;   // the same
    std::string_view lastCommand; // its name in the table
    Mox::SteadyClock::TimePoint since{};
    Mox::SteadyClock::TimePoint lastUsed{}; // by a request
};

} // namespace KelKv
