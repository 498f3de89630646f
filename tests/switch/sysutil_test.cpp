#include "temporary_directory.h"

#include "frr/frr.hpp"
#include "sysutil/sysutil.h"

#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace
{

struct Range {
    std::uint32_t first;
    std::uint32_t last;
};

class InventoryTest : public testing::TestWithParam<Range>
{
};

TEST_P(InventoryTest, RefusesARangeThatIsNone)
{
    const DevPortInfo info{0, GetParam().first, GetParam().last, 0};
    PortInventory inventory{3, 4};
    EXPECT_EQ(port_init(&info, &inventory), -9);
    EXPECT_EQ(inventory.first_uplink_port, 0u);
    EXPECT_EQ(inventory.last_uplink_port, 0u);
}

INSTANTIATE_TEST_SUITE_P(Ranges, InventoryTest,
                         testing::Values(Range{0, 0}, Range{0, 8}, Range{1, 0}, Range{1, 9}, Range{5, 4}, Range{9, 9},
                                         Range{1, 0xFFFFFFFF}));

TEST(Inventory, TakesARange)
{
    for (const Range range : {Range{1, 1}, Range{1, 8}, Range{3, 5}, Range{8, 8}}) {
        const DevPortInfo info{0, range.first, range.last, range.last - range.first + 1};
        PortInventory inventory{};
        EXPECT_EQ(port_init(&info, &inventory), 0);
        EXPECT_EQ(inventory.first_uplink_port, range.first);
        EXPECT_EQ(inventory.last_uplink_port, range.last);
    }
}

TEST(InterfaceAddress, IsReadByName)
{
    std::array<std::uint8_t, 6> mac;
    mac.fill(0xEE);
    EXPECT_EQ(system_get_eth_mac("lo", mac.data()), 0);
    EXPECT_EQ(mac, (std::array<std::uint8_t, 6>{}));
    mac.fill(0xEE);
    EXPECT_EQ(system_get_eth_mac("no-such-if", mac.data()), -1);
    EXPECT_EQ(mac[0], 0xEE);
}

struct Seen {
    std::atomic<bool> done = false; // the thread's last touch
    std::array<char, 16> name{};
    sigset_t mask{};
    void *argument = nullptr;
};

void await(const Seen &seen)
{
    while (!seen.done)
        std::this_thread::yield();
}

void *look(SystemThread *thread)
{
    auto *seen = static_cast<Seen *>(system_pthread_argument(thread));
    pthread_getname_np(pthread_self(), seen->name.data(), seen->name.size());
    pthread_sigmask(SIG_SETMASK, nullptr, &seen->mask);
    seen->argument = seen;
    seen->done = true;
    return nullptr;
}

TEST(NamedThread, RunsWithItsNameAndArgument)
{
    Seen seen;
    SystemThread *thread = system_pthread_create("port recv pkt thread", "port recv pkt", look, 0, &seen);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(system_pthread_run(thread, 0, nullptr), 0);
    await(seen);
    EXPECT_STREQ(seen.name.data(), "port recv pkt");
    EXPECT_EQ(seen.argument, &seen);
}

TEST(NamedThread, TakesTheArgumentOfItsStartAndCutsALongName)
{
    Seen ignored;
    Seen seen;
    SystemThread *thread = system_pthread_create("x", "a-name-of-many-characters", look, 0, &ignored);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(system_pthread_run(thread, 0, &seen), 0);
    await(seen);
    EXPECT_STREQ(seen.name.data(), "a-name-of-many-");
    EXPECT_EQ(ignored.argument, nullptr);
}

TEST(NamedThread, LeavesSignalsToTheThreadThatStartedIt)
{
    Seen seen;
    ASSERT_EQ(system_pthread_run(system_pthread_create("x", "x", look, 0, &seen), 0, nullptr), 0);
    await(seen);
    for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1})
        EXPECT_EQ(sigismember(&seen.mask, number), 1) << number;
    EXPECT_EQ(sigismember(&seen.mask, SIGSEGV), 0) << "a fault is the thread's own";
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the caller's mask is as before";
}

TEST(NamedThread, RefusesUnknownFlags)
{
    EXPECT_EQ(system_pthread_create("x", "x", look, 1, nullptr), nullptr);
    Seen seen;
    SystemThread *thread = system_pthread_create("x", "x", look, 0, &seen);
    EXPECT_EQ(system_pthread_run(thread, 1, nullptr), EINVAL);
    EXPECT_EQ(system_pthread_run(nullptr, 0, nullptr), EINVAL);
}

class RestoreTest : public testing::Test
{
  protected:
    int restore(const char *file)
    {
        frr_daemon_info daemon{};
        daemon.name = "lacpd";
        daemon.config_file = file;
        testing::internal::CaptureStderr();
        const int result = daemon_restart_restore_config(&daemon);
        said_ = testing::internal::GetCapturedStderr();
        return result;
    }

    TemporaryDirectory directory_;
    std::string file_ = directory_ / "lacpd.conf";
    std::string said_;
};

TEST_F(RestoreTest, IsContentWithAReadableFile)
{
    std::ofstream(file_) << "hostname x\n";
    EXPECT_EQ(restore(file_.c_str()), 0);
    EXPECT_EQ(said_, "");
}

TEST_F(RestoreTest, NamesAFileThatIsNotThere)
{
    EXPECT_EQ(restore(file_.c_str()), -1);
    EXPECT_NE(said_.find(file_), std::string::npos);
    EXPECT_NE(said_.find("No such file"), std::string::npos);
}

TEST_F(RestoreTest, NeedsNoDefaultFile)
{
    snprintf(config_default, sizeof(config_default), "%s", file_.c_str());
    EXPECT_EQ(restore(nullptr), 0);
    EXPECT_EQ(said_, "");
}

TEST_F(RestoreTest, LooksWithTheRightsOfTheDaemon)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become somebody else";
    std::ofstream(file_) << "hostname x\n";
    chmod(file_.c_str(), 0600);
    ASSERT_EQ(seteuid(1), 0);
    const int result = restore(file_.c_str());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(result, -1);
    EXPECT_NE(said_.find("Permission denied"), std::string::npos);
}

} // namespace
