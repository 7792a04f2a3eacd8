#pragma once

#include <mox/AttributeText.h>
#include <mox/TypeRegistry.h>

#include <tuple>
#include <utility>

namespace Mox {

/// Which values of a type are allowed, in words and as a function; without one, all.
template <class V> struct Range {
    std::string_view words = {};
    bool (*holds)(V const& value) = nullptr;
};

/// Registers a type, attribute by attribute:
///
///     AttributeTable<Task>(registry)
///         .readOnly("taskName", &Task::taskName)
///         .writable("taskQuantum", &Task::taskQuantum, &Task::taskQuantumIs, quantumRange)
///         .operation("scheduleTask", &Task::scheduleTask, problemOfScheduling);
///
/// Getters, setters and operations are member functions, or functions that take the T first. A setter that is
/// virtual acts for derived types too. Where a setter or an operation could fail by an assertion, a function
/// beside it tells the problem (see Mox::Problem) before it is called: for a value in every state by a Range,
/// for a state by a function of the entity and the value (the arguments).
template <class T> class AttributeTable {
  public:
    template <class Get> using ValueOf = std::remove_cvref_t<std::invoke_result_t<Get, T const&>>;
    template <class... V>
    using ProblemOf = std::type_identity_t<std::function<Problem(T const&, V const&...)>>;

    explicit AttributeTable(TypeRegistry& registry) : entry_(add(registry)) {
        if constexpr (!Entity<T> && std::default_initializable<T>)
            entry_.valueMakerIs([](auto const& fill) {
                T value{};
                fill(Subject::ofValue(value));
                return std::any(value);
            });
    }

    template <class Get> AttributeTable& readOnly(std::string name, Get get) {
        entry_.add(shown(std::move(name), AttributeKind::value, get));
        return *this;
    }
    template <class Get> AttributeTable& reactor(std::string name, Get get) {
        return readOnlyOf(AttributeKind::reactor, std::move(name), [get](T const& subject) {
            auto const& reactor = std::invoke(get, subject);
            return reactor ? reactor->notifier() : nullptr;
        });
    }
    template <class V> AttributeTable& constant(std::string name, V (*get)()) {
        return readOnlyOf(AttributeKind::constant, std::move(name), [get](T const&) { return get(); });
    }

    template <class Get, class Set>
    AttributeTable& writable(std::string name, Get get, Set set, Range<ValueOf<Get>> range = {},
                             ProblemOf<ValueOf<Get>> problem = nullptr) {
        using Text = AttributeText<ValueOf<Get>>;
        Attribute attribute = shown(std::move(name), AttributeKind::value, get);
        attribute.range = range.words;
        attribute.problemOfText = [range](String const& text) {
            return problemOf<ValueOf<Get>>(text, range);
        };
        attribute.problemOfWriting = [problem](Subject const& subject, String const& text) {
            return problem ? problem(subject.as<T>(), Text::read(text)) : Problem();
        };
        attribute.write = [set](Subject const& subject, String const& text) {
            std::invoke(set, subject.as<T>(), Text::read(text));
        };
        entry_.add(std::move(attribute));
        return *this;
    }

    /// A map: an object that is walked as pairs and has `find(key)`.
    template <class Get> AttributeTable& map(std::string name, Get get) {
        using Pair = std::remove_cvref_t<decltype(*std::invoke(get, std::declval<T const&>()).begin())>;
        using KeyText = AttributeText<std::remove_const_t<typename Pair::first_type>>;
        using ValueText = AttributeText<typename Pair::second_type>;
        Attribute attribute;
        attribute.type = ValueText::type();
        attribute.keys = [get](Subject const& subject, std::size_t most) {
            auto const& map = std::invoke(get, subject.as<T>());
            std::vector<String> keys;
            for (auto at = map.begin(); at != map.end() && keys.size() < most; ++at)
                keys.push_back(KeyText::write(at->first));
            return keys;
        };
        attribute.entry = [get](Subject const& subject, String const& key) -> std::optional<String> {
            auto const* const value = std::invoke(get, subject.as<T>()).find(KeyText::read(key));
            return value ? std::optional(ValueText::write(*value)) : std::nullopt;
        };
        attribute.read = [get](Subject const& subject) {
            return valueToStrep(U64{std::invoke(get, subject.as<T>()).size()});
        };
        return collection(std::move(name), std::move(attribute));
    }
    /// A collection of another form, by its functions.
    AttributeTable& collection(std::string name, Attribute attribute) {
        attribute.name = std::move(name);
        attribute.kind = AttributeKind::collection;
        entry_.add(std::move(attribute));
        return *this;
    }

    /// An operation with arguments of types A.
    template <class... A, class Call>
    AttributeTable& operation(std::string name, Call call, ProblemOf<A...> problem = nullptr) {
        using Result = std::remove_cvref_t<std::invoke_result_t<Call, T&, A const&...>>;
        Operation operation;
        operation.name = std::move(name);
        operation.parameterTypes = {AttributeText<A>::type()...};
        if constexpr (!std::is_void_v<Result>)
            operation.resultType = AttributeText<Result>::type();
        operation.problemOfTexts = [](Operation::Arguments texts) {
            return problemOfAll<A...>(texts, std::index_sequence_for<A...>());
        };
        operation.problemOfCalling = [problem](Subject const& subject, Operation::Arguments texts) {
            auto const ask = [&](A const&... a) { return problem(subject.as<T>(), a...); };
            return problem ? std::apply(ask, readAll<A...>(texts, std::index_sequence_for<A...>()))
                           : Problem();
        };
        operation.call = [call](Subject const& subject, Operation::Arguments texts) -> String {
            auto const run = [&](A const&... a) { return std::invoke(call, subject.as<T>(), a...); };
            if constexpr (std::is_void_v<Result>) {
                std::apply(run, readAll<A...>(texts, std::index_sequence_for<A...>()));
                return {};
            } else
                return AttributeText<Result>::write(
                    std::apply(run, readAll<A...>(texts, std::index_sequence_for<A...>())));
        };
        entry_.add(std::move(operation));
        return *this;
    }

    /// Stands before every use: see TypeEntry::guardIs().
    AttributeTable& guard(ProblemOf<> problem) {
        entry_.guardIs([problem](Subject const& subject) { return problem(subject.as<T>()); });
        return *this;
    }
    /// See TypeEntry::wholeValueIs().
    AttributeTable& wholeValue(std::string attribute) {
        entry_.wholeValueIs(std::move(attribute));
        return *this;
    }
    /// What the constructor needs, and the factory that is given it.
    AttributeTable& factory(std::vector<std::string> neededTexts, std::vector<std::string> neededReferences,
                            TypeEntry::Factory factory) {
        entry_.factoryIs(std::move(neededTexts), std::move(neededReferences), std::move(factory));
        return *this;
    }

  private:
    static TypeEntry& add(TypeRegistry& registry) {
        if constexpr (Entity<T>)
            return registry.add(T::type());
        else
            return registry.add(typeNameOf<T>());
    }

    template <class Get> static Attribute shown(std::string name, AttributeKind kind, Get get) {
        Attribute attribute;
        attribute.name = std::move(name);
        attribute.kind = kind;
        attribute.type = AttributeText<ValueOf<Get>>::type();
        attribute.read = [get](Subject const& subject) {
            return AttributeText<ValueOf<Get>>::write(std::invoke(get, std::as_const(subject.as<T>())));
        };
        return attribute;
    }
    template <class Get> AttributeTable& readOnlyOf(AttributeKind kind, std::string name, Get get) {
        entry_.add(shown(std::move(name), kind, get));
        return *this;
    }

    template <class V> static Problem problemOf(String const& text, Range<V> const& range) try {
        V const value = AttributeText<V>::read(text);
        if (!range.holds || range.holds(value))
            return {};
        return text + " is not " + std::string(range.words);
    } catch (RangeException const& e) {
        return valueToStrep(text) + " is no " + AttributeText<V>::type() + ": " + e.what();
    }
    template <class... A, std::size_t... i>
    static Problem problemOfAll([[maybe_unused]] Operation::Arguments texts, std::index_sequence<i...>) {
        Problem found;
        (void)(... && (found = problemOf<A>(texts[i], {})).empty());
        return found;
    }
    template <class... A, std::size_t... i>
    static std::tuple<A...> readAll([[maybe_unused]] Operation::Arguments texts, std::index_sequence<i...>) {
        return std::tuple<A...>{AttributeText<A>::read(texts[i])...};
    }

    TypeEntry& entry_;
};

} // namespace Mox
