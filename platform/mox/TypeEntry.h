#pragma once

#include <mox/Attribute.h>
#include <mox/Ptr.h>

#include <any>
#include <map>

namespace Mox {

/// What a value or an entity is built from: a text for each of some attributes, and entities by name.
struct Ingredients {
    /// An attribute's value.
    struct Text {
        String attribute;
        String text;
    };
    /// An entity that the new one refers to; null where that is allowed.
    struct Reference {
        String attribute;
        Ptr<PtrInterface> entity;
    };
    std::vector<Text> texts;
    std::vector<Reference> references;
};

/// A type as the registry knows it: its name, the type it extends, its attributes and operations, and how one
/// of it is made.
///
/// A write or a call is checked as a whole before anything is done: whether the name is known, whether each
/// text is of its type and within its range, and whether the entity can take it as it is now. What the entity
/// would refuse by an assertion is refused here by a RangeException with the type, the name and the reason,
/// and nothing has changed. What can never be written is an OperationNotSupportedException.
///
/// The functions below that take a subject require: it is of this type.
class MOX_EXPORT TypeEntry {
  public:
    using Arguments = Operation::Arguments;
    /// Makes an entity of the ingredients that its constructor needs.
    using Factory = std::function<Ptr<PtrInterface>(Ingredients const&)>;
    /// Makes a value, has it filled, and returns it.
    using ValueMaker = std::function<std::any(std::function<void(Subject const&)> const& fill)>;

    explicit TypeEntry(std::string name) : name_(std::move(name)) {}

    std::string const& name() const { return name_; }
    /// Null when the type extends none that is registered.
    TypeEntry const* base() const { return base_; }
    bool isOrExtends(TypeEntry const& other) const;

    /// Those of the bases, then its own, each in the order of its table.
    std::vector<Attribute const*> attributes() const;
    std::vector<Operation const*> operations() const;
    /// Throw a RangeException when there is none of that name.
    Attribute const& attribute(std::string_view name) const;
    Operation const& operation(std::string_view name) const;
    /// Null when there is none of that name.
    Attribute const* findAttribute(std::string_view name) const;
    Operation const* findOperation(std::string_view name) const;

    String text(Subject const& subject, std::string_view attribute) const;
    void textIs(Subject const& subject, std::string_view attribute, String const& text) const;
    /// The keys of a collection, in its order, or the first ones. Throws a RangeException for another kind of
    /// attribute.
    std::vector<String> keys(Subject const& subject, std::string_view attribute,
                             std::size_t most = ~std::size_t{0}) const;
    /// The value under that key. Throws a RangeException when there is none.
    String entryText(Subject const& subject, std::string_view attribute, String const& key) const;
    /// Calls an operation; returns its result's text, empty when it has none.
    String call(Subject const& subject, std::string_view operation, Arguments arguments) const;

    /// Makes an entity. Every text is checked before; one that can then not be written all the same lets the
    /// entity go again.
    Ptr<PtrInterface> makeEntity(Ingredients const& ingredients) const;
    /// Makes a value; attributes without a text keep their default. The order of the texts does not matter.
    std::any makeValue(std::vector<Ingredients::Text> const& texts) const;

    // For tables

    /// The base became known after the type that extends it.
    void baseIs(TypeEntry const* base) { base_ = base; }
    void add(Attribute attribute);
    void add(Operation operation);
    /// The attribute stands for all of a value's others: given together with some of them, it counts.
    void wholeValueIs(std::string attribute) { wholeValue_ = std::move(attribute); }
    /// Stands before every use of an entity of this type or of one that extends it.
    void guardIs(std::function<Problem(Subject const&)> guard) { guard_ = std::move(guard); }
    void factoryIs(std::vector<std::string> neededTexts, std::vector<std::string> neededReferences,
                   Factory factory);
    void valueMakerIs(ValueMaker maker) { valueMaker_ = std::move(maker); }

  private:
    [[noreturn]] void refuse(std::string_view member, std::string const& problem) const;
    void refuseIf(std::string_view member, Problem const& problem) const;
    void askGuard(Subject const& subject, std::string_view member) const;
    Attribute const& collection(std::string_view name) const;
    Attribute const& writable(std::string_view name) const;
    void checkIngredients(Ingredients const& ingredients) const;
    bool isNeeded(std::string const& attribute) const;

    std::string const name_;
    TypeEntry const* base_ = nullptr;
    std::vector<Attribute> attributes_;
    std::vector<Operation> operations_;
    std::function<Problem(Subject const&)> guard_;
    std::vector<std::string> neededTexts_;
    std::vector<std::string> neededReferences_;
    Factory factory_;
    ValueMaker valueMaker_;
    std::string wholeValue_;
};

} // namespace Mox
