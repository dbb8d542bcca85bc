// The requester's side of a crash report: a library that a program links, or that is put before any program
// with LD_PRELOAD=libcrash_reporter.so. On a fatal signal it asks the dump server for a report of the process
// and then lets the signal take effect, so that the process dies as it would have died.
//
// Environment, read once when the library is loaded:
//   CRASH_REPORT_DIR   the reports' directory: absolute, at most 63 characters; /tmp when unset
//
// Signals that are ignored or handled when the library is loaded stay so, and a handler that the program
// installs later takes the library's place. The handler calls async-signal-safe functions only:
// signal-safety(7).
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "dumper_common.h"

namespace
{
constexpr int fatal_signals[] = {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV};
constexpr long answer_limit_ms = 5000;         // how long a server may keep a crashing process waiting
constexpr long other_report_limit_ms = 60000;  // how long a second crashing thread leaves the first its time
constexpr size_t handler_stack_size = 64 * 1024;  // the signal frame alone may need 11 KiB: AT_MINSIGSTKSZ

char report_dir[sizeof(dumper_request::dump_path)] = "/tmp";
std::atomic<pid_t> reporting_thread{0};

static_assert(std::atomic<pid_t>::is_always_lock_free, "it is used in a signal handler");

long now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// The server's ptrace stop interrupts a poll: what is left of the time counts, not the number of calls.
bool wait_until_readable(int fd, long deadline)
{
    for (long left; (left = deadline - now_ms()) > 0;) {
        pollfd readable = {fd, POLLIN, 0};
        const int ready = poll(&readable, 1, static_cast<int>(left));
        if (ready > 0 || (ready < 0 && errno != EINTR))
            return ready > 0;
    }
    return false;
}

bool connect_to_server(int fd, long deadline)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, dump_server_socket);
    while (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        // EAGAIN: the server's backlog is full.
        if ((errno != EAGAIN && errno != EINTR) || now_ms() >= deadline)
            return false;
        poll(nullptr, 0, 5);
    }
    return true;
}

// Returns when the server traces this thread (true), or will not: it refused, closed, or took too long.
bool ask_for_report(const siginfo_t* info)
{
    const long deadline = now_ms() + answer_limit_ms;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    bool traced = false;
    if (connect_to_server(fd, deadline)) {
        // Where only ancestors may trace, a server that is not root needs leave: PR_SET_PTRACER(2const).
        ucred server;
        socklen_t length = sizeof(server);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &server, &length) == 0)
            prctl(PR_SET_PTRACER, server.pid, 0, 0, 0);

        dumper_frame record;
        memset(&record, 0, sizeof(record));
        record.cmd = CMD_CRASH_DUMP;
        memcpy(record.req_t.dump_path, report_dir, sizeof(report_dir));
        record.req_t.pid = getpid();
        record.req_t.tid = static_cast<uint32_t>(syscall(SYS_gettid));
        record.req_t.si_code = info->si_code;
        record.req_t.abort_addr = info->si_code > 0 ? info->si_addr : nullptr;
        int status = -1;
        if (send(fd, &record, sizeof(record), MSG_NOSIGNAL) == sizeof(record) &&
            wait_until_readable(fd, deadline) && recv(fd, &record, sizeof(record), 0) == sizeof(record))
            memcpy(&status, record.ack_t.ack, sizeof(status));
        traced = status == 0;
    }
    close(fd);
    return traced;
}

void send_to_this_thread(int signo)
{
    syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signo);
}

// A fault repeats at its instruction when the handler returns. What was sent does not, nor does a breakpoint
// instruction on machines that step past it.
void let_it_take_effect(int signo, const siginfo_t* info)
{
    if (info->si_code > 0 && signo != SIGTRAP)
        return;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    send_to_this_thread(signo);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // takes effect here, or is swallowed by the server's detach
    send_to_this_thread(signo);
}

// Makes the calling thread the one that asks. False when another one of this process is: not one of the
// parent's, whose memory the child of a vfork shares.
bool become_reporting_thread(pid_t self)
{
    pid_t other = 0;
    while (!reporting_thread.compare_exchange_weak(other, self))
        if (other != 0 && syscall(SYS_tgkill, getpid(), other, 0) == 0)
            return false;
    return true;
}

// A thread that the server traces comes here twice. The tracer sees its repeated signal before any handler
// does; the handler stays until after the report, so that another thread that crashes meanwhile waits in it
// instead of ending the process. Once released, the thread repeats its signal once more, and now the default
// action is due.
void handle_fatal_signal(int signo, siginfo_t* info, void*)
{
    const int saved_errno = errno;
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    bool default_action = true;
    if (reporting_thread != self) {
        if (become_reporting_thread(self)) {
            default_action = !ask_for_report(info);
        } else {
            // The report of the thread that came first shows this one too, and its signal ends them both.
            const long deadline = now_ms() + other_report_limit_ms;
            for (long left; (left = deadline - now_ms()) > 0;)
                poll(nullptr, 0, static_cast<int>(left));
        }
    }
    if (default_action)
        signal(signo, SIG_DFL);
    let_it_take_effect(signo, info);
    errno = saved_errno;
}

// Alternate stacks: sigaltstack(2) is per thread, and without one an overflowed stack has no room for the
// handler.
pthread_key_t stack_key;
std::atomic<bool> has_stack_key{false};  // from install() on; other libraries may start threads before

void drop_handler_stack(void* stack)
{
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
    munmap(stack, handler_stack_size);
}

void give_thread_a_handler_stack()
{
    stack_t present;
    if (!has_stack_key || sigaltstack(nullptr, &present) != 0 || !(present.ss_flags & SS_DISABLE))
        return;
    void* stack = mmap(nullptr, handler_stack_size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (stack == MAP_FAILED)
        return;  // this thread's overflow will not be reported, everything else will
    stack_t own = {};
    own.ss_sp = stack;
    own.ss_size = handler_stack_size;
    if (sigaltstack(&own, nullptr) != 0 || pthread_setspecific(stack_key, stack) != 0)
        drop_handler_stack(stack);
}

struct thread_start {
    void* (*routine)(void*);
    void* argument;
};

void* start_thread_with_handler_stack(void* start)
{
    const thread_start own = *static_cast<thread_start*>(start);
    free(start);
    give_thread_a_handler_stack();
    return own.routine(own.argument);
}

void choose_report_dir()
{
    const char* dir = secure_getenv("CRASH_REPORT_DIR");
    if (dir == nullptr)
        return;
    if (dir[0] == '/' && strlen(dir) < sizeof(report_dir)) {
        strcpy(report_dir, dir);
        return;
    }
    constexpr char complaint[] =
        "crash_reporter: CRASH_REPORT_DIR is no absolute path of at most 63 characters, reports go to /tmp\n";
    (void)!write(STDERR_FILENO, complaint, sizeof(complaint) - 1);
}

__attribute__((constructor)) void install()
{
    choose_report_dir();
    has_stack_key = pthread_key_create(&stack_key, drop_handler_stack) == 0;
    give_thread_a_handler_stack();

    struct sigaction action = {};
    action.sa_sigaction = handle_fatal_signal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (const int signo : fatal_signals)
        sigaddset(&action.sa_mask, signo);  // a fault in the handler itself ends the process at once
    for (const int signo : fatal_signals) {
        struct sigaction present;
        if (sigaction(signo, nullptr, &present) == 0 && present.sa_handler == SIG_DFL)
            sigaction(signo, &action, nullptr);
    }
}

}  // namespace

// Takes the place of the C library's, so that every thread starts with a stack for the handler.
extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*routine)(void*), void* argument)
{
    using create_function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<create_function>(dlsym(RTLD_NEXT, "pthread_create"));
    auto* start = static_cast<thread_start*>(malloc(sizeof(thread_start)));
    if (start == nullptr)
        return EAGAIN;
    *start = {routine, argument};
    const int error = create(thread, attributes, start_thread_with_handler_stack, start);
    if (error != 0)
        free(start);
    return error;
}
