#include "EngineTest.h"

#include <support/Random.h>

#include <cmath>
#include <limits>
#include <map>
#include <set>

namespace KelKv {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();
constexpr double sameMoment = 0.0005;

std::string number(auto of) { return ":" + std::to_string(of) + "\r\n"; }
std::string error(std::string const& text) { return "-ERR " + text + "\r\n"; }
std::string const ok = "+OK\r\n", null = "$-1\r\n";

struct Value {
    std::string text;
    double due = never;
};

/// A look at all keys that goes on between the other parts.
struct Search {
    std::string pattern;
    std::set<std::string> throughout, ever; // what is there
    std::multiset<std::string> found;
};

/// Keys, values and lives, as a map, and a program of requests whose replies it knows.
struct CommandsModelTest : EngineTest {
    CommandsModelTest() {
        // They crowd in a few shards. With the longer patterns a step visits all of one, a part, less than a
        // key.
        for (std::size_t i = 0; names.size() < 24; ++i) {
            std::string const name =
                (i % 3 == 0 ? "other" : "key") + std::to_string(i) + std::string(i % 4 * 1000, 'x');
            if (store.hashOf(name) % Store::shards % 1024 == 1023)
                names.push_back(name);
        }
    }

    void expect(Words const& words, std::string const& reply) {
        std::string shown;
        for (std::string const& word : words)
            shown += word.substr(0, 30) + " ";
        random.doing(shown + " -> " + reply.substr(0, 30));
        EXPECT_EQ(client.ask(words), reply);
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
        bool const was = has(name), isMsec = random.oneIn(2);
        switch (random.below(8)) {
        case 0: return expect({"GET", name}, old);
        case 1: return keys.erase(name), expect({"GETDEL", name}, old);
        case 2: return keys[name] = {value}, expect({"GETSET", name, value}, old);
        case 3: return keys.try_emplace(name, Value{value}), expect({"SETNX", name, value}, number(!was));
        case 4:
            keys[name] = {value, Mox::now() + 2};
            return expect({isMsec ? "PSETEX" : "SETEX", name, isMsec ? "2000" : "2", value}, ok);
        case 5: {
            std::string const text = was ? keys[name].text : "";
            std::size_t const end = std::max<std::size_t>(text.size(), 2) - 1;
            return expect({"GETRANGE", name, "1", "-2"},
                          bulk(text.substr(std::min(text.size(), std::size_t{1}), end - 1)));
        }
        case 6: {
            std::string const one = client.ask({"RANDOMKEY"});
            auto const isIt = [&](auto const& entry) { return bulk(entry.first) == one; };
            EXPECT_TRUE(keys.empty() ? one == null : std::ranges::any_of(keys, isIt)) << one;
            return;
        }
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

    void count() {
        std::string const name = key(), text = has(name) ? keys[name].text : "0";
        long long const more = static_cast<int>(random.below(24)) - 12, old = std::atoll(text.c_str());
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
        Words words{!isDel ? "EXISTS" : random.oneIn(2) ? "DEL" : "UNLINK"};
        std::size_t counted = 0;
        for (std::size_t i = 1 + random.below(40); i > 0; --i) {
            words.push_back(key());
            counted += isDel ? keys.erase(words.back()) : keys.count(words.back());
        }
        expect(words, number(counted));
        std::string values = "*" + std::to_string(words.size() - 1) + "\r\n";
        for (std::size_t i = 1; i < words.size(); ++i)
            values += get(words[i]);
        words[0] = "MGET";
        expect(words, values);
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
    void lookAt() {
        std::string const name = key();
        double const due = dueOf(name);
        auto const ask = [&](std::string const& of, double from) {
            long long const msec = due == never ? 0 : std::llround((due - from) * 1000);
            expect({"P" + of, name}, number(due != never ? msec : has(name) ? -1 : -2));
            expect({of, name}, number(due != never ? (msec + 500) / 1000 : has(name) ? -1 : -2));
        };
        expect({"STRLEN", name}, number(has(name) ? keys[name].text.size() : 0));
        expect({"TYPE", name}, has(name) ? "+string\r\n" : "+none\r\n");
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
        if (random.oneIn(20))
            keys.clear(), expect({random.oneIn(2) ? "FLUSHALL" : "FLUSHDB"}, ok);
    }
    void begin(Search& search) {
        search = {};
        search.pattern = random.oneIn(3) ? "*" : "k" + std::string(random.of(stars), '*');
        search.throughout = {names.begin(), names.end()};
        note(search);
    }
    void note(Search& search) {
        for (std::string const& name : names)
            if (has(name))
                search.ever.insert(name);
            else
                search.throughout.erase(name);
    }
    void end(Search const& search) {
        ++searches;
        for (std::string const& name : names) {
            bool const matches = search.pattern == "*" || name[0] == 'k';
            EXPECT_LE(search.throughout.count(name) * matches, search.found.count(name)) << name;
            EXPECT_GE(search.ever.count(name) * matches, search.found.count(name)) << name;
        }
    }
    void scan() {
        if (cursor == "0")
            begin(scanned);
        random.doing("SCAN " + cursor);
        std::string reply = client.ask(
            {"SCAN", cursor, "MATCH", scanned.pattern, "COUNT", std::to_string(1 + random.below(5))});
        auto const lists = requestsIn(RequestParser(), reply.replace(0, 4, "*1\r\n"));
        cursor = lists.at(0).at(0);
        scanned.found.insert(lists.at(1).begin(), lists.at(1).end());
        if (cursor == "0")
            end(scanned);
    }
    void walk() {
        if (!walked)
            begin(gathered), walked = std::make_unique<Walked>(*this, gathered.pattern);
        random.doing("walk");
        walked->step();
        if (walked->end.empty())
            return;
        gathered.found = walked->keys();
        end(gathered);
        walked = nullptr;
    }

    std::map<std::string, Value> keys;
    TestSupport::Random random;
    Words names;
    CommandClient client{engine};
    std::array<std::size_t, 3> stars{1, 30, 100};
    std::string cursor = "0";
    Search scanned, gathered;
    std::unique_ptr<Walked> walked;
    std::size_t searches = 0;
};

} // namespace

TEST_F(CommandsModelTest, RepliesAsAMapDoesWhileSearchesGoOn) {
    using T = CommandsModelTest;
    constexpr void (T::*parts[])() = {
        &T::write, &T::readAndChange, &T::changeText, &T::count, &T::several, &T::writeSeveral, &T::move,
        &T::live,  &T::lookAt,        &T::pass,       &T::scan,  &T::scan,    &T::walk};
    for (std::size_t i = 0; i < TestSupport::operations(30000) && !HasFailure(); ++i) {
        (this->*random.of(parts))();
        note(scanned);
        note(gathered);
        auto const living =
            std::ranges::count_if(keys, [](auto const& key) { return key.second.due != never; });
        EXPECT_GE(store.size(), keys.size());
        EXPECT_EQ(store.size() - keys.size(), store.expiring() - static_cast<std::size_t>(living));
    }
    EXPECT_GT(searches, TestSupport::operations(30000) / 500);
}

} // namespace KelKv
