#include <mox/ThreadId.h>

constinit thread_local char Mox::ThreadId::ownMark_ = 0;
