// The order of link-status writes, and the thread that makes them.
#include "link_publisher.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using olt::LinkQueue;
using olt::LinkWrite;

// ---- queue ----------------------------------------------------------------------------------------------------

class LinkQueueTest : public testing::Test
{
  protected:
    // "1+" or "1-", with "!" in front when the entry is to be made; "" when nothing is due.
    std::string next()
    {
        const auto write = queue_.next(now_);
        if (!write)
            return "";
        port_ = write->port;
        return (write->create ? "!" : "") + std::to_string(write->port) + (write->up ? "+" : "-");
    }
    std::string write()
    {
        const std::string text = next();
        if (!text.empty())
            queue_.written(port_);
        return text;
    }
    std::string fail()
    {
        const std::string text = next();
        if (!text.empty())
            queue_.failed(port_, now_);
        return text;
    }
    // A queue on which ports 1 and 2 are published as up.
    void publish_two()
    {
        for (const std::uint32_t port : {1, 2}) {
            queue_.push(port, true);
            write();
        }
    }

    LinkQueue queue_;
    std::uint32_t port_ = 0;
    LinkQueue::Clock::time_point now_ = LinkQueue::Clock::now();
};

TEST_F(LinkQueueTest, TheFirstWriteMakesTheEntry)
{
    queue_.push(1, false);
    EXPECT_FALSE(queue_.all_tried());
    EXPECT_EQ(write(), "!1-");
    EXPECT_TRUE(queue_.all_tried());
    queue_.push(1, true);
    EXPECT_EQ(write(), "1+");
    EXPECT_EQ(write(), "");
    EXPECT_EQ(queue_.published(), (std::map<std::uint32_t, bool>{{1, true}}));
}

TEST_F(LinkQueueTest, ChangesLeaveInTheirOrder)
{
    publish_two();
    queue_.push(2, false);
    queue_.push(1, false);
    queue_.push(2, true);
    EXPECT_EQ(write(), "2-");
    EXPECT_EQ(write(), "1-");
    EXPECT_EQ(write(), "2+");
    EXPECT_EQ(write(), "");
}

TEST_F(LinkQueueTest, WhatIsPublishedIsNotWrittenAgain)
{
    publish_two();
    queue_.push(1, true);
    EXPECT_EQ(write(), "");
}

TEST_F(LinkQueueTest, AFlapIsWrittenAsOneHoweverLongItLasts)
{
    publish_two();
    for (int flap = 0; flap < 100; ++flap) {
        queue_.push(1, false);
        queue_.push(1, true);
    }
    EXPECT_EQ(write(), "1-");
    EXPECT_EQ(write(), "1+");
    EXPECT_EQ(write(), "");
}

TEST_F(LinkQueueTest, FlappingEndsInTheLastState)
{
    publish_two();
    for (int change = 0; change < 101; ++change)
        queue_.push(1, change % 2 != 0);
    EXPECT_EQ(write(), "1-");
    EXPECT_EQ(write(), "");
    EXPECT_EQ(queue_.published().at(1), false);
}

TEST_F(LinkQueueTest, AChangeDuringAWriteFollowsIt)
{
    publish_two();
    queue_.push(1, false);
    ASSERT_EQ(next(), "1-");
    for (int flap = 0; flap < 3; ++flap) {
        queue_.push(1, true);
        queue_.push(1, false);
    }
    queue_.push(1, true);
    queue_.written(1);
    EXPECT_EQ(write(), "1+");
    EXPECT_EQ(write(), "");
}

TEST_F(LinkQueueTest, EndsRightForEveryShortHistory)
{
    constexpr unsigned LENGTH = 7;
    for (unsigned history = 0; history < 1u << LENGTH; ++history)
        for (unsigned write_at = 0; write_at <= LENGTH; ++write_at) {
            LinkQueue queue;
            bool last = true;
            queue.push(1, true);
            queue.next(now_);
            queue.written(1);
            for (unsigned step = 0; step < LENGTH; ++step) {
                last = (history >> step & 1) != 0;
                const auto started = step == write_at ? queue.next(now_) : std::nullopt;
                queue.push(1, last);
                if (started)
                    queue.written(1);
            }
            while (queue.next(now_))
                queue.written(1);
            EXPECT_EQ(queue.published().at(1), last) << history << ' ' << write_at;
        }
}

TEST_F(LinkQueueTest, AFailedWriteIsDueAgainAndKeepsNobodyWaiting)
{
    publish_two();
    queue_.push(1, false);
    queue_.push(2, false);
    EXPECT_EQ(fail(), "1-");
    EXPECT_EQ(write(), "2-");
    EXPECT_EQ(write(), "");
    ASSERT_TRUE(queue_.due());
    EXPECT_EQ(*queue_.due(), now_ + LinkQueue::FIRST_PAUSE);
    now_ = *queue_.due();
    EXPECT_EQ(write(), "!1-") << "the entry may be gone";
    EXPECT_FALSE(queue_.due());
}

TEST_F(LinkQueueTest, PausesGrowUpToALimitAndStartAnewAfterASuccess)
{
    queue_.push(1, true);
    for (const auto pause : {1s, 2s, 4s, 8s, 8s}) {
        EXPECT_EQ(fail(), "!1+");
        EXPECT_EQ(*queue_.due() - now_, pause);
        now_ = *queue_.due();
    }
    EXPECT_EQ(write(), "!1+");
    queue_.push(1, false);
    EXPECT_EQ(fail(), "1-");
    EXPECT_EQ(*queue_.due() - now_, 1s);
}

TEST_F(LinkQueueTest, AFailedPortIsTriedAndNotPublished)
{
    queue_.push(1, true);
    fail();
    EXPECT_TRUE(queue_.all_tried());
    EXPECT_TRUE(queue_.published().empty());
}

// ---- thread ---------------------------------------------------------------------------------------------------

class SlowStore : public olt::LinkStore
{
  public:
    bool create(std::uint32_t port, bool up) override { return write('!', port, up); }
    bool set(std::uint32_t port, bool up) override { return write(' ', port, up); }

    std::vector<std::string> writes() const
    {
        const std::lock_guard guard(lock_);
        return writes_;
    }
    void refuse(int times) { refusals_ = times; }

  private:
    bool write(char kind, std::uint32_t port, bool up)
    {
        std::this_thread::sleep_for(5ms);
        const std::lock_guard guard(lock_);
        writes_.push_back(kind + std::to_string(port) + (up ? "+" : "-"));
        return refusals_-- <= 0;
    }

    mutable std::mutex lock_;
    std::vector<std::string> writes_;
    std::atomic<int> refusals_ = 0;
};

class LinkPublisherTest : public testing::Test
{
  protected:
    void start(const std::map<std::uint32_t, bool> &links)
    {
        publisher_.emplace(loop_, store_, links, [this] {
            before_ready_ = store_.writes();
            loop_.stop();
        });
        loop_.run();
    }
    std::vector<std::string> await_writes(std::size_t count)
    {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (store_.writes().size() < count && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        return store_.writes();
    }

    olt::EventLoop loop_;
    SlowStore store_;
    std::vector<std::string> before_ready_;
    std::optional<olt::LinkPublisher> publisher_;
};

using Writes = std::vector<std::string>;

TEST_F(LinkPublisherTest, MakesEveryEntryBeforeItIsReady)
{
    start({{1, true}, {2, false}, {3, true}});
    EXPECT_EQ(before_ready_, (Writes{"!1+", "!2-", "!3+"}));
    EXPECT_EQ(publisher_->published(), (std::map<std::uint32_t, bool>{{1, true}, {2, false}, {3, true}}));
}

TEST_F(LinkPublisherTest, WritesChangesOneByOne)
{
    start({{1, true}, {2, true}});
    for (const auto &[port, up] : {std::pair(1, false), std::pair(2, false), std::pair(1, true)})
        publisher_->publish(static_cast<std::uint32_t>(port), up);
    EXPECT_EQ(await_writes(5), (Writes{"!1+", "!2+", " 1-", " 2-", " 1+"}));
}

TEST_F(LinkPublisherTest, IsReadyAndTriesAgainWhenAnEntryIsRefused)
{
    store_.refuse(1);
    start({{1, true}, {2, true}});
    EXPECT_EQ(before_ready_, (Writes{"!1+", "!2+"}));
    EXPECT_EQ(await_writes(3).back(), "!1+");
    EXPECT_EQ(publisher_->counters().failed, 1u);
}

TEST_F(LinkPublisherTest, EndsWhileWritesWait)
{
    store_.refuse(1000);
    start({{1, true}});
    for (int flap = 0; flap < 10; ++flap)
        publisher_->publish(1, flap % 2 != 0);
    const auto begin = std::chrono::steady_clock::now();
    publisher_.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 900ms) << "not after the next pause";
}

} // namespace
