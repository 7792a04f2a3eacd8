#include <registry/detail/Tables.h>
#include <registry/detail/ValueText.h>

#include <mox/detail/FieldText.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/ProcessId.h>
#include <task/TaskStat.h>

namespace Kel {

/// The word of a status as texts may have it: the status itself refuses what is too much.
struct StatusWord {
    Mox::U32 value = 0;
};

} // namespace Kel

template <> struct Mox::AttributeText<Kel::StatusWord> {
    static std::string type() { return typeNameOf<U32>(); }
    static String write(Kel::StatusWord word) { return valueToStrep(word.value); }
    static Kel::StatusWord read(String const& text) {
        String::IteratorConst position = text.begin();
        Kel::StatusWord const word{Kel::TaskStat::TaskStatus::readValue(position, text.end())};
        if (position != text.end())
            StrepImplementation::throwJunk(position - text.begin(), type());
        return word;
    }
};

namespace Kel {

namespace {

/// Registers a type whose attributes are the fields that it describes.
template <class T> void addFieldType(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<T> table(registry);
    boost::mp11::mp_for_each<Mox::FieldsOf<T>>([&](auto field) {
        table.writable(std::string(Mox::attributeName(field)), field.pointer,
                       [field](T& value, auto const& text) { value.*field.pointer = text; });
    });
}

/// A flag and the whole value can be given together, in any order: then the value counts, as it does in the
/// status' own text form.
void addStatus(Mox::TypeRegistry& registry) {
    using Status = TaskStat::TaskStatus;
    Mox::AttributeTable<Status>(registry)
        .writable("taskTimer", &Status::taskTimer, &Status::taskTimerIs)
        .writable("taskTimerRunning", &Status::taskTimerRunning, &Status::taskTimerRunningIs)
        .writable("taskOnRunQueue", &Status::taskOnRunQueue, &Status::taskOnRunQueueIs)
        .writable("taskCurrentlyRunning", &Status::taskCurrentlyRunning, &Status::taskCurrentlyRunningIs)
        .writable("taskSuspendedForTest", &Status::taskSuspendedForTest, &Status::taskSuspendedForTestIs)
        .writable(
            "value", [](Status const& status) { return StatusWord{status.value()}; },
            [](Status& status, StatusWord word) { status.valueIs(word.value); }, {"at most 0x1f"})
        .wholeValue("value");
}

/// A stamp is a duration since the clock's epoch, so it reads as one, and what is true of one text is of the
/// other.
void addTimes(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<TaskTimeDuration>(registry).writable(
        "value", [](TaskTimeDuration const& duration) { return Mox::S64{duration.count()}; },
        [](TaskTimeDuration& duration, Mox::S64 value) { duration = TaskTimeDuration(value); });
    Mox::AttributeTable<TaskTimeStamp>(registry).writable(
        "value", [](TaskTimeStamp const& stamp) { return stamp.time_since_epoch(); },
        [](TaskTimeStamp& stamp, TaskTimeDuration value) { stamp = TaskTimeStamp(value); });
}

/// A number outside the enumeration is a value like any other here; who wants to make a task of it is
/// refused.
void addPriority(Mox::TypeRegistry& registry) {
    using Enum = TaskPriority::PriorityEnum;
    Mox::AttributeTable<Enum>(registry).writable(
        "value", [](Enum value) { return Mox::U32{value}; },
        [](Enum& value, Mox::U32 number) { value = TaskPriority::PriorityEnumInstance(number); });
    Mox::AttributeTable<TaskPriority>(registry).writable(
        "value", &TaskPriority::numericValue, [](TaskPriority& priority, Enum value) { priority = value; });
}

constinit Mox::Range<Mox::U8> const eventTypeRange{
    "at most 17", [](Mox::U8 const& number) {
        return number <= static_cast<Mox::U8>(TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended);
    }};

/// An event shows its task's name: the task may have died, and a reference to what is no longer there would
/// lead nowhere.
void addEvent(Mox::TypeRegistry& registry) {
    using Event = TaskSchedulerHistory::Event;
    using Type = TaskSchedulerEventType;
    Mox::AttributeTable<Type>(registry).writable(
        "value", [](Type type) { return static_cast<Mox::U8>(type); },
        [](Type& type, Mox::U8 number) { type = static_cast<Type>(number); }, eventTypeRange);
    Mox::AttributeTable<Event>(registry)
        .readOnly("eventType", &Event::eventType)
        .readOnly("timeStamp", &Event::timeStamp)
        .readOnly("task", [](Event const& event) {
            return event.task() ? Mox::String(event.task()->taskName()) : Mox::String();
        });
}

} // namespace

void addValueTypes(Mox::TypeRegistry& registry) {
    addTimes(registry);
    addPriority(registry);
    Mox::AttributeTable<TaskKey>(registry).writable(
        "value", &TaskKey::value, [](TaskKey& key, Mox::U64 value) { key = TaskKey(value); });
    Mox::AttributeTable<ProcessId>(registry).writable(
        "value", &ProcessId::value, [](ProcessId& id, Mox::S64 value) { id = ProcessId(value); });
    addStatus(registry);
    addEvent(registry);
    addFieldType<TaskStat>(registry);
    addFieldType<TaskSchedulerPriorityStats>(registry);
    Mox::AttributeTable<TaskSchedulerQueueStats>(registry).map(
        "priority", [](TaskSchedulerQueueStats const& stats) -> auto& { return stats.priority(); });
}

} // namespace Kel
