// The long loops of server mode and of the client: what their parts share. Each part is one phase of a round;
// it prints its figures, and each fault is a line on standard error.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <string>

#include "support/server.h"
#include "support/target.h"
#include "support/tool.h"

// Of the whole run; phases add to them from any thread.
struct soak_figures {
    std::atomic<long> faults{0};  // every line of fault()
    std::atomic<long> left_stopped{0};
    std::atomic<long> server_deaths{0};
    std::atomic<long> client_dumps{0};
    std::atomic<long> server_dumps{0};
    std::atomic<long> whole_reports{0};
    std::atomic<long> crashes{0};
    std::atomic<long> late_crashes{0};  // the program had gone before the server could look at it
    std::atomic<long> targets_killed{0};
    std::atomic<long> requesters_killed{0};
    std::atomic<long> idle_closed{0};  // silent connections that the server closed
    std::atomic<long> entries_lost{0};
    std::atomic<double> longest_request_ms{0};
};
extern soak_figures figures;

void fault(const std::string& what);
void expect(bool holds, const std::string& what);
// A target that is still held or stopped is a figure of its own.
void expect_released(const target& program, const std::string& after);
void expect_alive(const target& daemon, const std::string& after);
// The server lives, serves, keeps nothing open, and the idle target runs.
void expect_unharmed(const server& daemon, const target& idle, const std::string& after);

double ms_since(const timeval& start);
// Asks on a connection of its own until the report is closed: whether it is whole, one stack for each thread.
bool ask_for_whole_report(const target& program, const std::string& dir);
// The request, from its start until now, may be the longest so far.
void note_request(const timeval& start, std::atomic<double>& longest_ms);
unsigned random_below(unsigned limit);

// The socket of the server in service makes room for another server's, as long as this lives.
struct socket_set_aside {
    socket_set_aside();
    ~socket_set_aside();
};

// crashes.cpp
void crashes(const server& daemon, const target& idle);
// One program's crash, with the reporting library and so many further threads. Its report is checked; false
// when there is none. The marker is any target that runs.
bool crash_once(int number, int further, const std::string& where, const target& marker);
void survivors(const server& daemon, const target& idle);

// load.cpp
void client_dumps(int times);
void everything_at_once(const server& daemon, const target& idle);

// shortages.cpp
void stalled_log();
void full_disk(const server& daemon, const target& idle);
void few_descriptors();
