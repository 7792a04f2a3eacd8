#pragma once

/// Static probes of the provider "keltask", for bpftrace, perf and their like: with KELTASK_USDT each is a
/// no-op instruction and a note in the library, beside what it takes to have its arguments at hand; without
/// it nothing. docs/operating.md has their arguments.
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
