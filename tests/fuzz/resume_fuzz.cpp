// The file of a restart: bytes as they are, and as a record that passes the checks, whose members then resume.
#include "engine.h"

#include "lac_resume.h"
#include "lac_resume_file.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const std::string path = "/dev/shm/resume-fuzz." + std::to_string(getpid());
    printed([&] {
        lacResumeFile(path);
        Engine engine;
        const LacResume now = lacResumeNow();
        LacResume record = now;
        lacDecodeResume({data, size}, record);

        std::memcpy(&record, data, std::min(size, sizeof(record)));
        record.boot = now.boot;
        record.inventory = now.inventory;
        record.system = now.system;
        for (LacResumePort &port : record.ports)
            port.group %= 6;
        lacWriteResume(path, record);
        lacResumeBegin(true);
        for (std::uint32_t port = 1; port <= 4; ++port)
            engine.running_port(port);
        Engine::send(LAC_Q_RESUME);
        Engine::dispatch();
        Engine::tick(5);
        lacResumeBegin(false);
    });
    fake::reset_datastore();
    return 0;
}
