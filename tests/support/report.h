// A status report taken apart.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// One thread's block. whole: every section is there, in order, each of its lines has the section's form, and
// nothing else.
struct thread_block {
    bool whole = false;
    pid_t pid = -1;
    pid_t tid = -1;
    std::string names;  // "process: threads, thread: worker 1"
    std::string statistics;
    std::vector<std::string> frames;
};

thread_block parse_block(const std::string& text);

struct process_report {
    std::string head;  // up to the first separator
    std::vector<thread_block> blocks;
    size_t dash_lines = 0;
    size_t equals_lines = 0;
};

process_report parse_process_report(const std::string& text);
