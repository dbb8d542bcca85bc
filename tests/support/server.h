// A running dump server (the real executable, in this test run's own /tmp), and connections to it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "dumper_common.h"
#include "support/target.h"

class server : public target
{
    std::string log_path;
    size_t idle_descriptors = 0;

public:
    // Returns when the server listens.
    explicit server(const std::vector<std::string>& args = {"-s"});
    // Ends it as its administrator would.
    ~server();

    // All its log entries so far, each a line like "I DumpServer[812]: text".
    std::string log() const;
    // The entries behind a mark (an earlier log().size()), without the process number.
    std::string log_since(size_t mark) const;
    // Waits until this text has been logged so many times.
    bool logs(const std::string& text, size_t times = 1) const;
    void clear_log() const;
    size_t open_descriptors() const;
    // Waits until every connection has gone, and no descriptor or thread is left of them.
    bool is_idle() const;
};

constexpr int no_answer = -1000;

class connection
{
    int fd;

public:
    connection();
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // Who listens at the other end; 0 when there is none.
    pid_t server_pid() const;
    bool send_bytes(const void* bytes, size_t length) const;
    bool send_request(const dumper_frame& request) const { return send_bytes(&request, sizeof(request)); }
    // The next acknowledgement's status; no_answer when the server closes or limit_ms pass. Its code in *cmd.
    int acknowledgement(uint16_t* cmd = nullptr, int limit_ms = 10000) const;
    // Whether the server closes without a further byte.
    bool closed_by_server(int limit_ms = 10000) const;
    // Sends a request and returns its acknowledgement, like that.
    int request(const dumper_frame& request) const;
    // No request will follow: the server closes when it has finished the last.
    void end_requests() const;
    // Waits for that.
    bool finish() const;
};

dumper_frame make_request(uint16_t cmd, pid_t pid, pid_t tid, const std::string& dir);

// Sends one request on a connection of its own and waits until it is finished: the status, or no_answer.
int ask(const dumper_frame& request);

// Paths of the reports in a directory whose names hold this text.
std::vector<std::string> reports_in(const std::string& dir, const std::string& part = "");

// A new, empty directory below /tmp.
std::string fresh_dir();
