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
// One fact about the calling thread, and how many threads of the tool share it. The counters are read in a
// signal handler.
class shared_fact
{
    std::atomic<int>& threads;
    bool mine = false;
    static_assert(std::atomic<int>::is_always_lock_free);

public:
    constexpr explicit shared_fact(std::atomic<int>& counter) : threads(counter) {}
    operator bool() const { return mine; }
    shared_fact& operator=(bool now)
    {
        if (now != mine)
            threads += now ? 1 : -1;
        mine = now;
        return *this;
    }
};

std::atomic<int> attaching_threads{0};
std::atomic<int> holding_threads{0};
std::atomic<int> owing_threads{0};
thread_local shared_fact attaching(attaching_threads);  // a SIGSTOP is on its way to what it traces
thread_local shared_fact holding(holding_threads);      // it traces a thread
thread_local shared_fact owing(owing_threads);  // a SIGSTOP is on its way that only SIGCONT takes back
thread_local std::optional<hold_turn> my_turn;

std::atomic<int> shut{0};  // how many want no new attach to begin
std::atomic<int> ending_signal{0};
std::atomic<pid_t> frozen_process{0};  // one at most: a crash dump runs alone

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
    trace_gate::resume_frozen_process();
    raise(signo);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    _exit(128 + signo);  // the first process of a container does not get signals of its own
}

void end_if_asked()
{
    const int signo = ending_signal;
    if (signo != 0 && attaching_threads == 0 && owing_threads == 0)
        take_default_action(signo);
}

void note_ending_signal(int signo)
{
    ending_signal = signo;
    end_if_asked();
}

// Not once an ending signal has found no such fact, and may be ending the tool.
void claim(shared_fact& fact)
{
    while (!fact) {
        fact = true;
        if (ending_signal == 0)
            return;
        fact = false;
        end_if_asked();
        usleep(1000);
    }
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
        claim(attaching);
        if (shut == 0)
            break;
        attaching = false;
        end_if_asked();
        usleep(1000);
    }
    holding = true;
}

void trace_gate::stop_sent()
{
    if (owing)
        attaching = true;  // no signal can be ending the tool
    else
        claim(attaching);
}

void trace_gate::stop_seen(int signo)
{
    if (signo == SIGSTOP)
        owing = false;
    else if (attaching)
        owing = true;
    attaching = false;
    end_if_asked();
}

void trace_gate::released()
{
    attaching = false;
    holding = false;
    my_turn.reset();
    end_if_asked();
}

void trace_gate::freeze_process(pid_t pid)
{
    claim(owing);
    kill(pid, SIGSTOP);
    frozen_process = pid;
    owing = false;  // an ending signal pays
    end_if_asked();
}

void trace_gate::resume_frozen_process()
{
    const pid_t frozen = frozen_process;
    if (frozen != 0)
        kill(frozen, SIGCONT);
}

void trace_gate::resume_process(pid_t pid)
{
    if (pid <= 0)
        return;  // kill(2) gives these numbers to whole groups of processes
    shut++;
    if (attaching)
        owing = true;  // its own SIGSTOP may be cancelled
    attaching = false;
    wait_until_zero(attaching_threads, longest_stop_wait_ms);
    kill(pid, SIGCONT);
    if (frozen_process == pid)
        frozen_process = 0;
    owing = false;
    shut--;
    end_if_asked();
}

void trace_gate::end_tool(pid_t pid)
{
    shut++;
    resume_process(pid);
    usleep(100000);
    released();
    wait_until_zero(holding_threads, longest_hold_ms);
    wait_until_zero(owing_threads, longest_stop_wait_ms);
    kill(getpid(), SIGKILL);
    _exit(128 + SIGKILL);  // as above
}
