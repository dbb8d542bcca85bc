// Arguments to mode, nothing else. The exit status is always 0; the system log tells how a dump went.
#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "dump_server.h"
#include "dumper.h"
#include "system_log.h"
#include "trace_gate.h"

using std::cout;
using std::endl;

namespace
{
struct arguments {
    bool server_mode = false;
    bool fast_mode = false;
    char* file = nullptr;
    pid_t pid = -1;
    pid_t tid = -1;
    int run_nice = 19;
};

void show_help()
{
    cout << "Show process or thread callstack and status, or exec dump_server in server mode" << endl;
    cout << "\t-s, Run dumper_server in server mode" << endl;
    cout << "\t-F, Client mode, don't parse function name in calltrace for reduce dump time" << endl;
    cout << "\t-p pid, Client mode, Show callstack and stat of all threads in the process" << endl;
    cout << "\t-t tid, Client mode, Show callstack and stat for the specified thread" << endl;
    cout << "\t-f file, Client mode, Save callstack and stat to specified file, or output to stdout" << endl;
    cout << "\t-n nice, server/client runing nice level" << endl;
}

// What is not a number is 0: a process that does not exist.
int number_argument()
{
    return static_cast<int>(strtoul(optarg, nullptr, 10));
}

// False when the usage text is the answer.
bool parse_arguments(int argc, char** argv, arguments& args)
{
    int option;
    while (!args.server_mode && (option = getopt(argc, argv, "sFht:p:f:n:")) != -1) {
        switch (option) {
            case 's':
                args.server_mode = true;
                break;
            case 'F':
                args.fast_mode = true;
                break;
            case 't':
                args.tid = number_argument();
                break;
            case 'p':
                args.pid = number_argument();
                break;
            case 'f':
                args.file = optarg;
                break;
            case 'n':
                args.run_nice = number_argument();
                break;
            default:
                return false;
        }
    }
    return true;
}

// A report or socket opened in the place of a closed standard stream would take what is meant for that
// stream. Read-only: what is written there fails, and is reported, as it would on the closed descriptor.
void fill_closed_standard_streams()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) == -1)
            (void)open("/dev/null", O_RDONLY);
}

void run_server()
{
    signal_init();
    trace_gate::defer_ending_signals(false);
    dump_server* service = dump_server::get_instance();
    std::thread(stack_dumpper, service).join();
}

void run_client(const arguments& args, const timeval& start)
{
    trace_gate::defer_ending_signals(true);
    // A reader that goes away (| head) or a file size limit fails the write, it does not end the tool in
    // mid-attach.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);

    const pid_t pid = args.pid != -1 ? args.pid : args.tid;
    const pid_t tid = args.tid;
    dumper* dp = args.file != nullptr ? new dumper(pid, tid, std::string(args.file)) : new dumper(pid, tid);
    if (!args.fast_mode)
        dp->set_mode(SILENT | FUNC_PARSE);

    if (dp->init_process_map() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Dumpstat init process map failed\n");
        delete dp;
        return;
    }
    timeval end;
    if (tid != -1) {
        __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Dump_thread_stats pid=%d, tid=%d\n", pid, tid);
        if (dp->dump_thread_stats(false) != 0)
            __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Dumpstat thread stats failed\n");
        gettimeofday(&end, nullptr);
        __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Dumpstat dump_thread_stats takes:%f ms\n",
                            elapsed_ms(start, end));
    } else {
        __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Dump_process_stats pid=%d\n", pid);
        if (dp->dump_process_stats(false) != 0)
            __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Dumpstat process stats failed\n");
        gettimeofday(&end, nullptr);
        __android_log_print(ANDROID_LOG_INFO, "DumpServer", "Dumpstat dump_process_stats takes:%f ms\n",
                            elapsed_ms(start, end));
    }
    delete dp;
}

}  // namespace

int main(int argc, char** argv)
{
    timeval start;
    gettimeofday(&start, nullptr);
    fill_closed_standard_streams();
    arguments args;
    if (!parse_arguments(argc, argv, args)) {
        show_help();
        return 0;
    }
    if (nice(args.run_nice) < 0)
        __android_log_print(ANDROID_LOG_ERROR, "DumpServer", "Set nice to %d failed\n", args.run_nice);
    if (args.server_mode)
        run_server();
    else if (args.pid == -1 && args.tid == -1)
        show_help();
    else
        run_client(args, start);
    return 0;
}
