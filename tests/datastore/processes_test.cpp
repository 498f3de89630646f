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

// A subscribed probe in a child, killed with the object.
class Probe
{
  public:
    Probe()
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
            execl(LACPD_PROBE, LACPD_PROBE, "connect", "subscribe", nullptr);
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

const std::string PROBE = std::string("exec </dev/null; ") + LACPD_PROBE + " ";
const std::string CONNECT = PROBE + "connect";

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
    const Outcome outcome = run(CONNECT);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "ready\n");
}

TEST_F(ProcessTest, MissingRepositoryIsSaidAndNotMade)
{
    const fs::path nowhere = fs::path(sr_get_repo_path()).parent_path() / "nowhere";
    const Outcome outcome = run(with_repository(nowhere) + CONNECT);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("there is no datastore in " + (nowhere / "repository").string()), std::string::npos)
        << outcome.output;
    EXPECT_FALSE(fs::exists(nowhere));
}

TEST_F(ProcessTest, MissingModulesAreSaid)
{
    const fs::path empty = fs::path(sr_get_repo_path()).parent_path() / "empty";
    fs::create_directories(empty / "repository");
    const Outcome outcome = run(with_repository(empty) + CONNECT);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("YANG module olt-ifm is not in the datastore in"), std::string::npos)
        << outcome.output;
}

TEST_F(ProcessTest, OnlyOneProcessReceivesChanges)
{
    Probe first;
    ASSERT_TRUE(first.ready());
    const Outcome second = run(CONNECT + " subscribe");
    EXPECT_EQ(second.status, 2);
    EXPECT_NE(second.output.find("already serves the configuration of olt-lacp"), std::string::npos) << second.output;
    EXPECT_EQ(run(CONNECT).status, 0) << "connecting alone is for everyone";
    first.kill_now();
    EXPECT_EQ(run(CONNECT + " subscribe").status, 0) << "the lock went with the process";
}

TEST_F(ProcessTest, WritesGoThroughAfterASubscriberWasKilled)
{
    Probe subscriber;
    ASSERT_TRUE(subscriber.ready());
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1), 0);
    subscriber.kill_now();
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "dst-mac", 8, 1), 0);
    EXPECT_EQ(load_balance_of(1), "dst-mac");
}

class AccessTest : public ProcessTest
{
  protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can become another user";
        }
        ProcessTest::SetUp();
    }
};

TEST_F(AccessTest, UserDaemonMayDoEverything)
{
    const Outcome outcome = run(PROBE + "become=daemon connect subscribe write");
    EXPECT_EQ(outcome.status, 0) << outcome.output;
}

TEST_F(AccessTest, ConnectionOutlivesTheDropToUserDaemon)
{
    const Outcome outcome = run(PROBE + "connect become=daemon subscribe write");
    EXPECT_EQ(outcome.status, 0) << outcome.output;
}

// Each leaves files behind that the next one has to replace.
TEST_F(AccessTest, RootAndDaemonWriteInTurn)
{
    for (int round = 0; round < 2; ++round) {
        const Outcome daemon = run(PROBE + "become=daemon connect subscribe write");
        EXPECT_EQ(daemon.status, 0) << daemon.output;
        const Outcome root = run(PROBE + "connect subscribe write");
        EXPECT_EQ(root.status, 0) << root.output;
    }
}

TEST_F(AccessTest, NobodyElseGetsIn)
{
    const Outcome outcome = run(PROBE + "become=nobody connect");
    EXPECT_EQ(outcome.status, 2);
    EXPECT_NE(outcome.output.find("cannot be opened (Permission denied)"), std::string::npos) << outcome.output;
}

class SetUpScriptTest : public ProcessTest
{
  protected:
    void SetUp() override
    {
        ProcessTest::SetUp();
        place_ = fs::path(sr_get_repo_path()).parent_path() / "scripted";
        fs::remove_all(place_);
        fs::create_directories(place_);
    }

    Outcome set_up(const fs::path &sources) const
    {
        return run(environment() + (sources / "scripts" / "datastore.sh").string());
    }
    std::string environment() const
    {
        return with_repository(place_) + "export SYSREPO_SHM_PREFIX=scripted SYSREPOCTL=" LACPD_SYSREPOCTL "; ";
    }
    std::string installed() const { return run(environment() + LACPD_SYSREPOCTL " -l | grep ^olt-").output; }

    fs::path place_;
};

const fs::path SOURCES = LACPD_SOURCES;

TEST_F(SetUpScriptTest, MakesARepositoryThatTheDaemonCanUse)
{
    const Outcome first = set_up(SOURCES);
    ASSERT_EQ(first.status, 0) << first.output;
    const std::string modules = installed();
    EXPECT_NE(modules.find("olt-ifm"), std::string::npos);
    EXPECT_NE(modules.find("olt-lacp"), std::string::npos);
    const Outcome used = run(environment() + CONNECT + " subscribe write");
    EXPECT_EQ(used.status, 0) << used.output;
    EXPECT_EQ(set_up(SOURCES).status, 0) << "again";
    EXPECT_EQ(installed(), modules);
}

TEST_F(SetUpScriptTest, ClosesADirectoryThatWasOpenToAll)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "owner and group are set for root only";
    }
    for (const char *name : {"repository", "shm"}) {
        fs::create_directories(place_ / name);
        fs::permissions(place_ / name, fs::perms::all);
    }
    ASSERT_EQ(set_up(SOURCES).status, 0);
    for (const char *name : {"repository", "shm"}) {
        EXPECT_EQ(run("stat -c '%U %G %a' " + (place_ / name).string()).output, "root daemon 770\n");
    }
    EXPECT_EQ(run("stat -c '%U %G %a' " + (place_ / "shm" / "scripted_olt-lacp.running").string()).output,
              "root daemon 660\n");
}

TEST_F(SetUpScriptTest, UpgradesAChangedRevision)
{
    ASSERT_EQ(set_up(SOURCES).status, 0);
    const fs::path newer = place_ / "newer";
    fs::create_directories(newer);
    fs::copy(SOURCES / "scripts", newer / "scripts", fs::copy_options::recursive);
    fs::copy(SOURCES / "yang", newer / "yang", fs::copy_options::recursive);
    ASSERT_EQ(
        run("sed -i '0,/revision [0-9-]*/s//revision 2999-12-31/' " + (newer / "yang/olt-lacp.yang").string()).status,
        0);
    const Outcome upgraded = set_up(newer);
    EXPECT_EQ(upgraded.status, 0) << upgraded.output;
    EXPECT_NE(installed().find("2999-12-31"), std::string::npos) << installed();
    const Outcome older = set_up(SOURCES);
    EXPECT_NE(older.status, 0) << "not back";
    EXPECT_NE(older.output.find("installed in a newer revision"), std::string::npos) << older.output;
}

TEST_F(SetUpScriptTest, SaysWhatIsWrong)
{
    const std::string script = (SOURCES / "scripts" / "datastore.sh").string();
    const Outcome unknown = run(script + " --fast");
    EXPECT_NE(unknown.status, 0);
    EXPECT_NE(unknown.output.find("unknown argument --fast"), std::string::npos) << unknown.output;
    const Outcome mixed = run("unset SYSREPO_SHM_DIR SYSREPO_SHM_PREFIX; SYSREPO_REPOSITORY_PATH=/tmp/x " + script);
    EXPECT_NE(mixed.status, 0);
    EXPECT_NE(mixed.output.find("would mix two datastores"), std::string::npos) << mixed.output;
    const Outcome no_tool = run(environment() + "SYSREPOCTL=/nowhere/sysrepoctl " + script);
    EXPECT_NE(no_tool.status, 0);
    EXPECT_NE(no_tool.output.find("run scripts/deps.sh first"), std::string::npos) << no_tool.output;
}

} // namespace
