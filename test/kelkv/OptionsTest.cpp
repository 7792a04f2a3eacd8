#include "EngineTest.h"

#include <kelkv/Allowance.h>
#include <kelkv/Options.h>

#include <support/ManualClock.h>

#include <sys/resource.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>

namespace KelKv {

using namespace testing;
using namespace std::chrono_literals;

TEST(Allowance, IsThereAgainAfterASecondHoweverMuchWasSpent) {
    TestSupport::ManualClock steady;
    Mox::SteadyClock::now();
    Allowance allowance;
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(allowance.isSpent());
        allowance.spend(3000);
        EXPECT_FALSE(allowance.isSpent());
        allowance.spend(10'000'000);
        for (auto const& [time, isSpent] : {std::pair(0ms, true), {1000ms, true}, {300ms, false}}) {
            steady.advance(time);
            Mox::SteadyClock::now();
            EXPECT_EQ(allowance.isSpent(), isSpent) << time.count();
        }
    }
}

TEST(Log, SaysALineASecondOfAKindAndHowManyItLeftOut) {
    TestSupport::ManualClock steady;
    Log log;
    testing::internal::CaptureStderr();
    std::istringstream lines("a 0 a 999 b 0 a 0 a 1 a 999 a 1 b 0 b 1000"); // kinds, and milliseconds before
    for (auto [kind, wait] = std::pair(std::string(), 0); lines >> kind >> wait;) {
        steady.advance(std::chrono::milliseconds(wait));
        log.line(kind, std::to_string(steady.now() / 1ms));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kelkv: a: 1000000\nkelkv: b: 1000999\nkelkv: a: 1001000 (2 more before)\n"
              "kelkv: a: 1002000 (1 more before)\nkelkv: b: 1002000\nkelkv: b: 1003000\n");
}

TEST(Options, LeaveAClientOrSayWhyNot) {
    auto const fitAll = [] {
        int tooFew = 0;
        for (rlim_t most = 300; most > 30; --most) {
            rlimit const limit{most, most};
            setrlimit(RLIMIT_NOFILE, &limit);
            Daemon::Options options;
            try {
                EXPECT_THAT(fitDescriptors(options), HasSubstr("in place of"));
                EXPECT_TRUE(tooFew == 0 && options.clientsMax > 0 && options.descriptors() == most);
            } catch (OptionError const&) {
                ++tooFew;
            }
        }
        return tooFew > 0 && !HasFailure();
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // in a process of its own, which lowers its limit
    EXPECT_EXIT(_exit(!fitAll()), ExitedWithCode(0), "");
}

// Command lines, and what they ask for, or what is said of them, behind " > ".
TEST(Options, WhatIsWrongWithACommandLineIsSaid) {
    for (std::string const& row : rowsOf(R"(
             --port=1 --port 2 --http-port=3 --http-address ::1 --clients=5 > 2 5 600 [::1]:3
             --operator-timeout 0 > 7379 10000 315360000 -   --fast-clock > 7379 10000 600 - fast   --version --http-address ::1 > kelkv   --help > usage: kelkv
             --prot 1 > unknown option '--prot'    1 > unexpected word '1'   --help=1 > --help takes no value
             --port > --port needs a number from 0 to 65535  --port= > --port: '' is not a number from 0 to 65535
             --port 65536 > --port: '65536' is not a number from 0 to 65535
             --clients 0 > --clients: '0' is not a number from 1 to 1000000
             --http-port 1 --http-address x > --http-address: 'x' is not an address
             --http-address ::1 > --http-address is of no use without --http-port)")) {
        std::size_t const mark = row.find(" > ");
        Words words;
        std::vector<char const*> pointers;
        boost::split(words, row.substr(0, mark), boost::is_any_of(" "));
        std::ranges::transform(words, std::back_inserter(pointers), [](auto& word) { return word.c_str(); });
        std::ostringstream said;
        try {
            auto const asked = readOptions(pointers);
            if (auto const* const options = std::get_if<Daemon::Options>(&asked))
                (said << options->port << " " << options->clientsMax << " "
                      << options->operatorPatience.count() << " ")
                    << (options->http ? boost::lexical_cast<std::string>(*options->http) : "-")
                    << (options->fastClock ? " fast" : "");
            else
                said << std::get<std::string>(asked);
        } catch (OptionError const& e) {
            said << e.what();
        }
        EXPECT_THAT(said.str(), StartsWith(row.substr(mark + 3))) << row;
    }
}

} // namespace KelKv
