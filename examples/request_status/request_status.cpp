// Asks a running dump server for a status report of a process, or of one of its threads.
// usage: request_status PID [TID] [DIRECTORY]
// The report is a new file in DIRECTORY (default: the current one), which is made before the program ends.
// Exit status: 0 when the server held the target and the report is there, 1 when not, 2 for wrong arguments.
// In a directory that the caller may not list, nobody looks for the report.
#include <errno.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include "dumper_common.h"

using std::string;

namespace
{
bool is_number(const char* text)
{
    return *text != '\0' && text[strspn(text, "0123456789")] == '\0';
}

// The server opens the path as its own: absolute, and it has to fit the record. Empty when it does not.
string report_directory(const char* directory)
{
    char absolute[PATH_MAX];
    if (realpath(directory, absolute) == nullptr) {
        fprintf(stderr, "request_status: %s: %s\n", directory, strerror(errno));
        return "";
    }
    constexpr size_t longest = sizeof(dumper_request::dump_path) - 1;
    if (strlen(absolute) > longest) {
        fprintf(stderr, "request_status: %s has more than %zu characters\n", absolute, longest);
        return "";
    }
    return absolute;
}

// Status reports of a process in a directory; nothing when the directory cannot be listed.
std::optional<std::set<string>> reports_of(pid_t pid, const string& directory)
{
    std::set<string> reports;
    std::error_code error;
    for (std::filesystem::directory_iterator at(directory, error), end; at != end && !error;
         at.increment(error))
        if (at->path().filename().string().starts_with(std::to_string(pid) + "-dumpstat-"))
            reports.insert(at->path());
    if (error)
        return std::nullopt;
    return reports;
}

int connect_to_server()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, dump_server_socket);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        fprintf(stderr, "request_status: no dump server at %s: %s\n", dump_server_socket, strerror(errno));
        return -1;
    }
    return fd;
}

const char* meaning_of(int status)
{
    switch (status) {
        case 0:
            return "attached";
        case -1:
            return "refused";
        case -3:
            return "no such thread";
        default:
            return "unknown";
    }
}

// Whether the server held the target and came to an end with it.
bool exchange(int fd, const dumper_frame& request)
{
    if (send(fd, &request, sizeof(request), MSG_NOSIGNAL) != sizeof(request)) {
        fprintf(stderr, "request_status: send: %s\n", strerror(errno));
        return false;
    }
    // No further request: the server closes as soon as it has finished this one, and that is how its end
    // shows.
    shutdown(fd, SHUT_WR);

    dumper_frame answer;
    if (recv(fd, &answer, sizeof(answer), MSG_WAITALL) != sizeof(answer)) {
        fprintf(stderr,
                "request_status: closed without an answer: no such process, or none that can be read\n");
        return false;
    }
    int status;
    memcpy(&status, answer.ack_t.ack, sizeof(status));
    printf("acknowledgement 0x%04x, status %d (%s)\n", static_cast<unsigned>(answer.cmd), status,
           meaning_of(status));
    fflush(stdout);
    char end;
    while (recv(fd, &end, 1, 0) > 0) {
    }
    return status == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const bool has_tid = argc > 2 && is_number(argv[2]);
    const int last = has_tid ? 4 : 3;
    if (argc < 2 || argc > last || !is_number(argv[1])) {
        fprintf(stderr, "usage: request_status PID [TID] [DIRECTORY]\n");
        return 2;
    }
    const pid_t pid = atoi(argv[1]);
    dumper_frame request = {};
    request.cmd = has_tid ? CMD_THREAD_STAT : CMD_PROCESS_STAT;
    request.req_t.pid = pid;
    request.req_t.tid = static_cast<uint32_t>(atoi(argv[has_tid ? 2 : 1]));
    const string directory = report_directory(argc == last ? argv[last - 1] : ".");
    if (directory.empty())
        return 2;
    directory.copy(request.req_t.dump_path, directory.size());

    const auto before = reports_of(pid, directory);
    const int fd = connect_to_server();
    if (fd < 0 || !exchange(fd, request))
        return 1;
    const auto after = reports_of(pid, directory);
    if (!before || !after) {
        printf("report: %s/%d-dumpstat-*.log\n", directory.c_str(), pid);
        return 0;
    }
    for (const string& path : *after)
        if (!before->contains(path)) {
            printf("report: %s\n", path.c_str());
            return 0;
        }
    fprintf(stderr, "request_status: no report came, the server's log entries say why\n");
    return 1;
}
