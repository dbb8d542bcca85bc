// The gate is a few atomic counters, because a signal handler looks at them too.
#include "trace_gate.h"

#include <sched.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>
#include <optional>

#include "hold_turn.h"

namespace
{
enum class hold_state { none, attaching, held };

thread_local hold_state my_state = hold_state::none;
thread_local std::optional<hold_turn> my_turn;
std::atomic<int> attaching_threads{0};
std::atomic<int> holding_threads{0};  // attaching or held
std::atomic<int> shut{0};             // how many want no new attach to begin
std::atomic<int> ending_signal{0};
std::atomic<pid_t> frozen_process{0};  // one at most: a crash dump runs alone

static_assert(std::atomic<int>::is_always_lock_free, "the counters are read in a signal handler");

constexpr int longest_stop_wait_ms = 3000;  // the stop wait gives up after at most two seconds
constexpr int longest_hold_ms = 5000;       // a stop wait and a long walk

void take_default_action(int signo)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(signo, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    const pid_t frozen = frozen_process;
    if (frozen != 0)
        kill(frozen, SIGCONT);
    raise(signo);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void end_if_asked()
{
    const int signo = ending_signal;
    if (signo != 0 && attaching_threads == 0)
        take_default_action(signo);
}

void note_ending_signal(int signo)
{
    ending_signal = signo;
    end_if_asked();
}

void set_state(hold_state next)
{
    const hold_state before = my_state;
    my_state = next;
    if (before == hold_state::none && next != hold_state::none)
        holding_threads++;
    if (before != hold_state::attaching && next == hold_state::attaching)
        attaching_threads++;
    if (before == hold_state::attaching && next != hold_state::attaching)
        attaching_threads--;
    if (before != hold_state::none && next == hold_state::none)
        holding_threads--;
}

void wait_until_zero(const std::atomic<int>& counter, int limit_ms)
{
    for (int ms = 0; counter != 0 && ms < limit_ms; ms++)
        usleep(1000);
}

}  // namespace

void trace_gate::defer_ending_signals(bool client)
{
    auto install = [](int signo, void (*handler)(int)) {
        struct sigaction action = {};
        sigaction(signo, nullptr, &action);
        if (action.sa_handler == SIG_IGN)
            return;
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigaction(signo, &action, nullptr);
    };
    for (int signo : {SIGINT, SIGTERM, SIGHUP})
        install(signo, note_ending_signal);
    if (client)
        install(SIGQUIT, note_ending_signal);
    for (int signo : {SIGTSTP, SIGTTOU})
        install(signo, SIG_IGN);
}

void trace_gate::begin_attach()
{
    my_turn.emplace();
    for (;;) {
        set_state(hold_state::attaching);
        if (shut == 0 && ending_signal == 0)
            return;
        set_state(hold_state::none);
        end_if_asked();
        usleep(1000);
    }
}

void trace_gate::stop_seen()
{
    if (my_state != hold_state::attaching)
        return;
    set_state(hold_state::held);
    end_if_asked();
}

void trace_gate::released()
{
    if (my_state == hold_state::none)
        return;
    set_state(hold_state::none);
    my_turn.reset();
    end_if_asked();
}

void trace_gate::freeze_process(pid_t pid)
{
    frozen_process = pid;
    kill(pid, SIGSTOP);
}

void trace_gate::resume_process(pid_t pid)
{
    if (pid <= 0)
        return;  // kill(2) gives these numbers to whole groups of processes
    shut++;
    wait_until_zero(attaching_threads, longest_stop_wait_ms);
    kill(pid, SIGCONT);
    if (frozen_process == pid)
        frozen_process = 0;
    shut--;
}

void trace_gate::end_tool(pid_t pid)
{
    shut++;
    released();
    resume_process(pid);
    usleep(100000);
    wait_until_zero(holding_threads, longest_hold_ms);
    kill(getpid(), SIGKILL);
    for (;;)
        pause();
}
