#include "support/log_daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "support/tool.h"

using std::string;

namespace
{
int machine_log = -1;

[[noreturn]] void receive(int fd, const string& path)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::ofstream file(path);
    char buf[8192];
    for (ssize_t got; (got = recv(fd, buf, sizeof(buf), 0)) >= 0;)
        file << string(buf, static_cast<size_t>(got)) << std::endl;
    _exit(0);
}

}  // namespace

void keep_machine_log()
{
    machine_log = open("/dev/log", O_PATH | O_CLOEXEC);
}

log_daemon::log_daemon()
{
    const char* real_file = getenv("QV_SYSLOG_FILE");
    if (real_file != nullptr) {
        file = real_file;
        start = file_text(file).size();
        close(open("/dev/log", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        const string from = "/proc/self/fd/" + std::to_string(machine_log);
        EXPECT_EQ(mount(from.c_str(), "/dev/log", nullptr, MS_BIND, nullptr), 0) << "no /dev/log to put back";
        return;
    }
    file = "/tmp/syslog";
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, "/dev/log"};
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    receiver = fork();
    if (receiver == 0)
        receive(fd, file);
    close(fd);
}

log_daemon::~log_daemon()
{
    if (receiver != -1) {
        kill(receiver, SIGKILL);
        waitpid(receiver, nullptr, 0);
    } else {
        umount2("/dev/log", MNT_DETACH);
    }
    unlink("/dev/log");
}

string log_daemon::text() const
{
    const string all = file_text(file);
    return all.size() > start ? all.substr(start) : "";
}
