// Server mode: the listener on the Unix socket, one thread per connection, and the dispatch of requests to
// dump jobs. docs/protocol.md describes the exchange.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <shared_mutex>
#include <string>

#include "dumper_common.h"

// The process's one server object. Created on the main thread before any other, never destroyed.
class dump_server
{
    static dump_server* instance;
    dump_server();
    ~dump_server() = default;

public:
    std::shared_timed_mutex sig_rwlock;  // a crash dump runs alone, status dumps side by side

    static dump_server* get_instance();
};

// The listening socket. Its operations keep no state of a request, so connection threads share it.
class dumper_comm
{
    struct sockaddr_un server_addr;

public:
    int serfd;

    explicit dumper_comm(std::string& filename);  // a failure shows when serfd is listened on
    ~dumper_comm();                               // the socket file stays
    dumper_comm(const dumper_comm&) = delete;
    dumper_comm& operator=(const dumper_comm&) = delete;

    // Takes the path over from an earlier run. 0, -1 no socket, -2 not bound.
    int ipc_init(std::string& filename);
    // Carries one request out on the calling thread. buf holds at least one record's size. Negative: the
    // connection is to be closed.
    int handle_dump_req(int socket, char* buf, dump_server* service);
    // Sends one record with len bytes (88 at most) behind its cmd. 0 or -1.
    int socket_send_ack(int socket, uint16_t cmd, char* buf, int len);
};

// The listener thread. Returns only when the socket cannot be listened on.
void stack_dumpper(dump_server* service);

// Installs the handler that logs the server's own fatal signals.
void signal_init();
