// What a process needs before its first thread and its first window.
#pragma once

namespace qm5 {

/// Opens the null device in place of each standard stream that is closed: otherwise the display's
/// connection could become standard output, and lines would be written into it. Call it first.
void openStandardStreams();

/// Has writes fail by their result alone when their reader has gone or a file may not grow any
/// further: by default SIGPIPE and SIGXFSZ end the process.
void ignoreWriteSignals();

/// Sets what the toolkit finds in the environment, and makes room there for the activation token
/// that it is to find later: from the first thread on, the environment must stay where it is, as
/// any thread may be reading it. Call it before that, and after activationToken().
void setEnvironment();

/// Ends the process with status 1 and one line where the computer does not give what a start
/// takes: open files, threads, or memory. Toolkit and libraries would abort half-way without a
/// clear word. Keeps some memory, which the first allocation that fails later is given: an update
/// that runs by then goes on, or ends as one that can be reported. The threads that it starts have
/// ended when it returns.
void requireStartResources();

}  // namespace qm5
