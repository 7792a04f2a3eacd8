#include "Options.h"

#include "Number.h"

#include <sys/resource.h>

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <string_view>

namespace KelKv {

namespace {

using namespace std::literals;

struct Arguments {
    Daemon::Options daemon;
    std::optional<unsigned short> httpPort;              // none: no such port
    std::optional<boost::asio::ip::address> httpAddress; // none: loopback
    bool wantsHelp = false;
    bool wantsVersion = false;
};

struct Option {
    std::string_view name;
    std::string_view value; // what stands for it in the help; empty: it takes none
    std::string_view help;
    std::string_view expected; // of the value
    bool (*read)(Arguments& arguments, std::string_view value);
};

template <class T> bool readWithin(std::string_view text, T& number, T least, T most) {
    return readNumber(text, number) && least <= number && number <= most;
}

bool readConnections(std::string_view text, std::size_t& number) {
    return readWithin<std::size_t>(text, number, 1, 1000000);
}

/// 0 is for ever, or ten years, which timers take.
bool readPatience(std::string_view text, std::chrono::seconds& patience) {
    constexpr int longest = 10 * 365 * 86400;
    int number = 0;
    bool const isRead = readWithin(text, number, 0, longest);
    patience = std::chrono::seconds(number == 0 ? longest : number);
    return isRead;
}

bool readAddress(std::string_view text, boost::asio::ip::address& address) {
    boost::system::error_code error;
    address = boost::asio::ip::make_address(std::string(text), error);
    return !error;
}

constexpr std::string_view aPort = "a number from 0 to 65535", someConnections = "a number from 1 to 1000000";

constexpr Option optionTable[] = {
    {"--port", "N", "where clients connect, on loopback (7379)", aPort,
     [](auto& to, auto text) { return readNumber(text, to.daemon.port); }},
    {"--operator-port", "N", "where the operator connects, on loopback (7380)", aPort,
     [](auto& to, auto text) { return readNumber(text, to.daemon.operatorPort); }},
    {"--http-port", "N", "also a page, a trace and metrics (no such port)", aPort,
     [](auto& to, auto text) { return readNumber(text, to.httpPort.emplace()); }},
    {"--http-address", "ADDRESS", "where the HTTP port is bound (loopback)", "an address",
     [](auto& to, auto text) { return readAddress(text, to.httpAddress.emplace()); }},
    {"--clients", "N", "connections of clients at a time (10000)", someConnections,
     [](auto& to, auto text) { return readConnections(text, to.daemon.clientsMax); }},
    {"--operators", "N", "connections of operators at a time (16)", someConnections,
     [](auto& to, auto text) { return readConnections(text, to.daemon.operatorsMax); }},
    {"--http-clients", "N", "connections to the HTTP port at a time (16)", someConnections,
     [](auto& to, auto text) { return readConnections(text, to.daemon.httpMax); }},
    {"--operator-timeout", "SECONDS", "until an idle operator is closed, 0: never (600)",
     "a number of seconds, up to ten years",
     [](auto& to, auto text) { return readPatience(text, to.daemon.operatorPatience); }},
    {"--fast-clock", "", "the processor's time-stamp counter tells the time", "",
     [](auto& to, auto) { return to.daemon.fastClock = true; }},
    {"--help", "", "prints this", "", [](auto& to, auto) { return to.wantsHelp = true; }},
    {"--version", "", "prints the version", "", [](auto& to, auto) { return to.wantsVersion = true; }},
};

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

Option const& optionNamed(std::string_view name) {
    if (!name.starts_with("-"))
        throw OptionError("unexpected word " + quoted(name));
    auto const at = std::ranges::find(optionTable, name, &Option::name);
    if (at == std::end(optionTable))
        throw OptionError("unknown option " + quoted(name));
    return *at;
}

/// Takes an option and its value off the words.
void readOption(Arguments& arguments, std::span<char const* const>& words) {
    std::string_view const word = words.front();
    words = words.subspan(1);
    std::size_t const equals = std::min(word.find('='), word.size());
    Option const& option = optionNamed(word.substr(0, equals));
    std::string_view value;
    if (equals < word.size())
        value = word.substr(equals + 1);
    else if (!option.value.empty() && !words.empty()) {
        value = words.front();
        words = words.subspan(1);
    } else if (!option.value.empty())
        throw OptionError(std::string(option.name) + " needs " + std::string(option.expected));
    if (option.value.empty() && equals < word.size())
        throw OptionError(std::string(option.name) + " takes no value");
    if (!option.read(arguments, value))
        throw OptionError(std::string(option.name) + ": " + quoted(value) + " is not " +
                          std::string(option.expected));
}

std::string help() {
    std::ostringstream text;
    text << "usage: kelkv [OPTION...]\n\nA key-value daemon that shows what its scheduler does.\n\n"
         << std::left;
    for (Option const& option : optionTable)
        text << "  " << std::setw(28) << std::string(option.name) + " " + std::string(option.value)
             << option.help << "\n";
    text << "\nIn brackets: what it is without the option. Port 0 is a free one.\n";
    return std::move(text).str();
}

/// Returns what the limit is then.
rlim_t raiseDescriptors(rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return wanted;
    rlim_t const before = limit.rlim_cur;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    bool const isRaised = limit.rlim_cur > before && setrlimit(RLIMIT_NOFILE, &limit) == 0;
    return isRaised ? limit.rlim_cur : before;
}

} // namespace

std::variant<Daemon::Options, std::string> readOptions(std::span<char const* const> words) {
    Arguments arguments;
    while (!words.empty())
        readOption(arguments, words);
    if (arguments.wantsHelp)
        return help();
    if (arguments.wantsVersion)
        return "kelkv " KELKV_VERSION "\n"s;
    if (arguments.httpAddress && !arguments.httpPort)
        throw OptionError("--http-address is of no use without --http-port");
    if (arguments.httpPort)
        arguments.daemon.http.emplace(arguments.httpAddress.value_or(boost::asio::ip::address_v4::loopback()),
                                      *arguments.httpPort);
    return arguments.daemon;
}

std::string fitDescriptors(Daemon::Options& options) {
    std::size_t const wanted = options.descriptors(), clients = options.clientsMax;
    rlim_t const there = raiseDescriptors(wanted);
    if (there >= wanted)
        return {};
    std::string const limit = "the limit of " + std::to_string(there) + " descriptors (ulimit -n)";
    std::size_t const missing = wanted - there;
    if (missing >= clients)
        throw OptionError(limit + " leaves none for clients");
    options.clientsMax -= missing;
    return limit + " allows " + std::to_string(options.clientsMax) + " clients in place of " +
           std::to_string(clients);
}

} // namespace KelKv
