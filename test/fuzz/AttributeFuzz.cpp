#define MOX_SOURCE_NAME "AttributeFuzz"
#include "Fuzz.h"

#include <group/TaskGroup.h>
#include <mox/ActivityManager.h>
#include <mox/TypeRegistry.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <array>
#include <cmath>
#include <sstream>

// Lines of "entity member text": an attribute is written, an operation called with its words as arguments.
// What was written reads back as its text; what is refused has changed no attribute; and no text ends the
// process.

namespace {

using Mox::PtrInterface;
using Mox::String;

/// A tree that a driver runs, and one that nothing does.
struct Trees {
    Mox::Ptr<Kel::TaskSchedulerMoxActivity> const root = Kel::taskSchedulerMoxActivityFactory("root");
    Mox::Ptr<Kel::Task> const task = Kel::taskFactory(root, Kel::TaskPriority::normal, "task");
    Mox::Ptr<Kel::TimerTask> const timer = Kel::timerTaskFactory(root, Kel::TaskPriority::low, "timer");
    Mox::Ptr<Kel::TaskGroup> const group =
        Kel::taskGroupFactory("group", Kel::TaskPriority::high, false, root);
    Mox::Ptr<Kel::Task> const inGroup = Kel::taskFactory(group, Kel::TaskPriority::normal, "inGroup");
    Mox::Ptr<Kel::TaskSchedulerRoot> const bare = Kel::taskSchedulerRootFactory("bare");
    Mox::Ptr<Kel::Task> const bareTask = Kel::taskFactory(bare, Kel::TaskPriority::normal, "bareTask");
    Mox::Ptr<PtrInterface> const parentTask = group->parentTask()->notifier();

    std::array<PtrInterface*, 8> const entities{root.ptr(),    task.ptr(), timer.ptr(),    group.ptr(),
                                                inGroup.ptr(), bare.ptr(), bareTask.ptr(), parentTask.ptr()};
};

template <class T> String normal(String const& text) {
    using Mox::valueToStrep;
    T value{};
    Mox::strepToValue(text, &value);
    return valueToStrep(value);
}

/// Whether an attribute of that type reads so after the text was written. Seconds are cut to whole
/// nanoseconds.
bool isAsWritten(std::string const& type, String const& text, String const& read) {
    if (type == "bool")
        return normal<bool>(text) == read;
    if (type == "Kel::TaskKey")
        return normal<Kel::TaskKey>(text) == read;
    if (type == "Mox::U64")
        return normal<Mox::U64>(text) == read;
    if (type != "double")
        return normal<Mox::S64>(text) == read;
    double written = 0, kept = 0;
    Mox::strepToValue(text, &written);
    Mox::strepToValue(read, &kept);
    return std::abs(written - kept) <= 1.1e-9 + 1e-15 * std::abs(written);
}

void write(PtrInterface& entity, Mox::Attribute const& attribute, String const& text) {
    String const before = Mox::attributeText(entity, attribute.name);
    try {
        Mox::attributeTextIs(entity, attribute.name, text);
    } catch (Mox::Exception const&) {
        MOX_ASSERT_AS("a refused write changes nothing",
                      Mox::attributeText(entity, attribute.name) == before);
        return;
    }
    MOX_ASSERT_AS("what was written reads back",
                  isAsWritten(attribute.type, text, Mox::attributeText(entity, attribute.name)));
}

std::vector<String> everyText(PtrInterface& entity) {
    std::vector<String> texts;
    for (Mox::Attribute const* attribute : Mox::typeRegistry().typeOf(entity).attributes())
        texts.push_back(Mox::attributeText(entity, attribute->name));
    return texts;
}

void call(PtrInterface& entity, Mox::Operation const& operation, String const& text) {
    std::vector<String> arguments;
    std::istringstream words(text);
    for (std::string word; words >> word;)
        arguments.emplace_back(word);
    std::vector<String> const before = everyText(entity);
    try {
        Mox::callOperation(entity, operation.name, arguments);
    } catch (Mox::Exception const&) {
        MOX_ASSERT_AS("a refused call changes nothing", everyText(entity) == before);
    }
}

void obey(Trees const& trees, std::string const& line) {
    std::istringstream words(line);
    std::size_t number = 0;
    std::string member, text;
    if (!(words >> number >> member) || number >= trees.entities.size())
        return;
    words.ignore();
    std::getline(words, text, '\0');
    PtrInterface& entity = *trees.entities[number];
    Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(entity);
    if (auto const* attribute = type.findAttribute(member))
        write(entity, *attribute, text);
    else if (auto const* operation = type.findOperation(member))
        call(entity, *operation, text);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    constexpr int linesMax = 64;
    Trees const trees;
    std::istringstream lines(Fuzz::bytes(data, size));
    std::string line;
    for (int i = 0; i < linesMax && std::getline(lines, line); ++i) {
        obey(trees, line);
        Mox::activityManager()->runOnce();
    }
    MOX_ASSERT(
        trees.root->moxAuditErrors(1) + trees.group->moxAuditErrors(1) + trees.bare->moxAuditErrors(1) == 0);
    return 0;
}
