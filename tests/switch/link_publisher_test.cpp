// The order of link-status writes, and the thread that makes them.
#include "link_publisher.h"

#include <gtest/gtest.h>
#include <sstream>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using olt::LinkQueue;

// ---- queue ----------------------------------------------------------------------------------------------------

// Plays a script of changes and writes on a queue. "1+" and "1-" are changes of a port's link; "w" is a write, "f" a
// failed one, "n" the start of one that "d" ends; "t" lets time pass until the next write is due.
class Play
{
  public:
    explicit Play(const std::string &script)
    {
        std::istringstream steps(script);
        for (std::string step; steps >> step;)
            take(step);
    }

    // What each "w", "f" and "n" got: "1+" or "1-", with "!" in front when the entry is to be made, "." for nothing.
    std::string writes;
    LinkQueue queue;
    LinkQueue::Clock::time_point now = LinkQueue::Clock::now();

  private:
    void take(const std::string &step)
    {
        if (step.size() == 2)
            queue.push(static_cast<std::uint32_t>(step[0] - '0'), step[1] == '+');
        else if (step == "d")
            queue.written(port_);
        else if (step == "t")
            now = queue.due().value();
        else if (next() && step == "w")
            queue.written(port_);
        else if (step == "f")
            queue.failed(port_, now);
    }
    bool next()
    {
        const auto write = queue.next(now);
        port_ = write ? write->port : 0;
        writes += writes.empty() ? "" : " ";
        writes += write ? (write->create ? "!" : "") + std::to_string(write->port) + (write->up ? "+" : "-") : ".";
        return write.has_value();
    }

    std::uint32_t port_ = 0;
};

std::string times(int count, const std::string &script)
{
    std::string text;
    while (count-- > 0)
        text += script;
    return text;
}

TEST(LinkQueueTest, Scripts)
{
    struct Row {
        const char *name;
        std::string script;
        const char *writes;
    };
    const Row rows[] = {
        {"the first write makes the entry", "1- w 1+ w w", "!1- 1+ ."},
        {"changes leave in their order", "1+ w 2+ w 2- 1- 2+ w w w w", "!1+ !2+ 2- 1- 2+ ."},
        {"what is published is not written again", "1+ w 1+ w", "!1+ ."},
        {"a flap is written as one however long it lasts", "1+ w " + times(100, "1- 1+ ") + "w w w", "!1+ 1- 1+ ."},
        {"flapping ends in the last state", "1+ w " + times(50, "1- 1+ ") + "1- w w", "!1+ 1- ."},
        {"a change during a write follows it", "1+ w 1- n " + times(3, "1+ 1- ") + "1+ d w w", "!1+ 1- 1+ ."},
        {"a failed write keeps nobody waiting, and the entry may be gone", "1+ w 2+ w 1- 2- f w w t w",
         "!1+ !2+ 1- 2- . !1-"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(Play(row.script).writes, row.writes) << row.name;
    EXPECT_EQ(Play("1- w 1+ w").queue.published(), (std::map<std::uint32_t, bool>{{1, true}}));
    EXPECT_FALSE(Play("1-").queue.all_tried());
    EXPECT_TRUE(Play("1- w").queue.all_tried());
    EXPECT_FALSE(Play("1- w").queue.due());
    EXPECT_TRUE(Play("1- f").queue.all_tried());
    EXPECT_TRUE(Play("1- f").queue.published().empty());
}

TEST(LinkQueueTest, PausesGrowUpToALimitAndStartAnewAfterASuccess)
{
    const std::pair<const char *, std::chrono::seconds> pauses[] = {{"1+ f", 1s},
                                                                    {"1+ f t f", 2s},
                                                                    {"1+ f t f t f", 4s},
                                                                    {"1+ f t f t f t f", 8s},
                                                                    {"1+ f t f t f t f t f", 8s},
                                                                    {"1+ f t f t w 1- f", 1s}};
    for (const auto &[script, pause] : pauses) {
        const Play play(script);
        EXPECT_EQ(play.queue.due().value() - play.now, pause) << script;
    }
}

TEST(LinkQueueTest, EndsRightForEveryShortHistory)
{
    constexpr unsigned LENGTH = 7;
    for (unsigned history = 0; history < 1u << LENGTH; ++history)
        for (unsigned write_at = 0; write_at <= LENGTH; ++write_at) {
            LinkQueue queue;
            const auto now = LinkQueue::Clock::now();
            bool last = true;
            queue.push(1, true);
            queue.next(now);
            queue.written(1);
            for (unsigned step = 0; step < LENGTH; ++step) {
                last = (history >> step & 1) != 0;
                const auto started = step == write_at ? queue.next(now) : std::nullopt;
                queue.push(1, last);
                if (started)
                    queue.written(1);
            }
            while (queue.next(now))
                queue.written(1);
            EXPECT_EQ(queue.published().at(1), last) << history << ' ' << write_at;
        }
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
