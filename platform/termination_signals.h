// The signals that ask a process to end: SIGINT, SIGTERM and SIGHUP. What is in the middle of
// something has the person asked first; whoever insists gets his way.
#pragma once

#include <functional>

namespace qm5 {

/// Keeps these signals from ending the process by themselves, in this thread and all that it
/// starts: call it before the first one is. One that the process was started to ignore (by
/// nohup, or in the background of a script) stays ignored.
void blockTerminationSignals();

/// Starts the thread that takes the signals. The first one calls `ask` on that thread, and
/// then waits for a decision. A further one that finds it still waiting, because nobody has
/// answered or because the main thread is stuck, ends the process at once with status 0.
/// Those of the first tenth of a second belong to the first: at the end of a session several
/// come together.
void followTerminationSignals(std::function<void()> ask);

/// The decision that the process goes on: the next signal asks again. Any thread.
void terminationDeclined();

}  // namespace qm5
