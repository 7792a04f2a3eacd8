#include "CommandClient.h"
#include "EngineTest.h"

#include <support/Random.h>

#include <cmath>
#include <limits>
#include <map>
#include <set>

namespace KelKv {

namespace {

using Words = std::vector<std::string>;

constexpr double never = std::numeric_limits<double>::infinity();
constexpr double calendarBegin = 1e9;
constexpr double sameMoment = 0.0005;

std::string number(auto of) { return ":" + std::to_string(of) + "\r\n"; }
std::string bulk(std::string const& text) {
    return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}
std::string error(std::string const& text) { return "-ERR " + text + "\r\n"; }
std::string const ok = "+OK\r\n", null = "$-1\r\n";

struct Value {
    std::string text;
    double due = never;
};

/// Keys, values and lives, as a map, and a program of requests whose replies it knows.
struct CommandsModelTest : EngineTest {
    CommandsModelTest() {
        engine.calendarTime = [] { return calendarBegin + Mox::now(); };
        for (int i = 0; i < 24; ++i)
            names.push_back((i % 3 == 0 ? "other" : "key") + std::to_string(i));
    }

    void expect(Words const& words, std::string const& reply) {
        std::string shown;
        for (std::string const& word : words)
            shown += word.substr(0, 30) + " ";
        random.doing(shown + " -> " + reply.substr(0, 30));
        EXPECT_EQ(ask(words), reply);
    }
    std::string ask(Words const& words) {
        for (client.begin({words.begin(), words.end()}); !client.isDone();)
            client.step();
        return client.take();
    }

    bool has(std::string const& key) { return keys.contains(key); }
    std::string get(std::string const& key) { return has(key) ? bulk(keys[key].text) : null; }
    double dueOf(std::string const& key) { return has(key) ? keys[key].due : never; }
    void dropDue() {
        std::erase_if(keys, [](auto const& entry) { return entry.second.due <= Mox::now(); });
    }

    std::string key() { return random.of(names); }
    std::string text() {
        if (random.oneIn(40))
            return std::string(Text::shortMax - random.below(4), 'l');
        return random.oneIn(3) ? "word" : std::to_string(random.below(2000));
    }
    int place() { return static_cast<int>(random.below(24)) - 12; }
    /// Adds how long to live, in one of the units; when that is over.
    double life(Words& words) {
        std::size_t const unit = random.below(4);
        bool const isCalendar = unit >= 2;
        double const from = isCalendar ? std::floor(calendarBegin + Mox::now()) : 0;
        double const at = from + static_cast<double>(1 + random.below(50));
        words.push_back(std::array{"EX", "PX", "EXAT", "PXAT"}[unit]);
        words.push_back(std::to_string(std::llround(unit % 2 == 0 ? at : at * 1000)));
        return isCalendar ? at - calendarBegin : Mox::now() + at;
    }

    // Each of them asks for one thing, and does it to the map.

    void write() {
        Words words{"SET", key(), text()};
        bool const was = has(words[1]), isGet = random.oneIn(4), isKept = random.oneIn(4);
        std::size_t const condition = random.below(5);
        std::string const old = get(words[1]);
        double due = isKept ? dueOf(words[1]) : never;
        if (isGet)
            words.push_back("get");
        if (condition < 2)
            words.push_back(condition == 0 ? "NX" : "xx");
        if (isKept)
            words.push_back("KEEPTTL");
        else if (random.oneIn(3))
            due = life(words);
        bool const isSet = condition >= 2 || was == (condition == 1);
        if (isSet)
            keys[words[1]] = {words[2], due};
        expect(words, isGet ? old : isSet ? ok : null);
    }

    void readAndChange() {
        std::string const name = key(), value = text(), old = get(name);
        switch (random.below(4)) {
        case 0: return expect({"GET", name}, old);
        case 1: return keys.erase(name), expect({"GETDEL", name}, old);
        case 2: return keys[name] = {value}, expect({"GETSET", name, value}, old);
        default:
            Words words{"GETEX", name};
            double const due = random.oneIn(2) ? life(words) : (words.push_back("PERSIST"), never);
            if (has(name))
                keys[name].due = due;
            expect(words, old);
        }
    }

    void changeText() {
        std::string const name = key(), more = random.oneIn(2) ? text() : "";
        std::string& value = keys[name].text;
        std::size_t const at = random.below(12), end = std::max(value.size(), at + 2);
        if (!more.empty()) {
            value += more;
            return expect({"APPEND", name, more}, number(value.size()));
        }
        Words const words{"SETRANGE", name, std::to_string(at), "ab"};
        if (end > Text::shortMax)
            return expect(words, error("SETRANGE is for texts of 262144 bytes at most"));
        value.resize(end);
        value.replace(at, 2, "ab");
        expect(words, number(end));
    }

    void readText() {
        std::string const name = key();
        expect({"STRLEN", name}, number(has(name) ? keys[name].text.size() : 0));
        expect({"TYPE", name}, has(name) ? "+string\r\n" : "+none\r\n");
    }

    void count() {
        std::string const name = key(), text = has(name) ? keys[name].text : "0";
        long long const more = place(), old = std::atoll(text.c_str());
        Words words{more > 0 ? "INCRBY" : "DECRBY", name, std::to_string(std::abs(more))};
        if (std::abs(more) == 1)
            words = {more > 0 ? "INCR" : "DECR", name};
        if (text != std::to_string(old))
            return expect(words, error("value is not an integer or out of range"));
        keys[name].text = std::to_string(old + more);
        expect(words, number(old + more));
    }

    void several() {
        bool const isDel = random.oneIn(2);
        Words words{"MGET"};
        std::size_t counted = 0;
        std::string values;
        for (std::size_t i = 1 + random.below(40); i > 0; --i) {
            words.push_back(key());
            values += get(words.back());
        }
        expect(words, "*" + std::to_string(words.size() - 1) + "\r\n" + values);
        words[0] = isDel ? "DEL" : "EXISTS";
        for (std::size_t i = 1; i < words.size(); ++i)
            counted += isDel ? keys.erase(words[i]) : keys.count(words[i]);
        expect(words, number(counted));
    }
    void writeSeveral() {
        bool const mustBeNew = random.oneIn(2);
        bool isSet = true;
        Words words{mustBeNew ? "MSETNX" : "MSET"};
        for (std::size_t i = 1 + random.below(10); i > 0; --i) {
            words.insert(words.end(), {key(), std::to_string(i)});
            isSet = isSet && !(mustBeNew && has(words[words.size() - 2]));
        }
        for (std::size_t i = 1; isSet && i < words.size(); i += 2)
            keys[words[i]] = {words[i + 1]};
        expect(words, mustBeNew ? number(isSet) : ok);
    }

    void move() {
        std::size_t const kind = random.below(4);
        Words words{std::array{"RENAME", "RENAMENX", "COPY", "COPY"}[kind], key(), key()};
        if (kind == 3)
            words.push_back("REPLACE");
        std::string const &from = words[1], &to = words[2];
        bool const isThere = has(from), isDone = isThere && (kind % 3 == 0 || !has(to));
        if (kind >= 2 && from == to)
            return expect(words, error("source and destination objects are the same"));
        if (isDone && from != to)
            keys[to] = keys[from];
        if (isDone && from != to && kind < 2)
            keys.erase(from);
        expect(words, kind < 2 && !isThere ? error("no such key") : kind == 0 ? ok : number(isDone));
    }

    void live() {
        Words words{key()};
        double const due = life(words), old = dueOf(words[0]);
        std::size_t const condition = random.below(6);
        bool const isMet = std::array{old == never,           old != never, due - old > sameMoment,
                                      old - due > sameMoment, true,         true}[condition];
        bool const isSet = has(words[0]) && isMet;
        if (isSet)
            keys[words[0]].due = due;
        std::swap(words[0], words[1]);
        words[0] =
            std::string(words[0][0] == 'P' ? "P" : "") + (words[0].ends_with("AT") ? "EXPIREAT" : "EXPIRE");
        if (condition < 4)
            words.push_back(std::array{"NX", "xx", "gt", "LT"}[condition]);
        expect(words, number(isSet));
        dropDue();
    }
    void askLife() {
        std::string const name = key();
        double const due = dueOf(name);
        auto const ask = [&](std::string const& of, double from) {
            long long const msec = due == never ? 0 : std::llround((due - from) * 1000);
            expect({"P" + of, name}, number(due != never ? msec : has(name) ? -1 : -2));
            expect({of, name}, number(due != never ? (msec + 500) / 1000 : has(name) ? -1 : -2));
        };
        ask("TTL", Mox::now());
        ask("EXPIRETIME", -calendarBegin);
        if (has(name) && random.oneIn(2)) {
            keys[name].due = never;
            expect({"PERSIST", name}, number(due != never));
        }
    }

    void pass() { // so that no life is rounded in the middle between two milliseconds
        double const msec = std::floor(Mox::now() * 1000 + static_cast<double>(random.below(3000)));
        time.clock->nowIs(msec / 1000 + 0.0003);
        turn(3);
        dropDue();
    }
    void clear() {
        if (!random.oneIn(20))
            return;
        keys.clear();
        expect({random.oneIn(2) ? "FLUSHALL" : "FLUSHDB"}, ok);
    }
    /// A part of a scan, which goes on between the others.
    void scan() {
        if (cursor == "0") {
            pattern = random.oneIn(2) ? "*" : "key*";
            found.clear();
            throughout = {names.begin(), names.end()};
            noteGone();
        }
        std::string reply =
            ask({"SCAN", cursor, "MATCH", pattern, "COUNT", std::to_string(1 + random.below(5))});
        random.doing("SCAN " + cursor + " " + pattern);
        RequestParser parser; // a reply of bulks has the form of a request
        parser.take(reply.replace(0, 4, "*1\r\n"));
        cursor = parser.arguments()[0].view;
        parser.reset();
        parser.take(reply.substr(reply.find('*', 4)));
        for (std::string_view const name : parser.arguments())
            found.emplace(name);
        if (cursor != "0")
            return;
        ++scans;
        for (std::string const& name : throughout)
            EXPECT_EQ(found.count(name), pattern == "*" || name[0] == 'k' ? 1u : 0u) << name;
    }
    void noteGone() {
        std::erase_if(throughout, [&](std::string const& name) { return !has(name); });
    }

    std::map<std::string, Value> keys;
    TestSupport::Random random;
    Words names;
    CommandClient client{engine};
    std::string cursor = "0", pattern;
    std::multiset<std::string> found;
    std::set<std::string> throughout;
    std::size_t scans = 0;
};

} // namespace

TEST_F(CommandsModelTest, RepliesAsAMapDoesWhileScansGoOn) {
    using T = CommandsModelTest;
    constexpr void (T::*parts[])() = {
        &T::write, &T::readAndChange, &T::changeText, &T::readText, &T::count, &T::several, &T::writeSeveral,
        &T::move,  &T::live,          &T::askLife,    &T::pass,     &T::clear, &T::scan,    &T::scan};
    for (std::size_t i = 0; i < TestSupport::operations(30000) && !HasFailure(); ++i) {
        (this->*random.of(parts))();
        noteGone();
        EXPECT_GE(store.size(), keys.size());
    }
    EXPECT_GT(scans, TestSupport::operations(30000) / 1000);
}

} // namespace KelKv
