// Process-wide account of the tool's threads that hold a target thread. A tool that ends between
// PTRACE_ATTACH and the stop it waits for leaves its target stopped for ever; one that ends later does not:
// the kernel releases what it held. So ending, by signal or by its own decision, waits here for the moments
// when no SIGSTOP is on its way.
//
// One tool thread holds at most one target thread at a time. A stop for another signal than SIGSTOP leaves
// the SIGSTOP of the attach on its way: after the release the process has to be resumed.
#pragma once

#include <sys/types.h>

namespace trace_gate
{
// SIGINT, SIGTERM and SIGHUP (a client's SIGQUIT too) keep their default actions, but take effect only while
// no SIGSTOP is on its way. A signal ignored at start stays ignored. The stop signals of a terminal are
// ignored: a tool that sleeps would keep what it holds.
void defer_ending_signals(bool client);

void begin_attach();        // before PTRACE_ATTACH; waits, perhaps for ever, while the gate is shut
void stop_sent();           // before another SIGSTOP to the thread that this one holds
void stop_seen(int signo);  // it has stopped, for this signal
void released();            // this thread holds nothing any more

// SIGSTOP to a whole process, which its tracer's end would not undo: an ending signal sends SIGCONT first.
// For one process at a time, until resume_process. The second is for a signal handler of the tool.
void freeze_process(pid_t pid);
void resume_frozen_process();

// SIGCONT to a whole process, at a moment when it cannot cancel the SIGSTOP of another thread's attach.
void resume_process(pid_t pid);

// The way out when this thread holds a target thread that nothing but the end of the tool can release:
// resumes the process, lets the other threads release what they hold, then ends the tool with SIGKILL.
[[noreturn]] void end_tool(pid_t pid);
}  // namespace trace_gate
