#include "Fuzz.h"

#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/ProcessId.h>
#include <task/TaskStat.h>

namespace {

/// What the reader of queue statistics takes: its writer's form, each entry behind a priority of its own.
Mox::String readableForm(Kel::TaskSchedulerQueueStats const& stats) {
    Mox::Ptr<Mox::NboAttrLog::Out> const out = Mox::NboAttrLog::Out::OutIs();
    for (auto const& [priority, entry] : stats.priority())
        out << Kel::TaskPriority(Kel::TaskPriority::low) << entry;
    out << Kel::TaskPriority(Kel::TaskPriority::absolute);
    return out->bytes();
}

void checkQueueStats(Mox::String const& log) {
    Kel::TaskSchedulerQueueStats value, read;
    try {
        Mox::NboAttrLog::In::InIs(log)->read(&value);
    } catch (Mox::RangeException const&) {
        return;
    }
    Mox::NboAttrLog::bytesToValue(readableForm(value), &read);
    MOX_ASSERT(value == read);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Mox::String const log = Fuzz::bytes(data, size);
    Fuzz::checkLog<Kel::TaskStat>(log);
    Fuzz::checkLog<Kel::TaskStat::TaskStatus>(log);
    Fuzz::checkLog<Kel::TaskSchedulerPriorityStats>(log);
    Fuzz::checkLog<Kel::TaskKey>(log);
    Fuzz::checkLog<Kel::ProcessId>(log);
    Fuzz::checkLog<Kel::TaskPriority>(log);
    Fuzz::checkLog<Mox::String>(log);
    checkQueueStats(log);
    return 0;
}
