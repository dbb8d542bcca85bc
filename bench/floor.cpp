// The least that any tool does to a thread it looks at: attach, await the stop, read the registers and 2 KiB
// of stack, detach. On four workers, as the tool works.
//
// usage: floor PID
#include <dirent.h>
#include <elf.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace
{
void touch(pid_t tid, uint64_t stack)
{
    if (ptrace(PTRACE_ATTACH, tid, 0, 0) != 0)
        return;
    int status = 0;
    while (waitpid(tid, &status, __WALL | WNOHANG) == 0)
        sched_yield();
    char registers[1024];
    iovec set = {registers, sizeof(registers)};
    ptrace(PTRACE_GETREGSET, tid, NT_PRSTATUS, &set);
    char bytes[2048];
    iovec local = {bytes, sizeof(bytes)};
    iovec remote = {reinterpret_cast<void*>(stack), sizeof(bytes)};
    (void)process_vm_readv(tid, &local, 1, &remote, 1, 0);
    ptrace(PTRACE_DETACH, tid, 0, 0);
}

// Some memory of the target that is there: where its main stack begins.
uint64_t find_stack(const std::string& pid)
{
    FILE* maps = fopen(("/proc/" + pid + "/maps").c_str(), "re");
    char line[512];
    uint64_t start = 0;
    while (maps != nullptr && fgets(line, sizeof(line), maps) != nullptr)
        if (std::string(line).find("[stack]") != std::string::npos)
            start = strtoull(line, nullptr, 16);
    if (maps != nullptr)
        fclose(maps);
    return start;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    (void)!nice(19);
    const std::string pid = argv[1];
    const uint64_t stack = find_stack(pid);
    std::vector<pid_t> tids;
    DIR* tasks = opendir(("/proc/" + pid + "/task").c_str());
    while (const dirent* entry = tasks != nullptr ? readdir(tasks) : nullptr)
        if (entry->d_name[0] != '.')
            tids.push_back(atoi(entry->d_name));
    std::vector<std::thread> workers;
    for (size_t first = 0; first < 4; first++)
        workers.emplace_back([&, first] {
            for (size_t i = first; i < tids.size(); i += 4)
                touch(tids[i], stack);
        });
    for (std::thread& worker : workers)
        worker.join();
}
