// Process-wide account of the tool's threads that hold a target thread. A tool that ends between
// PTRACE_ATTACH and the stop it waits for leaves its target stopped for ever; one that ends later does not:
// the kernel releases what it held. So ending, by signal or by its own decision, waits here for the moments
// when no such window is open.
//
// One tool thread holds at most one target thread at a time. Its state goes none -> attaching -> held ->
// none.
#pragma once

#include <sys/types.h>

namespace trace_gate
{
// SIGINT, SIGTERM and SIGHUP (a client's SIGQUIT too) keep their default actions, but take effect only while
// no thread is attaching. A signal ignored at start stays ignored. The stop signals of a terminal are
// ignored: a tool that sleeps would keep what it holds.
void defer_ending_signals(bool client);

void begin_attach();  // before PTRACE_ATTACH; waits, perhaps for ever, while the gate is shut
void stop_seen();     // the attach has become a stop, or is over otherwise
void released();      // this thread holds nothing any more

// SIGSTOP to a whole process, which its tracer's end would not undo: an ending signal sends SIGCONT first.
// For one process at a time, until resume_process.
void freeze_process(pid_t pid);

// SIGCONT to a whole process, at a moment when it cannot cancel the SIGSTOP of an attach on its way.
void resume_process(pid_t pid);

// The way out when this thread holds a target thread that nothing but the end of the tool can release:
// resumes the process, lets the other threads release what they hold, then ends the tool with SIGKILL.
[[noreturn]] void end_tool(pid_t pid);
}  // namespace trace_gate
