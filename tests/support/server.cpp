#include "support/server.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::vector;

namespace
{
ino_t socket_inode()
{
    struct stat file;
    return stat(dump_server_socket, &file) == 0 ? file.st_ino : 0;
}

}  // namespace

server::server(vector<string> args, const std::function<void()>& in_child)
{
    static int number = 0;
    log_path = "/tmp/server-" + std::to_string(number++) + ".log";
    args.insert(args.begin(), build_dir() + "/dump_server");
    vector<char*> argv;
    for (string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    const ino_t earlier = socket_inode();
    const int log_file = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(log_file, STDERR_FILENO);
        if (in_child)
            in_child();
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(log_file);
    // A socket other than an earlier server's, and a first connection whose end leaves the state of rest.
    eventually([earlier] { return socket_inode() != earlier && connection().is_open(); });
    if (!logs("Dumper socket accepted") || !eventually([this] { return thread_ids(child).size() == 2; }))
        fprintf(stderr, "the server did not get ready:\n%s", log().c_str());
    idle_descriptors = open_descriptors();
}

server::~server()
{
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

bool server::lives() const
{
    return child > 0 && waitpid(child, nullptr, WNOHANG) == 0;
}

int server::wait_for_end(int limit_ms)
{
    int status = -1;
    if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, limit_ms))
        return -1;
    child = -1;
    return status;
}

string server::log() const
{
    return file_text(log_path);
}

string server::log_since(size_t mark) const
{
    string text = log().substr(mark);
    const string number = "[" + std::to_string(child) + "]";
    for (size_t at; (at = text.find(number)) != string::npos;)
        text.erase(at, number.size());
    return text;
}

bool server::logs(const string& text, size_t times) const
{
    return eventually([&] { return count_of(log(), text) >= times; });
}

size_t server::open_descriptors() const
{
    std::error_code error;
    const std::filesystem::directory_iterator fds("/proc/" + std::to_string(child) + "/fd", error);
    return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

bool server::is_idle() const
{
    constexpr size_t pipe_of_unwinder = 2;  // which it keeps from its first use on
    const bool idle = eventually([this] {
        return thread_ids(child).size() == 2 && open_descriptors() <= idle_descriptors + pipe_of_unwinder;
    });
    if (!idle)
        fprintf(stderr, "%zu threads, %zu descriptors instead of 2 and %zu\n", thread_ids(child).size(),
                open_descriptors(), idle_descriptors);
    return idle;
}

connection::connection() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, dump_server_socket);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        close_now();
}

void connection::close_now()
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

bool connection::send_bytes(const void* bytes, size_t length) const
{
    return send(fd, bytes, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

int connection::acknowledgement(uint16_t* cmd, int limit_ms) const
{
    pollfd readable = {fd, POLLIN, 0};
    dumper_frame answer;
    if (poll(&readable, 1, limit_ms) != 1 || recv(fd, &answer, sizeof(answer), 0) != sizeof(answer))
        return no_answer;
    if (cmd != nullptr)
        *cmd = answer.cmd;
    int status;
    memcpy(&status, answer.ack_t.ack, sizeof(status));
    const uint8_t* rest = answer.ack_t.ack + sizeof(status);
    const bool empty = std::all_of(rest, rest + 84, [](uint8_t byte) { return byte == 0; });
    return empty ? status : no_answer + 1;  // nothing of the server's memory may leak
}

bool connection::closed_by_server(int limit_ms) const
{
    pollfd readable = {fd, POLLIN, 0};
    char byte;
    return poll(&readable, 1, limit_ms) == 1 && recv(fd, &byte, 1, 0) <= 0;
}

void connection::end_requests() const
{
    shutdown(fd, SHUT_WR);
}

dumper_frame make_request(uint16_t cmd, pid_t pid, pid_t tid, const string& dir)
{
    dumper_frame request;
    memset(&request, 0, sizeof(request));
    request.cmd = cmd;
    request.req_t.pid = pid;
    request.req_t.tid = static_cast<uint32_t>(tid);
    dir.copy(request.req_t.dump_path, sizeof(request.req_t.dump_path));
    return request;
}

int ask(const dumper_frame& request, uint16_t* cmd)
{
    const connection link;
    if (!link.send_request(request))
        return no_answer;
    link.end_requests();
    const int status = link.acknowledgement(cmd);
    return status == no_answer || link.closed_by_server(60000) ? status : no_answer;
}

vector<string> reports_in(const string& dir, const string& part)
{
    vector<string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        if (entry.path().filename().string().find(part) != string::npos)
            paths.push_back(entry.path());
    return paths;
}

string read_line(target& program)
{
    string line;
    for (string byte; (byte = program.read_output(1)) != "\n" && !byte.empty();)
        line += byte;
    return line;
}

string fresh_dir(mode_t mode)
{
    char path[] = "/tmp/reports-XXXXXX";
    if (mkdtemp(path) == nullptr || chmod(path, mode) != 0)
        abort();
    return path;
}
