// The log daemon of the machine, put back into the tests' own /dev for the time of the object; where there is
// none (QV_SYSLOG_FILE is not set) a small receiver that appends what comes to a file.
#pragma once

#include <sys/types.h>

#include <string>

// Kept from before the tests had their own /dev; -1 when there was no /dev/log.
void keep_machine_log();

class log_daemon
{
    std::string file;
    size_t start = 0;  // of what is new
    pid_t receiver = -1;

public:
    log_daemon();
    ~log_daemon();
    log_daemon(const log_daemon&) = delete;
    log_daemon& operator=(const log_daemon&) = delete;
    std::string text() const;
};
