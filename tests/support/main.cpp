// Each run of the test binary has a mount namespace with its own /tmp, where the server's socket lives, and
// its own /dev without a /dev/log: entries of the tool's processes come out on their standard error.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/log_capture.h"
#include "support/target.h"

using std::string;

namespace
{
void must(bool done, const char* what)
{
    if (done)
        return;
    perror(what);
    fprintf(stderr, "The tests trace processes and mount file systems: run them as root.\n");
    exit(1);
}

// Mounts an empty tmpfs over dir, then puts back what still has to be seen below it.
void mount_over(const string& dir, const char* options, const std::vector<string>& kept)
{
    std::vector<int> nodes;
    nodes.reserve(kept.size());
    for (const string& path : kept)
        nodes.push_back(open(path.c_str(), O_PATH | O_CLOEXEC));
    must(mount("tmpfs", dir.c_str(), "tmpfs", 0, options) == 0, "mount tmpfs");
    for (size_t i = 0; i < kept.size(); i++) {
        if (nodes[i] < 0)
            continue;
        struct stat node;
        fstat(nodes[i], &node);
        if (S_ISDIR(node.st_mode))
            std::filesystem::create_directories(kept[i]);
        else
            close(open(kept[i].c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        const string from = "/proc/self/fd/" + std::to_string(nodes[i]);
        must(mount(from.c_str(), kept[i].c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind mount");
        close(nodes[i]);
    }
}

class per_test : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override { clear_log(); }
    void OnTestEnd(const testing::TestInfo& info) override
    {
        if (info.result()->Failed())
            fprintf(stderr, "log of the failed test:\n%s", log_as_text().c_str());
    }
};

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        const string build = build_dir();  // in a chroot, its path cannot be found out any more afterwards
        must(unshare(CLONE_NEWNS) == 0, "unshare");
        must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
        mount_over("/tmp", "mode=1777",
                   build.starts_with("/tmp/") ? std::vector{build} : std::vector<string>{});
        mount_over("/dev", "mode=755",
                   {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty",
                    "/dev/pts", "/dev/shm"});
        must(symlink("pts/ptmx", "/dev/ptmx") == 0, "symlink");  // a bind mount of the node opens no terminal
        must(chdir("/tmp") == 0, "chdir");
        signal(SIGPIPE, SIG_IGN);
        setpriority(PRIO_PROCESS, 0, 0);  // what the tool sets is relative to what it was started with
        testing::UnitTest::GetInstance()->listeners().Append(new per_test);
    }
    return RUN_ALL_TESTS();
}
