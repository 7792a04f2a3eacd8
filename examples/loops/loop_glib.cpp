// The library in a GLib main loop: a source that is ready when something is due, and whose dispatch is one
// turn.

#include "Work.h"

#include <glib.h>

#include <algorithm>
#include <cmath>
#include <iostream>

struct LoopSource {
    GSource source;
    Kel::EventLoop* loop;
};

Kel::EventLoop& loopOf(GSource* source) { return *reinterpret_cast<LoopSource*>(source)->loop; }

gboolean prepare(GSource* source, gint* timeout) {
    Mox::Seconds const due = loopOf(source).nextDue();
    // Rounded up, so that the loop does not spin through the last part of a millisecond; -1 waits for ever.
    *timeout = due == Mox::endOfTime ? -1 : static_cast<gint>(std::ceil(std::min(due, 1000.0) * 1000));
    return due == 0.0;
}

gboolean check(GSource* source) { return loopOf(source).nextDue() == 0.0; }

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
    loopOf(source).runOnce();
    return G_SOURCE_CONTINUE;
}

struct Application {
    Work const& work;
    GMainLoop* mainLoop;
    int events = 0;
};

gboolean onEvent(gpointer data) {
    auto& application = *static_cast<Application*>(data);
    if (++application.events >= 5 && application.work.done())
        g_main_loop_quit(application.mainLoop);
    return G_SOURCE_CONTINUE;
}

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    Work const work(loop);

    GSourceFuncs functions{};
    functions.prepare = prepare;
    functions.check = check;
    functions.dispatch = dispatch;
    GSource* const source = g_source_new(&functions, sizeof(LoopSource));
    reinterpret_cast<LoopSource*>(source)->loop = loop.ptr();
    g_source_attach(source, nullptr);

    Application application{work, g_main_loop_new(nullptr, FALSE)};
    g_timeout_add(10, onEvent, &application); // the application's own events
    g_main_loop_run(application.mainLoop);

    g_source_destroy(source); // before the loop that it names
    g_source_unref(source);
    g_main_loop_unref(application.mainLoop);
    std::cout << application.events << " events of the application\n";
    return work.done() ? 0 : 1;
}
