// A status report taken apart.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// One thread's block. whole: every section is there, in order, each of its lines has the section's form, and
// nothing else.
struct thread_block {
    bool whole = false;
    std::string text;
    pid_t pid = -1;
    pid_t tid = -1;
    std::string names;      // "process: threads, thread: worker 1"
    std::string registers;  // the section's lines
    std::vector<std::string> frames;
    std::vector<std::string> kernel_trace;
};

thread_block parse_block(const std::string& text);

struct frame {
    std::string pc;
    std::string module;
    std::string function;  // empty in the short form
};

// The frames of the first backtrace of a report.
std::vector<frame> frames_of(const std::string& report);
std::vector<std::string> functions_of(const std::vector<frame>& frames);
std::string text_of(const std::vector<frame>& frames);

// Whether the names stand in this order, next to each other. "*" is any.
bool has_chain(const std::vector<std::string>& functions, const std::vector<std::string>& chain);

struct process_report {
    std::string head;  // up to the first separator
    std::vector<thread_block> blocks;
    size_t dash_lines = 0;
    size_t equals_lines = 0;
};

process_report parse_process_report(const std::string& text);
