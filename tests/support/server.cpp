#include "support/server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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
string log_file(pid_t pid)
{
    return "/tmp/server-" + std::to_string(pid) + ".log";
}

vector<string> command_line(vector<string> args)
{
    args.insert(args.begin(), build_dir() + "/dump_server");
    return args;
}

void open_log()
{
    umask(0);
    dup2(open(log_file(getpid()).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600),
         STDERR_FILENO);
}

}  // namespace

server::server(const vector<string>& args)
    : target(command_line(args), false, open_log), log_path(log_file(pid()))
{
    // The end of a first connection leaves the state of rest.
    eventually([this] { return connection().server_pid() == pid(); });
    if (!logs("Dumper socket accepted") || !eventually([this] { return thread_ids(pid()).size() == 2; }))
        fprintf(stderr, "the server did not get ready:\n%s", log().c_str());
    idle_descriptors = open_descriptors();
}

server::~server()
{
    if (!lives())
        return;
    kill(pid(), SIGTERM);
    wait_for_end();
}

string server::log() const
{
    return file_text(log_path);
}

string server::log_since(size_t mark) const
{
    string text = log().substr(mark);
    const string number = "[" + std::to_string(pid()) + "]";
    for (size_t at; (at = text.find(number)) != string::npos;)
        text.erase(at, number.size());
    return text;
}

bool server::logs(const string& text, size_t times) const
{
    return eventually([&] { return count_of(log(), text) >= times; });
}

void server::clear_log() const
{
    (void)truncate(log_path.c_str(), 0);
}

size_t server::open_descriptors() const
{
    std::error_code error;
    const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid()) + "/fd", error);
    return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

bool server::is_idle() const
{
    constexpr size_t pipe_of_unwinder = 2;  // which it keeps from its first use on
    const bool idle = eventually([this] {
        return thread_ids(pid()).size() == 2 && open_descriptors() <= idle_descriptors + pipe_of_unwinder;
    });
    if (!idle)
        fprintf(stderr, "%zu threads, %zu descriptors instead of 2 and %zu\n", thread_ids(pid()).size(),
                open_descriptors(), idle_descriptors);
    return idle;
}

connection::connection() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {AF_UNIX, {}};
    strcpy(address.sun_path, dump_server_socket);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        fd = -1;
    }
}

pid_t connection::server_pid() const
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    return peer.pid;
}

connection::~connection()
{
    if (fd >= 0)
        close(fd);
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
    const auto* bytes = reinterpret_cast<const uint8_t*>(&answer);
    const bool empty = std::all_of(bytes + offsetof(dumper_frame, ack_t) + sizeof(status),
                                   bytes + sizeof(answer), [](uint8_t byte) { return byte == 0; });
    return empty ? status : no_answer + 1;  // nothing of the server's memory may leak
}

bool connection::closed_by_server(int limit_ms) const
{
    pollfd readable = {fd, POLLIN, 0};
    char byte;
    return poll(&readable, 1, limit_ms) == 1 && recv(fd, &byte, 1, 0) <= 0;
}

int connection::request(const dumper_frame& request) const
{
    return send_request(request) ? acknowledgement() : no_answer;
}

void connection::end_requests() const
{
    shutdown(fd, SHUT_WR);
}

bool connection::finish() const
{
    end_requests();
    return closed_by_server(60000);
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

int ask(const dumper_frame& request)
{
    const connection link;
    const int status = link.request(request);
    return link.finish() ? status : no_answer;
}

vector<string> reports_in(const string& dir, const string& part)
{
    vector<string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        if (entry.path().filename().string().find(part) != string::npos)
            paths.push_back(entry.path());
    return paths;
}

string fresh_dir()
{
    char path[] = "/tmp/reports-XXXXXX";
    if (mkdtemp(path) == nullptr || chmod(path, 0755) != 0)
        abort();
    return path;
}
