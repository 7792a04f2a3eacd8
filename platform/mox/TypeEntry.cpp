#define MOX_SOURCE_NAME "TypeEntry"
#include <mox/TypeEntry.h>

#include <mox/Assert.h>

#include <algorithm>

namespace Mox {

namespace {

template <class Members> auto const* findNamed(Members const& members, std::string_view name) {
    auto const at = std::ranges::find(
        members, name, [](auto const& member) -> auto& { return member.name; });
    return at == members.end() ? nullptr : &*at;
}

template <class Member> void append(std::vector<Member const*>& all, std::vector<Member> const& members) {
    for (Member const& member : members)
        all.push_back(&member);
}

bool contains(std::vector<std::string> const& names, std::string_view name) {
    return std::ranges::find(names, name) != names.end();
}

/// The first name that stands there twice; null when there is none.
template <class Named> String const* repeated(std::vector<Named> const& all) {
    for (auto at = all.begin(); at != all.end(); ++at)
        if (std::ranges::find(all.begin(), at, at->attribute, &Named::attribute) != at)
            return &at->attribute;
    return nullptr;
}

/// The first name that has no ingredient; null when there is none.
template <class Named>
std::string const* missing(std::vector<std::string> const& names, std::vector<Named> const& all) {
    for (std::string const& name : names)
        if (std::ranges::find(all, name, &Named::attribute) == all.end())
            return &name;
    return nullptr;
}

} // namespace

std::string_view toString(AttributeKind kind) {
    constexpr std::string_view names[] = {"value", "constant", "collection", "reactor"};
    return names[static_cast<std::size_t>(kind)];
}

// Looking up

bool TypeEntry::isOrExtends(TypeEntry const& other) const {
    return this == &other || (base_ && base_->isOrExtends(other));
}

std::vector<Attribute const*> TypeEntry::attributes() const {
    std::vector<Attribute const*> all = base_ ? base_->attributes() : std::vector<Attribute const*>();
    append(all, attributes_);
    return all;
}

std::vector<Operation const*> TypeEntry::operations() const {
    std::vector<Operation const*> all = base_ ? base_->operations() : std::vector<Operation const*>();
    append(all, operations_);
    return all;
}

Attribute const* TypeEntry::findAttribute(std::string_view name) const {
    Attribute const* const own = findNamed(attributes_, name);
    return own || !base_ ? own : base_->findAttribute(name);
}

Operation const* TypeEntry::findOperation(std::string_view name) const {
    Operation const* const own = findNamed(operations_, name);
    return own || !base_ ? own : base_->findOperation(name);
}

Attribute const& TypeEntry::attribute(std::string_view name) const {
    if (Attribute const* const found = findAttribute(name))
        return *found;
    throw RangeException(name_ + " has no attribute " + valueToStrep(name));
}

Operation const& TypeEntry::operation(std::string_view name) const {
    if (Operation const* const found = findOperation(name))
        return *found;
    throw RangeException(name_ + " has no operation " + valueToStrep(name));
}

Attribute const& TypeEntry::collection(std::string_view name) const {
    Attribute const& found = attribute(name);
    if (!found.keys)
        refuse(name, "not a collection");
    return found;
}

/// What can be read but never written is told apart from what is not there at all.
Attribute const& TypeEntry::writable(std::string_view name) const {
    Attribute const& found = attribute(name);
    if (!found.isWritable())
        throw OperationNotSupportedException(
            name_ + "::" + found.name + ": " +
            (found.kind == AttributeKind::constant ? "a constant" : "read only"));
    return found;
}

// Refusing

void TypeEntry::refuse(std::string_view member, std::string const& problem) const {
    throw RangeException(name_ + "::" + std::string(member) + ": " + problem);
}

void TypeEntry::refuseIf(std::string_view member, Problem const& problem) const {
    if (!problem.empty())
        refuse(member, problem);
}

/// The guards of the bases stand before a derived type as well, its own first.
void TypeEntry::askGuard(Subject const& subject, std::string_view member) const {
    for (TypeEntry const* type = this; type; type = type->base_)
        if (type->guard_)
            refuseIf(member, type->guard_(subject));
}

// Using

String TypeEntry::text(Subject const& subject, std::string_view name) const {
    Attribute const& attribute = this->attribute(name);
    askGuard(subject, name);
    return attribute.read(subject);
}

/// Whatever can be said of the text alone is said first, without the entity; the guard comes before the
/// entity is looked at, since it tells whether that may be done; and all of it before anything is written.
void TypeEntry::textIs(Subject const& subject, std::string_view name, String const& text) const {
    Attribute const& attribute = writable(name);
    refuseIf(name, attribute.problemOfText(text));
    askGuard(subject, name);
    refuseIf(name, attribute.problemOfWriting(subject, text));
    attribute.write(subject, text);
}

std::vector<String> TypeEntry::keys(Subject const& subject, std::string_view name, std::size_t most) const {
    Attribute const& attribute = collection(name);
    askGuard(subject, name);
    return attribute.keys(subject, most);
}

String TypeEntry::entryText(Subject const& subject, std::string_view name, String const& key) const {
    Attribute const& attribute = collection(name);
    askGuard(subject, name);
    std::optional<String> text;
    try {
        text = attribute.entry(subject, key);
    } catch (RangeException const& e) {
        refuse(name, valueToStrep(key) + " is no key: " + e.what());
    }
    if (!text)
        refuse(name, "no entry " + key);
    return *text;
}

String TypeEntry::call(Subject const& subject, std::string_view name, Arguments arguments) const {
    Operation const& operation = this->operation(name);
    if (arguments.size() != operation.parameterTypes.size())
        refuse(name, "takes " + std::to_string(operation.parameterTypes.size()) + " arguments, not " +
                         std::to_string(arguments.size()));
    refuseIf(name, operation.problemOfTexts(arguments));
    askGuard(subject, name);
    refuseIf(name, operation.problemOfCalling(subject, arguments));
    return operation.call(subject, arguments);
}

// Making

bool TypeEntry::isNeeded(std::string const& attribute) const {
    return contains(neededTexts_, attribute) || contains(neededReferences_, attribute);
}

/// Texts that the constructor takes are the factory's to check; those that are written afterwards are checked
/// here, while there is no entity yet that would have to go again.
void TypeEntry::checkIngredients(Ingredients const& ingredients) const {
    if (String const* const name = repeated(ingredients.texts))
        refuse(*name, "given twice");
    if (String const* const name = repeated(ingredients.references))
        refuse(*name, "given twice");
    for (auto const& [name, entity] : ingredients.references)
        if (!contains(neededReferences_, name))
            refuse(name, "not built from a reference");
    if (std::string const* const name = missing(neededReferences_, ingredients.references))
        refuse(*name, "the reference is missing");
    if (std::string const* const name = missing(neededTexts_, ingredients.texts))
        refuse(*name, "the text is missing");
    for (auto const& [name, text] : ingredients.texts)
        if (!contains(neededTexts_, name))
            refuseIf(name, writable(name).problemOfText(text));
}

Ptr<PtrInterface> TypeEntry::makeEntity(Ingredients const& ingredients) const {
    if (!factory_)
        throw OperationNotSupportedException(name_ + ": not built by name");
    checkIngredients(ingredients);
    Ptr<PtrInterface> const entity = factory_(ingredients);
    for (auto const& [name, text] : ingredients.texts)
        if (!isNeeded(name))
            textIs(*entity, name, text);
    return entity;
}

/// The attribute that stands for all others is written last, so that it counts in whatever order the texts
/// come.
std::any TypeEntry::makeValue(std::vector<Ingredients::Text> const& texts) const {
    if (!valueMaker_)
        throw OperationNotSupportedException(name_ + ": not a value");
    if (String const* const name = repeated(texts))
        refuse(*name, "given twice");
    return valueMaker_([&](Subject const& value) {
        for (bool const whole : {false, true})
            for (auto const& [name, text] : texts)
                if ((name == wholeValue_) == whole)
                    textIs(value, name, text);
    });
}

// Tables

void TypeEntry::add(Attribute attribute) {
    MOX_ASSERT(!findAttribute(attribute.name));
    attributes_.push_back(std::move(attribute));
}

void TypeEntry::add(Operation operation) {
    MOX_ASSERT(!findNamed(operations_, operation.name));
    operations_.push_back(std::move(operation));
}

void TypeEntry::factoryIs(std::vector<std::string> neededTexts, std::vector<std::string> neededReferences,
                          Factory factory) {
    neededTexts_ = std::move(neededTexts);
    neededReferences_ = std::move(neededReferences);
    factory_ = std::move(factory);
}

} // namespace Mox
