#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/detail/HistoryLines.h>

#include <mox/SteadyClock.h>

#include <boost/chrono/chrono_io.hpp>

#include <iomanip>
#include <iterator>
#include <sstream>

namespace Kel {

namespace {

/// A quantity in the short form of the clock library, as one text, so that a field width holds for all of it.
template <class T> std::string shortForm(T const& quantity) {
    std::ostringstream text;
    text << boost::chrono::duration_short << quantity;
    return text.str();
}

std::string title() {
    std::ostringstream line;
    line << "Up to " << std::fixed << std::setprecision(0) << TaskSchedulerRoot::schedulerHistoryMaxAge()
         << " seconds of scheduler events, absolute timestamp and relative to now";
    return line.str();
}

/// Printed as a C string, it ends with the first NUL of a name.
std::string eventLine(TaskSchedulerHistory::Event const& event, TaskTimeStamp const& now) {
    auto const age =
        boost::chrono::duration_cast<boost::chrono::microseconds>(elapsed(event.timeStamp(), now));
    std::ostringstream line;
    line << std::setw(22) << shortForm(event.timeStamp()) << ' ' << std::setw(10) << shortForm(age) << ' '
         << event.display();
    return line.str().c_str();
}

} // namespace

/// A copy is one moment's, whatever is run between the slices; it is taken in one step, for which its ten
/// thousand events are few enough, and goes event by event.
Slices HistoryLines::make() {
    constexpr Mox::U32 perLine = 3000;
    TaskTimeStamp const now = Mox::SteadyClock::now();
    auto const& history = root_->history();
    events_.assign(std::make_reverse_iterator(history.end()), std::make_reverse_iterator(history.begin()));
    line(title());
    co_yield Slices::whole;
    for (; !events_.empty(); events_.pop_back()) {
        line(eventLine(events_.back(), now));
        co_yield perLine;
    }
    line({});
}

} // namespace Kel
