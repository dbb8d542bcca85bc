// Server mode. Threads: the listener, and one detached thread per connection, which handles its requests
// itself. The accept loop never returns once it runs, so what it lends to connection threads lives as long as
// the process.
#include "dump_server.h"

#include <errno.h>
#include <execinfo.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <semaphore>
#include <system_error>
#include <thread>

#include "dumper.h"
#include "open_connections.h"
#include "system_log.h"
#include "trace_gate.h"

using std::string;

namespace
{
// While descriptors are short: no busy loop, and no more than ten log entries a second.
constexpr useconds_t accept_pause_us = 100000;

void dump_server_signal_handler(int signo, siginfo_t* info, [[maybe_unused]] void* p)
{
    const int saved_errno = errno;
    void* array[10];
    const int size = backtrace(array, 10);
    char** strings = backtrace_symbols(array, size);
    sys_stat::log_signal_summary(info);
    for (int i = 0; strings != nullptr && i < size; i++)
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "==> [%d] %s\n", i, strings[i]);
    free(strings);
    // A fault of its own ends the server as soon as this returns.
    if (signo == SIGABRT || info->si_code > 0)
        trace_gate::resume_frozen_process();
    signal(signo, SIG_DFL);
    errno = saved_errno;
}

// Held while a request waits for the server's lock. The lock alone lets status requests pass a crash request
// that waits, without end when there are always some under way.
std::mutex arrival;

// Who is at the other end of a connection: unix(7), SO_PEERCRED, the credentials at the time of its connect.
ucred peer_of(int socket)
{
    constexpr auto no_id = static_cast<id_t>(-1);  // owns no process
    ucred peer = {0, no_id, no_id};
    socklen_t length = sizeof(peer);
    (void)getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    return peer;
}

// A status dump must not leave its process stopped, whoever stopped it.
void resume_if_stopped(dumper& dp, pid_t pid)
{
    if (!dp.still_traced(pid))
        return;
    __android_log_print(ANDROID_LOG_WARN, "DumpServer", "%d still traced, resume run...", pid);
    trace_gate::resume_process(pid);
}

// Body of a connection thread.
void serve_connection(const int& clifd, std::binary_semaphore& sk_lock, open_connections& connections,
                      dumper_comm& comm, dump_server* service)
{
    const int sk = clifd;
    sk_lock.release();
    char recv_buf[128];
    for (;;) {
        memset(recv_buf, 0, sizeof(recv_buf));
        const ssize_t length = TEMP_FAILURE_RETRY(recv(sk, recv_buf, sizeof(dumper_frame), 0));
        if (length <= 0)
            break;
        connections.busy(sk);
        const int ret = comm.handle_dump_req(sk, recv_buf, service);
        connections.idle(sk);
        if (ret < 0) {
            __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "handle_dump_req failed, ret:%d\n", ret);
            break;
        }
    }
    connections.forget(sk);
    close(sk);
}

// Waits for the next connection. While there are too many, it looks for idle ones now and then.
void wait_for_connection(int serfd, open_connections& connections)
{
    constexpr int sweep_ms = std::chrono::milliseconds(open_connections::sweep_period).count();
    pollfd readable = {serfd, POLLIN, 0};
    do
        connections.close_idle();
    while (TEMP_FAILURE_RETRY(poll(&readable, 1, connections.too_many() ? sweep_ms : -1)) == 0);
}

}  // namespace

void signal_init()
{
    void* first_frame;
    (void)backtrace(&first_frame, 1);  // loads what it needs now: a handler must not

    struct sigaction action = {};
    action.sa_sigaction = dump_server_signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    for (const int signo :
         {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSTKFLT, SIGQUIT, SIGSYS, SIGXCPU, SIGXFSZ})
        sigaction(signo, &action, nullptr);
}

dump_server* dump_server::instance = nullptr;

dump_server::dump_server()
{
    __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Stack trace server start\n");
}

dump_server* dump_server::get_instance()
{
    if (instance == nullptr)
        instance = new dump_server;
    return instance;
}

dumper_comm::dumper_comm(string& filename) : server_addr(), serfd(-1)
{
    ipc_init(filename);
}

dumper_comm::~dumper_comm()
{
    close(serfd);
}

int dumper_comm::ipc_init(string& filename)
{
    memset(server_addr.sun_path, 0, sizeof(server_addr.sun_path));
    server_addr.sun_family = AF_UNIX;
    filename.copy(server_addr.sun_path, sizeof(server_addr.sun_path) - 1);
    unlink(filename.c_str());
    serfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (serfd <= 0) {
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Socket create failed\n");
        return -1;
    }
    if (bind(serfd, reinterpret_cast<sockaddr*>(&server_addr), sizeof(server_addr)) < 0) {
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Socket bind failed\n");
        return -2;
    }
    return 0;
}

int dumper_comm::socket_send_ack(int socket, uint16_t cmd, char* buf, int len)
{
    dumper_frame record = {};
    record.cmd = cmd;
    memcpy(record.ack_t.ack, buf, static_cast<size_t>(len));
    // Never waits for a peer that does not read: the target is held meanwhile.
    return send(socket, &record, sizeof(record), MSG_NOSIGNAL | MSG_DONTWAIT) > 0 ? 0 : -1;
}

int dumper_comm::handle_dump_req(int socket, char* buf, dump_server* service)
{
    int ret = 0;
    timeval start;
    timeval end;
    gettimeofday(&start, nullptr);
    auto* df = reinterpret_cast<dumper_frame*>(buf);
    const uint16_t cmd = df->cmd;
    const pid_t pid = df->req_t.pid;
    const auto tid = static_cast<pid_t>(df->req_t.tid);
    std::unique_lock<std::shared_timed_mutex> wLock(service->sig_rwlock, std::defer_lock);
    std::shared_lock<std::shared_timed_mutex> rLock(service->sig_rwlock, std::defer_lock);
    dumper dp(df);

    ret = dp.init_process_map();
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Init process map failed:%d\n", ret);
        return ret;
    }
    if (cmd != CMD_CRASH_DUMP && cmd != CMD_PROCESS_STAT && cmd != CMD_THREAD_STAT) {
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "No Such CMD\n");
        return -EINVAL;
    }

    auto acknowledge = [&] {
        socket_send_ack(socket, static_cast<uint16_t>(~cmd), reinterpret_cast<char*>(&ret), sizeof(ret));
    };
    const ucred peer = peer_of(socket);
    if (peer.uid != 0 && peer.uid != geteuid())
        dp.set_asker(peer.uid, peer.gid);
    if (!dp.may_be_shown()) {
        ret = -1;
        acknowledge();
        return ret;
    }

    {
        const std::lock_guard<std::mutex> next_in_turn(arrival);
        if (cmd == CMD_CRASH_DUMP)
            wLock.lock();
        else
            rLock.lock();
    }
    const pid_t thread = cmd == CMD_PROCESS_STAT ? pid : tid;
    ret = dp.attach_thread(thread);
    // While the request waited its turn, the number may have gone to a process of somebody else.
    if (ret == 0 && !dp.may_be_shown()) {
        dp.release_attached_thread(thread);
        ret = -1;
    }
    acknowledge();
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "ptrace attach failed\n");
    } else if (cmd == CMD_CRASH_DUMP) {
        ret = dp.dump_process_crash();
    } else if (cmd == CMD_PROCESS_STAT) {
        ret = dp.dump_process_stats(true);
        if (ret != 0)
            __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Dump process stat failed\n");
        resume_if_stopped(dp, pid);
    } else {
        ret = dp.dump_thread_stats(true);
        if (ret != 0)
            __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Dump thread stat failed\n");
        resume_if_stopped(dp, pid);
    }

    gettimeofday(&end, nullptr);
    __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Handle_dump_req 0x%x takes:%f ms\n", cmd,
                        elapsed_ms(start, end));
    return ret;
}

void stack_dumpper(dump_server* service)
{
    string ipc_path = dump_server_socket;
    dumper_comm comm(ipc_path);
    const int ret = listen(comm.serfd, 5);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Socket listen failed\n");
        return;
    }
    signal(SIGPIPE, SIG_IGN);

    open_connections connections;
    std::binary_semaphore sk_lock(1);  // hands clifd over: released by the thread that has copied it
    int clifd = -1;
    for (;;) {
        sockaddr_un cilent_addr = {};
        socklen_t clilen = sizeof(cilent_addr);
        wait_for_connection(comm.serfd, connections);
        sk_lock.acquire();
        clifd = accept4(comm.serfd, reinterpret_cast<sockaddr*>(&cilent_addr), &clilen, SOCK_CLOEXEC);
        if (clifd < 0) {
            __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Socket accept failed\n");
            sk_lock.release();
            usleep(accept_pause_us);
            continue;
        }
        __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Dumper socket accepted\n");
        connections.idle(clifd);
        try {
            std::thread(serve_connection, std::cref(clifd), std::ref(sk_lock), std::ref(connections),
                        std::ref(comm), service)
                .detach();
        } catch (const std::system_error& error) {
            __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "No thread for a connection: %s\n",
                                error.what());
            connections.forget(clifd);
            close(clifd);
            sk_lock.release();
        }
    }
}
