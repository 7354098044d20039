// The signals that ask a process to end: SIGINT, SIGTERM and SIGHUP. While something runs that
// must not be cut off, the person is asked first; a second signal ends the process even if nobody
// answers or the main thread is stuck.
#pragma once

#include <csignal>
#include <functional>
#include <initializer_list>

namespace qm5 {

/// Keeps `requests` from ending the process by themselves, in this thread and in all that it
/// starts: call it before the first thread that stays. Until then they end the process. A signal
/// that the process was started to ignore (by nohup, or in the background of a script) stays
/// ignored.
void blockTerminationSignals(std::initializer_list<int> requests = {SIGINT, SIGTERM, SIGHUP});

/// Starts the thread that waits for the signals that have been blocked. The first one calls `ask`
/// on that thread; it must not block. A further one that comes before terminationDeclined() ends
/// the process at once, with the status that `insisted` returns there. Signals within 0.1 s after
/// the first count as one with it: at the end of a session several come at the same moment. Ends
/// the process when no thread can be had.
void followTerminationSignals(
    std::function<void()> ask, std::function<int()> insisted = [] { return 0; });

/// The decision that the process goes on: the next signal asks again. Any thread.
void terminationDeclined();

/// From now on signals end nothing, and nobody is asked: each is noted in the log alone. For a
/// process that nobody can be asked in, and that ends by itself. Any thread.
void holdTermination();

}  // namespace qm5
