// A crafted text in the place of a /proc file, for the time of the object: a bind mount in the tests' own
// mount namespace.
#pragma once

#include <string>

class mounted_file
{
    std::string where;

public:
    mounted_file(std::string path, const std::string& text);
    ~mounted_file();
    mounted_file(const mounted_file&) = delete;
    mounted_file& operator=(const mounted_file&) = delete;
};

// "/proc/<pid>/task/<tid>/<name>"
std::string task_file(int pid, int tid, const char* name);
