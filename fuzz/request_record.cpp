// The record of a request: any bytes make a job, whose report goes below the directory that they name.
#include <cstring>

#include "dumper.h"
#include "fake_process.h"

struct dumper_test {
    static void run(dumper_frame& frame, int signo)
    {
        dumper job(&frame);
        check(job.pid == frame.req_t.pid && job.tid == static_cast<pid_t>(frame.req_t.tid));
        const std::string field(frame.req_t.dump_path, sizeof(frame.req_t.dump_path));
        check(job.dump_path == field.substr(0, field.find('\0')));
        check(job.dump_file_create(job.dump_path.c_str()) == -2);
        check(target.created.starts_with(job.dump_path + "/"));
        check(job.crash_file_create(job.dump_path.c_str()) == -2);
        check(target.created.starts_with(job.dump_path + "/crashdump-"));
        job.fdump = fmemopen(nullptr, 200, "w");
        job.dump_signal_info(signo);
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    char buffer[128] = {};  // as the server receives it
    memcpy(buffer, data, std::min(size, sizeof(dumper_frame)));
    dumper_test::run(*reinterpret_cast<dumper_frame*>(buffer), size > 0 ? data[size - 1] : 0);
    return 0;
}
