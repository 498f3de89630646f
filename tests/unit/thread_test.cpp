// The dispatcher on a thread of its own, while the other threads of the daemon do what they do there: made for
// ThreadSanitizer. Configuration comes from the datastore's event thread, frames from the packet thread, ticks from
// the timer's; the event loop sends the trunks again, and a shell reads every published field.
#include "engine.h"

#include "lacp_sclient.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <sys/socket.h>
#include <thread>

namespace
{

constexpr unsigned ROUNDS = 120;
constexpr std::uint32_t STEADY_PORT = 4; // stays in its group
constexpr char LAST[] = "last";          // a marker's transaction

// Does what others hand it, one thing at a time, while they wait: as the datastore does with its handlers.
class EventThread
{
  public:
    EventThread() : thread_([this] { run(); }) {}
    ~EventThread()
    {
        call([this] {
            ended_ = true;
            return 0;
        });
        thread_.join();
    }

    int call(std::function<int()> work)
    {
        std::packaged_task<int()> task(std::move(work));
        std::future<int> result = task.get_future();
        {
            const std::lock_guard guard(lock_);
            tasks_.push_back(std::move(task));
        }
        changed_.notify_one();
        return result.get();
    }

  private:
    void run()
    {
        while (!ended_) {
            std::unique_lock guard(lock_);
            changed_.wait(guard, [this] { return !tasks_.empty(); });
            std::packaged_task<int()> task = std::move(tasks_.front());
            tasks_.pop_front();
            guard.unlock();
            task();
        }
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::packaged_task<int()>> tasks_;
    bool ended_ = false; // the event thread's own
    std::thread thread_;
};

class ThreadTest : public EngineTest
{
  protected:
    static int change_trunk(std::uint32_t port_no, const char *leaf,
                            const std::function<fake::Value(std::string)> &value)
    {
        const std::string path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" +
                                 std::to_string(port_no) + "']/olt-lacp:trunk/" + leaf;
        return fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, {fake::created(value(path))}).result;
    }
    static void set_group(std::uint32_t port_no, std::uint8_t from, std::uint8_t to)
    {
        const std::string path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" +
                                 std::to_string(port_no) + "']/olt-lacp:trunk/channel-group";
        fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE,
                      {fake::modified(fake::number8(path, from), fake::number8(path, to))});
        const std::lock_guard guard(fake::datastore().lock);
        fake::datastore().channel_group[port_no] = to;
    }
    static void flip_link(std::uint32_t port_no, bool up)
    {
        const std::string path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" +
                                 std::to_string(port_no) + "']/interface-basic/link-status";
        {
            const std::lock_guard guard(fake::datastore().lock);
            fake::datastore().link_status[port_no] = up ? "up" : "down";
        }
        fake::deliver(lacp_port_uplink_change_cb, SR_EV_DONE,
                      {fake::modified(fake::name(path, up ? "down" : "up"), fake::name(path, up ? "up" : "down"))});
    }

    // What an operator and the switch change in one round, on the event thread.
    static void configure(unsigned round)
    {
        const std::uint32_t port_no = 1 + round % 3;
        const bool odd = (round / 3) % 2 == 1;
        change_trunk(port_no, "mode", [&](auto path) { return fake::name(path, odd ? "passive" : "active"); });
        change_trunk(port_no, "timeout", [&](auto path) { return fake::name(path, odd ? "short" : "long"); });
        change_trunk(port_no, "priority",
                     [&](auto path) { return fake::number16(path, static_cast<std::uint16_t>(32768 - round)); });
        flip_link(port_no, !odd);
        set_channel_group_load_balance(1, odd ? LOAD_BALANCE_SRC_IP : LOAD_BALANCE_DST_IP);
        if (round % 10 == 9) {
            set_group(port_no, 1, 0);
            set_group(port_no, 0, 1);
        }
        fake::deliver(lacp_global_configuration_cb, SR_EV_CHANGE,
                      {fake::created(fake::number16("/olt-lacp:global-configuration/system-priority",
                                                    static_cast<std::uint16_t>(round))),
                       fake::created(fake::text("/olt-lacp:global-configuration/system-id",
                                                odd ? "0211.22aa.bbcc" : "0211.22aa.bbdd"))});
        set_channel_group_add_port(2, 0, 7); // a manual group beside it
        set_channel_group_del_port(2, 0, 7);
        update_lacp_select_port(static_cast<int>(port_no), 1);
    }

    // The far ends: they answer every LACPDU, until the marker that ends the test comes back.
    void answer_until_the_end() const
    {
        Bytes buffer(LACP_RX_BUFFER_SIZE);
        for (;;) {
            const ssize_t length = recv(wire.far_end(), buffer.data(), buffer.size(), 0);
            ASSERT_EQ(length, 136);
            const SentFrame frame{Bytes(buffer.begin(), buffer.begin() + length)};
            const Bytes pdu = frame.pdu();
            if (pdu[0] == LAC_SUBTYPE_MARKER && std::equal(LAST, LAST + 4, pdu.begin() + 12))
                return;
            if (pdu[0] == LAC_SUBTYPE_LACP)
                hand_in(frame.port(), pdu_bytes(peer(static_cast<std::uint16_t>(frame.port())), frame.actor()));
        }
    }
    static void hand_in(std::uint32_t port_no, const Bytes &pdu)
    {
        Bytes frame = tagged_frame(port_no, pdu);
        const auto length = static_cast<int>(frame.size());
        frame.resize(LACP_RX_BUFFER_SIZE);
        lacp_pkt_take(frame.data(), length, lacp_bpdu_recv);
    }
    // Ends the far ends when its answer is heard there.
    static void send_last_marker()
    {
        Bytes frame = tagged_frame(STEADY_PORT, hex("02 01 01 10 0000 000000000000"));
        frame.erase(frame.begin() + 12, frame.begin() + 24);
        frame.insert(frame.end(), LAST, LAST + 4);
        while (lacp_bpdu_deal(STEADY_PORT, 0, frame.data(), static_cast<int>(frame.size())) != 0)
            std::this_thread::yield();
    }

    // A round comes when the dispatcher has got on; else nearly everything would be refused.
    static void await_room()
    {
        while (Lac_Queue.count() > 32)
            std::this_thread::yield();
    }

    static std::uint64_t read_everything()
    {
        std::uint64_t sum = lacSystem->system_state + lacSystem->last_change_ms + lacSystem->system_mac.get()[5] +
                            lacpCtrl.system_priority + get_lac_global_enable();
        for (const LacPort *record : lac_ports())
            sum += snapshot(*record).size() + record->stats->last_rx_ms + record->aggregator_mac.get()[5] +
                   record->aggregator_partner_system.get()[5] + record->actor_admin_system.get()[5] +
                   record->next_lag_port->port_no + record->aggregator_id +
                   record->aggregator_partner_system_priority;
        for (const LacPortCfg &cfg : lacPortCfg)
            sum += cfg.key + cfg.port_priority + cfg.timeout + cfg.passive;
        for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
            std::uint32_t value = 0;
            for (const auto getter :
                 {get_channel_group_type, get_channel_group_used, get_channel_group_load_balance,
                  get_channel_group_port_list, get_channel_group_port_count, get_channel_group_agg_no,
                  get_channel_group_uplink_port_list, get_channel_group_uplink_port_count}) {
                getter(group, &value);
                sum += value;
            }
        }
        return sum;
    }
};

TEST_F(ThreadTest, EveryThreadAtOnce)
{
    for (std::uint32_t number = 1; number <= STEADY_PORT; ++number)
        running_port(number);

    sem_wait(&lac_task_sem); // the dispatcher opens it
    fake::start_thread("lacpRecv");
    std::atomic<bool> settled = false;
    {
        EventThread events;
        const auto inline_handler = fake::datastore().member_changed;
        fake::datastore().member_changed = [&](fake::MemberChange change, int group, const std::string &name) {
            return events.call([&] { return inline_handler(change, group, name); });
        };

        std::thread timer([] {
            std::uint32_t failures = 0;
            for (unsigned round = 0; round < 4 * ROUNDS; ++round) {
                while (Lac_Queue.hasTick()) // another one would not be sent
                    std::this_thread::yield();
                await_room();
                lacSendTick(failures);
            }
        });
        std::thread packets([this] { answer_until_the_end(); });
        std::thread operators([&] {
            for (unsigned round = 0; round < ROUNDS; ++round) {
                await_room();
                events.call([round] {
                    configure(round);
                    return 0;
                });
            }
        });
        std::thread event_loop([] {
            for (unsigned round = 0; round < ROUNDS; ++round)
                lacp_trunk_resync(lacp_sclient);
        });
        std::thread shell([&] {
            std::uint64_t sum = 0;
            while (!settled)
                sum += read_everything();
            EXPECT_NE(sum, 0U);
        });
        for (std::thread *thread : {&timer, &operators, &event_loop})
            thread->join();
        send_last_marker();
        packets.join();
        send(3); // nothing comes of it: once it is taken, everything before it is done
        while (Lac_Queue.count() != 0)
            std::this_thread::yield();
        settled = true;
        shell.join();
    }
    // From here on the dispatcher waits for a message that never comes.

    EXPECT_EQ(queued_pdus(), 0U);
    EXPECT_EQ(fake::open_iterators(), 0);
    EXPECT_GT(port(STEADY_PORT).stats->rx_lacpdu, 0U);
    EXPECT_GT(port(STEADY_PORT).stats->tx_lacpdu, 0U);

    // Whoever sent last, the switch has the trunk of the table.
    std::uint32_t uplinks = 0;
    get_channel_group_uplink_port_list(1, &uplinks);
    std::uint32_t trunk = 0;
    for (const fake::Message &message : fake::take_messages())
        if (message[11] == 1 && message[7] != SCLIENT_MSG_TRUNK_PSC_SET)
            trunk = message[7] == SCLIENT_MSG_TRUNK_CREATE ? message[19] : 0;
    EXPECT_EQ(trunk, uplinks);

    // And the table has the members of the datastore.
    std::set<std::string> members;
    std::uint32_t list = 0;
    get_channel_group_port_list(1, &list);
    for (std::uint32_t number = 1; number <= STEADY_PORT; ++number)
        if ((list & 1U << (number - 1)) != 0)
            members.insert("gigabitethernet 0/" + std::to_string(number));
    EXPECT_EQ(fake::datastore().members[1], members);
}

} // namespace
