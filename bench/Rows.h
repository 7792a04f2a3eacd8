#pragma once

#include <bench/Sampling.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Bench {

/// What the command line asks for: `--quick`, fewer samples and none of what is only there to explain.
struct Options {
    bool quick = false;

    Options(int argc, char** argv) {
        for (int i = 1; i < argc; ++i) {
            if (std::string_view(argv[i]) != "--quick") {
                std::fprintf(stderr, "usage: %s [--quick]\n", argv[0]);
                std::exit(2);
            }
            quick = true;
        }
    }
    /// Alternating samples for a median; n, how many items take part in each.
    int samples(std::uint64_t n = 1) const { return !quick ? 11 : n < 1'000'000 ? 5 : 1; }
};

/// A peer's figure, in the unit of the row.
struct PeerFigure {
    std::string peer;
    double figure;
};
using PeerFigures = std::vector<PeerFigure>;

/// A row on standard output, one JSON object a line: name, n, and what was measured. bench/table.py makes the
/// table of it, and knows the goals.
class Row {
  public:
    Row(std::string_view name, std::uint64_t n) {
        std::printf(R"({"name": "%.*s", "n": %llu)", static_cast<int>(name.size()), name.data(),
                    static_cast<unsigned long long>(n));
    }
    ~Row() {
        std::printf("}\n");
        std::fflush(stdout);
    }
    Row(Row const&) = delete;
    Row& operator=(Row const&) = delete;

    Row& figure(char const* name, double value) {
        std::printf(R"(, "%s": )", name);
        number(value);
        return *this;
    }
    Row& peers(PeerFigures const& figures) {
        std::printf(R"(, "peers": {)");
        char const* separator = "";
        for (auto const& [peer, value] : figures) {
            std::printf(R"(%s"%s": )", std::exchange(separator, ", "), peer.c_str());
            number(value);
        }
        std::printf("}");
        return *this;
    }

  private:
    static void number(double value) {
        if (std::isfinite(value))
            std::printf("%.6g", value);
        else
            std::printf("null");
    }
};

inline void compare(std::string_view name, std::uint64_t n, Comparison const& c,
                    PeerFigures const& peers = {}) {
    Row(name, n).figure("ours", c.ours).figure("floor", c.floor).figure("spread", c.spread).peers(peers);
}
/// The floor, if any, is there to read our figure by.
inline void figure(std::string_view name, std::uint64_t n, double ours, std::optional<double> floor = {}) {
    Row row(name, n);
    row.figure("ours", ours);
    if (floor)
        row.figure("floor", *floor);
}

/// Rows with these words in their names are not to be had here, for that reason.
inline void leftOut(std::string_view words, std::string const& why) {
    std::printf(R"({"left out": "%.*s", "why": "%s"})"
                "\n",
                static_cast<int>(words.size()), words.data(), why.c_str());
}

} // namespace Bench
