#include "support/mounted_file.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <fstream>
#include <utility>

using std::string;

mounted_file::mounted_file(string path, const string& text) : where(std::move(path))
{
    const string crafted = "/tmp/crafted";
    std::ofstream(crafted) << text;
    EXPECT_EQ(mount(crafted.c_str(), where.c_str(), nullptr, MS_BIND, nullptr), 0) << where;
    remove(crafted.c_str());  // the mount keeps it
}

mounted_file::~mounted_file()
{
    umount2(where.c_str(), MNT_DETACH);
}

string task_file(int pid, int tid, const char* name)
{
    return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/" + name;
}
