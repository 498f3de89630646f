// What only another process can show: a datastore that is not usable, and a second subscriber.
#include "private_repository.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>

namespace
{

namespace fs = std::filesystem;

struct Outcome {
    int status;
    std::string output;
};

// Runs a shell command to its end.
Outcome run(const std::string &command)
{
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
    std::string output;
    std::array<char, 256> part{};
    while (pipe && std::fgets(part.data(), part.size(), pipe.get()) != nullptr) {
        output += part.data();
    }
    const int status = pclose(pipe.release());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// The probe in a child, killed with the object.
class Probe
{
  public:
    explicit Probe(const char *argument)
    {
        std::array<int, 2> to{};
        std::array<int, 2> from{};
        if (pipe(to.data()) != 0 || pipe(from.data()) != 0) {
            return;
        }
        process_ = fork();
        if (process_ == 0) {
            dup2(to[0], STDIN_FILENO);
            dup2(from[1], STDOUT_FILENO);
            close(to[1]);
            close(from[0]);
            execl(LACPD_PROBE, LACPD_PROBE, argument, nullptr);
            _exit(127);
        }
        close(to[0]);
        close(from[1]);
        input_ = to[1];
        std::array<char, 8> line{};
        ready_ = read(from[0], line.data(), line.size()) > 0 && std::string_view(line.data()).starts_with("ready");
        close(from[0]);
    }
    ~Probe() { kill_now(); }
    Probe(const Probe &) = delete;
    Probe &operator=(const Probe &) = delete;

    bool ready() const { return ready_; }
    void kill_now()
    {
        if (process_ > 0) {
            kill(process_, SIGKILL);
            waitpid(process_, nullptr, 0);
            close(input_);
            process_ = -1;
        }
    }

  private:
    pid_t process_ = -1;
    int input_ = -1;
    bool ready_ = false;
};

const std::string PROBE = std::string("exec </dev/null; ") + LACPD_PROBE;

std::string with_repository(const fs::path &path)
{
    return "export SYSREPO_REPOSITORY_PATH=" + (path / "repository").string() +
           " SYSREPO_SHM_DIR=" + (path / "shm").string() + "; ";
}

class ProcessTest : public DatastoreTest
{
};

TEST_F(ProcessTest, ConnectsToTheRepositoryOfTheEnvironment)
{
    const Outcome outcome = run(PROBE);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "ready\n");
}

TEST_F(ProcessTest, MissingRepositoryIsSaidAndNotMade)
{
    const fs::path nowhere = fs::path(sr_get_repo_path()).parent_path() / "nowhere";
    const Outcome outcome = run(with_repository(nowhere) + PROBE);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("there is no datastore in " + (nowhere / "repository").string()), std::string::npos)
        << outcome.output;
    EXPECT_FALSE(fs::exists(nowhere));
}

TEST_F(ProcessTest, MissingModulesAreSaid)
{
    const fs::path empty = fs::path(sr_get_repo_path()).parent_path() / "empty";
    fs::create_directories(empty / "repository");
    const Outcome outcome = run(with_repository(empty) + PROBE);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("YANG module olt-ifm is not in the datastore in"), std::string::npos)
        << outcome.output;
}

TEST_F(ProcessTest, OnlyOneProcessReceivesChanges)
{
    Probe first("subscribe");
    ASSERT_TRUE(first.ready());
    const Outcome second = run(PROBE + " subscribe");
    EXPECT_EQ(second.status, 2);
    EXPECT_NE(second.output.find("already serves the configuration of olt-lacp"), std::string::npos) << second.output;
    EXPECT_EQ(run(PROBE).status, 0) << "connecting alone is for everyone";
    first.kill_now();
    EXPECT_EQ(run(PROBE + " subscribe").status, 0) << "the lock went with the process";
}

TEST_F(ProcessTest, WritesGoThroughAfterASubscriberWasKilled)
{
    Probe subscriber("subscribe");
    ASSERT_TRUE(subscriber.ready());
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1), 0);
    subscriber.kill_now();
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "dst-mac", 8, 1), 0);
    EXPECT_EQ(load_balance_of(1), "dst-mac");
}

} // namespace
