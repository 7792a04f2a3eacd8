#include <mox/SteadyClock.h>

constinit thread_local Mox::S64 Mox::SteadyClock::latest_ = 0;
