// The dispatcher on a thread of its own, while the other threads of the daemon do what they do there: made for
// ThreadSanitizer. Configuration comes from the datastore's event thread, frames from the packet thread, ticks from
// the timer's; the event loop sends the trunks again, and a shell reads every published field.
#include "engine.h"

#include <atomic>
#include <future>
#include <thread>

namespace
{

constexpr unsigned ROUNDS = 120;
constexpr std::uint32_t STEADY_PORT = 4; // stays in its group

// Does what others hand it on a thread of its own, one thing at a time, while they wait: as the datastore does with
// its handlers.
int on_event_thread(const std::function<int()> &work)
{
    static std::mutex one;
    const std::lock_guard guard(one);
    return std::async(std::launch::async, work).get();
}

// Never destroyed: its dispatcher, with what follows from the last message, goes on until the process ends.
class Threads : public Engine
{
  public:
    // What an operator and the switch change in one round, on the event thread.
    static void configure_round(unsigned round)
    {
        const std::uint32_t port_no = 1 + round % 3;
        const std::string port = "p" + std::to_string(port_no);
        const bool odd = (round / 3) % 2 == 1;
        configure("+" + port + "/mode=" + (odd ? "passive" : "active"));
        configure("+" + port + "/timeout=" + (odd ? "short" : "long"));
        configure("+" + port + "/priority=" + std::to_string(32768 - round));
        configure(port + "/link-status=" + (odd ? "up>down" : "down>up"));
        set_channel_group_load_balance(1, odd ? LOAD_BALANCE_SRC_IP : LOAD_BALANCE_DST_IP);
        if (round % 10 == 9) {
            join(port_no, 0);
            join(port_no, 1);
        }
        configure("+sys/system-priority=" + std::to_string(round));
        configure(std::string("+sys/system-id=") + (odd ? "0211.22aa.bbcc" : "0211.22aa.bbdd"));
        set_channel_group_add_port(2, 0, 7); // a manual group beside it
        set_channel_group_del_port(2, 0, 7);
        update_lacp_select_port(static_cast<int>(port_no), 1);
    }

    // The far ends: they answer every LACPDU.
    void answer()
    {
        for (const SentFrame &frame : wire.take())
            if (frame.pdu()[0] == LAC_SUBTYPE_LACP)
                hear(tagged_frame(frame.port(),
                                  pdu_bytes(peer(static_cast<std::uint16_t>(frame.port())), frame.actor())));
    }

    // A round comes when the dispatcher has got on; else nearly everything would be refused.
    static void await_room()
    {
        while (Lac_Queue.count() > 32)
            std::this_thread::yield();
    }
};

TEST(Threads, EveryThreadAtOnce)
{
    static Threads &engine = *new Threads;
    for (std::uint32_t number = 1; number <= STEADY_PORT; ++number)
        engine.running_port(number);

    sem_wait(&lac_task_sem); // the dispatcher opens it
    fake::start_thread("lacpRecv");
    std::atomic<bool> settled = false, silent = false;
    const auto handler = fake::datastore().member_changed;
    fake::datastore().member_changed = [handler](const std::string &change) {
        return on_event_thread([&] { return handler(change); });
    };
    std::thread timer([] {
        LacTickCounts counts{};
        for (unsigned round = 0; round < 4 * ROUNDS; ++round) {
            while (Lac_Queue.hasTick()) // another one would not be sent
                std::this_thread::yield();
            engine.await_room();
            lacSendTick(counts);
        }
    });
    std::thread packets([&] {
        while (!silent)
            engine.answer();
    });
    std::thread operators([] {
        for (unsigned round = 0; round < ROUNDS; ++round) {
            engine.await_room();
            on_event_thread([round] { return engine.configure_round(round), 0; });
        }
    });
    std::thread event_loop([] {
        for (unsigned round = 0; round < ROUNDS; ++round)
            lacp_trunk_resync(lacp_sclient);
    });
    std::thread shell([&] {
        while (!settled)
            EXPECT_EQ(state(true).at("sys.state"), 1U); // reads everything that is published
    });
    for (std::thread *thread : {&timer, &operators, &event_loop})
        thread->join();
    silent = true;
    packets.join();
    engine.send(3); // nothing comes of it: once it is taken, everything before it is done
    while (Lac_Queue.count() != 0)
        std::this_thread::yield();
    settled = true;
    shell.join();
    // From here on the dispatcher waits for a message that never comes.

    EXPECT_EQ(MTYPE_LACP_PDU.allocated(), 0U);
    EXPECT_EQ(fake::datastore().iterators, 0);
    EXPECT_GT(engine.port(STEADY_PORT).stats->rx_lacpdu, 0U);
    EXPECT_GT(engine.port(STEADY_PORT).stats->tx_lacpdu, 0U);

    // Whoever sent last, the switch has the trunk of the table, and the table the members of the datastore.
    EXPECT_EQ(engine.trunk(1), state(true)["g1.up"]);
    EXPECT_EQ(fake::members(1), state(true)["g1.list"]);
}

} // namespace
