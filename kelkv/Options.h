#pragma once

#include "Daemon.h"

#include <span>
#include <stdexcept>
#include <string>
#include <variant>

namespace KelKv {

/// What is wrong with a command line.
class OptionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What a command line asks for: a daemon, or a text to be printed in its place. An option's value is the
/// next word, or stands behind a `=`; of an option that comes twice the last one counts.
///
/// Throws OptionError.
std::variant<Daemon::Options, std::string> readOptions(std::span<char const* const> words);

/// Raises the limit of descriptors that the process has (`ulimit -n`) as far as that is needed and allowed.
/// If it stays too small there are fewer clients. Returns what whoever started the daemon should know; empty
/// when all fits.
///
/// Throws OptionError when no client is left.
std::string fitDescriptors(Daemon::Options& options);

} // namespace KelKv
