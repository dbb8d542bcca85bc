// Becomes another user, then another program.
//
// usage: as_user ID PROGRAM [ARGUMENT...]
//
// The program is opened before, since its directory may be closed to that user.
#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    const auto id = static_cast<unsigned>(atoi(argv[1]));
    const int program = open(argv[2], O_PATH | O_CLOEXEC);
    if (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0)
        return 3;
    fexecve(program, argv + 2, environ);
    return 4;
}
