// What a process needs before its first thread and its first window.
#pragma once

namespace qm5 {

/// Opens the null device in place of each standard stream that is closed: otherwise the display's
/// connection could become standard output, and lines would be written into it. Call it first.
void openStandardStreams();

/// Has writes fail by their result alone when their reader has gone or a file may not grow any
/// further: by default SIGPIPE and SIGXFSZ end the process.
void ignoreWriteSignals();

/// Ends the process with status 1 and one line where the computer does not give what a start
/// takes: open files, threads, or memory. Toolkit and libraries would abort half-way without a
/// clear word. Call it after blockTerminationSignals(), as it starts threads.
void requireStartResources();

}  // namespace qm5
