#pragma once

/// Static probes of the provider "keltask", for bpftrace, perf and their like: with KELTASK_USDT each is a
/// no-op instruction and a note in the library, beside what it takes to have its arguments at hand; without
/// it nothing.
///
///     run_start   task, its name, the name's bytes, priority, latency in nanoseconds
///     run_end     task, its name, the name's bytes, priority, the run's nanoseconds
///     violation   as run_end, and the quantum's nanoseconds
///     timer       task, its name, the name's bytes, priority: its timer has fired
///     idle        scheduler's name, the name's bytes: it has nothing more to run
///
/// Names do not end with a zero: `str(arg1, arg2)`. Priorities are 0 to 4, from absolute to scavenge.
#ifdef KELTASK_USDT
#define SDT_USE_VARIADIC
#include <sys/sdt.h>
#define KELTASK_PROBE(name, ...) STAP_PROBEV(keltask, name, __VA_ARGS__)
#else
#define KELTASK_PROBE(name, ...) static_cast<void>(0)
#endif

/// A probe of a task; further arguments may follow.
#define KELTASK_TASK_PROBE(name, task, ...)                                                                  \
    KELTASK_PROBE(name, (task), (task)->taskRecord()->taskName().data(),                                     \
                  (task)->taskRecord()->taskName().size(),                                                   \
                  (task)->taskPriority().numericValue() __VA_OPT__(, ) __VA_ARGS__)
