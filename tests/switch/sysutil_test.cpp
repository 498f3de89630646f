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

TEST(Inventory, TakesARangeOfPortsOneToEight)
{
    struct Range {
        std::uint32_t first, last;
        int result;
    };
    for (const auto &[first, last, result] :
         {Range{1, 1, 0}, Range{1, 8, 0}, Range{3, 5, 0}, Range{8, 8, 0}, Range{0, 0, -9}, Range{0, 8, -9},
          Range{1, 0, -9}, Range{1, 9, -9}, Range{5, 4, -9}, Range{9, 9, -9}, Range{1, 0xFFFFFFFF, -9}}) {
        const DevPortInfo info{0, first, last, last - first + 1};
        PortInventory inventory{3, 4};
        EXPECT_EQ(port_init(&info, &inventory), result) << first << ' ' << last;
        EXPECT_EQ(inventory.first_uplink_port, result == 0 ? first : 0);
        EXPECT_EQ(inventory.last_uplink_port, result == 0 ? last : 0);
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

TEST(NamedThread, HasItsNameItsArgumentAndNoSignals)
{
    Seen ignored;
    Seen seen[2];
    SystemThread *thread = system_pthread_create("port recv pkt thread", "port recv pkt", look, 0, &seen[0]);
    ASSERT_EQ(system_pthread_run(thread, 0, nullptr), 0);
    thread = system_pthread_create("x", "a-name-of-many-characters", look, 0, &ignored);
    ASSERT_EQ(system_pthread_run(thread, 0, &seen[1]), 0) << "with an argument of its own";
    for (Seen &each : seen) {
        await(each);
        EXPECT_EQ(each.argument, &each);
        for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1})
            EXPECT_EQ(sigismember(&each.mask, number), 1) << number;
        EXPECT_EQ(sigismember(&each.mask, SIGSEGV), 0) << "a fault is the thread's own";
    }
    EXPECT_STREQ(seen[0].name.data(), "port recv pkt");
    EXPECT_STREQ(seen[1].name.data(), "a-name-of-many-") << "cut";
    EXPECT_EQ(ignored.argument, nullptr);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the caller's mask is as before";

    EXPECT_EQ(system_pthread_create("x", "x", look, 1, nullptr), nullptr) << "unknown flags";
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

TEST_F(RestoreTest, NeedsTheNamedFileButNoDefaultOne)
{
    EXPECT_EQ(restore(file_.c_str()), -1);
    EXPECT_NE(said_.find(file_), std::string::npos);
    EXPECT_NE(said_.find("No such file"), std::string::npos);
    snprintf(config_default, sizeof(config_default), "%s", file_.c_str());
    EXPECT_EQ(restore(nullptr), 0);
    EXPECT_EQ(said_, "");
    std::ofstream(file_) << "hostname x\n";
    EXPECT_EQ(restore(file_.c_str()), 0);
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
