// Which texts each bit of the trace word turns on.
//
// A case is run on a new engine for every single bit. Its record lists the whole text of every bit that has one,
// without the messages that are printed whatever the word holds; a bit that is not listed must print nothing. So a
// gate that is missing, doubled or swapped shows.
#include "terminal.h"

#include "engine.h"

#include <map>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

// An engine of two ports that can be built as often as wanted.
class Engine : public EngineTest
{
  public:
    Engine() : EngineTest(1, 2) {}
    void TestBody() override {}

    using EngineTest::change_link;
    using EngineTest::create_group;
    using EngineTest::current_port;
    using EngineTest::dispatch;
    using EngineTest::join;
    using EngineTest::peer;
    using EngineTest::port;
    using EngineTest::receive;
    using EngineTest::running_port;
    using EngineTest::send;
    using EngineTest::set_link;
    using EngineTest::switch_on;
    using EngineTest::tick;

    void post(std::uint64_t code, std::uint32_t port_no, std::uint64_t payload = 0)
    {
        send(code, port_no, payload);
        dispatch();
    }
    // A partner in step with the port: what it says of us is what we are.
    static Bytes agreeing(const LacPort &record, std::uint8_t bits = LAC_SYNCHRONIZATION)
    {
        LacInfo partner = peer(record.port_no);
        partner.state = LAC_ACTIVITY | LAC_AGGREGATION | bits;
        return pdu_bytes(partner, lac_actor_info(&record));
    }
};

using Step = void (*)(Engine &engine);

struct Case {
    const char *name;
    Step arrange;
    Step act;
};

void nothing(Engine &) {}

void port_1_running(Engine &engine)
{
    engine.running_port(1);
}

void port_1_current(Engine &engine)
{
    engine.current_port(1);
}

// Both ports collect and distribute behind port 1.
void both_in_step(Engine &engine)
{
    engine.current_port(1);
    engine.current_port(2);
    for (int round = 0; round < 10; ++round) {
        for (const std::uint32_t number : {1, 2})
            engine.receive(number, Engine::agreeing(engine.port(number)));
        engine.tick();
    }
    ASSERT_EQ(engine.port(2).muxm, LAC_MUX_COLLECTING_DISTRIBUTING);
    ASSERT_EQ(engine.port(2).aggregator->port_no, 1);
}

void receive_marker(Engine &engine, std::uint8_t tlv)
{
    Bytes marker(LAC_PDU_SIZE);
    marker[0] = LAC_SUBTYPE_MARKER;
    marker[1] = 1;
    marker[2] = tlv;
    engine.receive(1, marker);
}

const Case CASES[] = {
    {"switch-on", [](Engine &) { lacpDrvCtrlInit(); }, [](Engine &engine) { engine.post(LAC_Q_LACP_ON, 0); }},
    {"switch-off", both_in_step, [](Engine &engine) { engine.post(LAC_Q_LACP_OFF, 0); }},
    {"link-up",
     [](Engine &engine) { engine.running_port(1), engine.change_link(1, false), engine.set_link(1, true); },
     [](Engine &engine) { engine.post(LAC_Q_LINK_UP, 1); }},
    {"link-down", [](Engine &engine) { both_in_step(engine), engine.set_link(2, false); },
     [](Engine &engine) { engine.post(LAC_Q_LINK_DOWN, 2); }},
    {"port-enable", [](Engine &engine) { engine.switch_on(), engine.set_link(1, true); },
     [](Engine &engine) { engine.post(LAC_Q_PORT_ENABLE, 1); }},
    {"port-disable", port_1_current, [](Engine &engine) { engine.post(LAC_Q_PORT_STATE, 1, 0); }},
    {"events-while-off", nothing,
     [](Engine &engine) {
         for (const std::uint64_t code : {LAC_Q_LINK_UP, LAC_Q_LINK_DOWN, LAC_Q_PORT_ENABLE, LAC_Q_TICK})
             engine.post(code, 1);
     }},

    {"first-lacpdu", port_1_running,
     [](Engine &engine) { engine.receive(1, pdu_bytes(Engine::peer(1), LacInfo{})); }},
    {"agreeing-lacpdu", port_1_current, [](Engine &engine) { engine.receive(1, Engine::agreeing(engine.port(1))); }},
    {"agreeing-lacpdu-out-of-sync", port_1_current,
     [](Engine &engine) { engine.receive(1, Engine::agreeing(engine.port(1), 0)); }},
    {"individual-lacpdu", port_1_current,
     [](Engine &engine) {
         LacInfo partner = Engine::peer(1);
         partner.state = LAC_ACTIVITY;
         engine.receive(1, pdu_bytes(partner, LacInfo{}));
     }},
    {"lacpdu-while-disabled", [](Engine &engine) { engine.running_port(1), engine.change_link(1, false); },
     [](Engine &engine) { engine.receive(1, Engine::agreeing(engine.port(1))); }},
    {"lacpdu-behind-a-lost-aggregator", [](Engine &engine) { both_in_step(engine), engine.set_link(1, false); },
     [](Engine &engine) { engine.receive(2, Engine::agreeing(engine.port(2))); }},
    {"partner-moved", [](Engine &engine) { engine.current_port(1), engine.running_port(2); },
     [](Engine &engine) { engine.receive(2, pdu_bytes(Engine::peer(1), lac_actor_info(&engine.port(2)))); }},
    {"marker", port_1_current, [](Engine &engine) { receive_marker(engine, LAC_MARKER_INFORMATION); }},
    {"marker-response", port_1_current, [](Engine &engine) { receive_marker(engine, LAC_MARKER_RESPONSE); }},
    {"unknown-event", port_1_current, [](Engine &engine) { lacRxMachine(&engine.port(1), 99, nullptr); }},

    {"forming", port_1_current,
     [](Engine &engine) {
         engine.tick(4);
         engine.receive(1, Engine::agreeing(engine.port(1)));
         engine.tick(2);
     }},
    {"partner-out-of-step", both_in_step,
     [](Engine &engine) {
         engine.receive(2, pdu_bytes(Engine::peer(2), LacInfo{}));
         lacSelect(&engine.port(2));
     }},
    {"silent-partner",
     [](Engine &engine) {
         engine.post(LAC_Q_PORT_TIMEOUT, 1, 1);
         engine.current_port(1);
         engine.tick(3);
     },
     [](Engine &engine) { engine.tick(5); }},
    {"slow-period", [](Engine &engine) { engine.current_port(1), engine.tick(30); },
     [](Engine &engine) { engine.tick(1); }},
    {"fast-period", port_1_running, [](Engine &engine) { engine.tick(2); }},
    {"fast-again",
     [](Engine &engine) {
         engine.current_port(1);
         engine.tick(3);
         engine.port(1).partner_oper_state |= LAC_TIMEOUT;
         engine.port(1).periodic_timer.count = 0;
     },
     [](Engine &engine) { engine.tick(1); }},
    {"standby",
     [](Engine &engine) {
         both_in_step(engine);
         engine.receive(2, pdu_bytes(Engine::peer(2, OTHER_MAC), lac_actor_info(&engine.port(2))));
     },
     [](Engine &engine) { lacSelect(&engine.port(2)); }},
    {"stand-alone",
     [](Engine &engine) {
         engine.running_port(1);
         engine.tick(4);
         ASSERT_EQ(engine.port(1).rxm, LAC_RX_DEFAULTED);
         engine.port(1).individual = 1;
     },
     [](Engine &engine) { lacSelect(&engine.port(1)); }},

    {"ranking-by-priority", [](Engine &engine) { both_in_step(engine), engine.port(2).actor_port_priority = 9; },
     [](Engine &engine) { lacSelect(&engine.port(1)); }},
    {"ranking-by-priority-kept", [](Engine &engine) { both_in_step(engine), engine.port(1).actor_port_priority = 9; },
     [](Engine &engine) { lacSelect(&engine.port(1)); }},
    {"ranking-by-defaulted",
     [](Engine &engine) { both_in_step(engine), lac_set_actor_state(&engine.port(1), LAC_DEFAULTED); },
     [](Engine &engine) { lacSelect(&engine.port(1)); }},
    {"ranking-by-defaulted-kept",
     [](Engine &engine) { both_in_step(engine), lac_set_actor_state(&engine.port(2), LAC_DEFAULTED); },
     [](Engine &engine) { lacSelect(&engine.port(1)); }},
    {"ranking-by-number",
     [](Engine &engine) { both_in_step(engine), engine.port(1).actor_port = 3, engine.port(2).actor_port = 2; },
     [](Engine &engine) { lacSelect(&engine.port(1)); }},

    {"transmission-while-off",
     [](Engine &engine) {
         engine.current_port(1);
         engine.tick(2);
         lacSystem->system_state = 0;
         engine.port(1).ntt = 1;
         engine.port(1).hold_count = 0;
     },
     [](Engine &engine) { tx_machine(&engine.port(1), Lac_tx_scheduler_expired); }},
    {"transmission-held",
     [](Engine &engine) { engine.current_port(1), engine.tick(2), engine.port(1).hold_count = 3; },
     [](Engine &engine) {
         tx_machine(&engine.port(1), Lac_ntt);
         tx_machine(&engine.port(1), Lac_tx_scheduler_expired);
     }},
    {"transmission-not-periodic", [](Engine &engine) { engine.switch_on(); },
     [](Engine &engine) { tx_machine(&engine.port(1), Lac_tx_scheduler_expired); }},
    {"transmission-between-passive-sides",
     [](Engine &engine) {
         LacPort &record = engine.current_port(1);
         engine.tick(3);
         record.actor_oper_state &= static_cast<std::uint8_t>(~LAC_ACTIVITY);
         record.partner_oper_state &= static_cast<std::uint8_t>(~LAC_ACTIVITY);
     },
     [](Engine &engine) { engine.tick(1); }},
    {"attach-twice",
     [](Engine &engine) {
         engine.current_port(1);
         engine.port(1).individual = 0;
     },
     [](Engine &) {
         Attach_Mux_To_Aggregator(1, 2);
         Attach_Mux_To_Aggregator(1, 2);
         Detach_Mux_From_Aggregator(1, 2);
         Detach_Mux_From_Aggregator(1, 2);
     }},
    {"timers-set-up-on-first-use", [](Engine &engine) { engine.port(1) = LacPort(engine.port(1)); },
     [](Engine &engine) {
         LacPort &record = engine.port(1);
         start_current_while_timer(&record, 1);
         start_current_while_timer(&record, 0);
         Start_wait_while_timer(&record);
         Start_periodic_timer(&record, 1);
         Start_periodic_timer(&record, 0);
         Stop_periodic_timer(&record);
         Start_tx_scheduler(&record);
         Stop_tx_scheduler(&record);
         mux_scheduler_start(&record);
     }},
};

std::string text_of(const Case &tested, std::uint32_t word)
{
    Engine engine;
    tested.arrange(engine);
    lacDebug = word;
    std::string text = printed([&] { tested.act(engine); });
    lacDebug = 0;
    return text;
}

std::string without_lines(std::string text, const std::string &lines)
{
    std::istringstream rest(lines);
    for (std::string line; std::getline(rest, line);) {
        const std::size_t at = text.find(line + "\n");
        if (at == std::string::npos)
            ADD_FAILURE() << "a message is missing while tracing: " << line;
        else
            text.erase(at, line.size() + 1);
    }
    return text;
}

TEST(Traces, EachBitHasItsOwn)
{
    Sections sections;
    for (const Case &tested : CASES) {
        SCOPED_TRACE(tested.name);
        const std::string messages = text_of(tested, 0);
        std::string record = messages.empty() ? "" : "---- always\n" + visible(messages);
        std::size_t length = messages.size();
        for (int number = 0; number < 32; ++number) {
            const std::string text = without_lines(text_of(tested, 1U << number), messages);
            length += text.size();
            std::ostringstream heading;
            heading << "---- 0x" << std::hex << (1U << number) << "\n";
            if (!text.empty())
                record += heading.str() + visible(text);
        }
        EXPECT_EQ(text_of(tested, ~0U).size(), length) << "bits that are set together add up";
        sections.add_visible(tested.name, record);
    }
    expect_recorded_visible(sections.text, "traces");
}

// ---- threads --------------------------------------------------------------------------------------------------

// What dispatcher and timer print in a process of their own: their threads never end.
std::string text_of_threads(std::uint32_t word, int ticks)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        Engine engine;
        lacpCtrl.once_cfg_done = 1;
        lacpDrvCtrlInit();
        lacDebug = word;
        LacDrvCtrl *const before = lacDrvCtrl;
        if (lac_TaskInit() != 0)
            _exit(1);
        *lacDrvCtrl = *before;
        fake::start_thread("lacpRecv");
        fake::start_thread("lacpTimer");
        set_lac_global_enable(1); // takes a second
        usleep(static_cast<useconds_t>(ticks) * 1'000'000 + 500'000);
        lacDebug = 0;
        fflush(stdout);
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t count = read(ends[0], buffer, sizeof buffer); count > 0;
         count = read(ends[0], buffer, sizeof buffer))
        text.append(buffer, static_cast<std::size_t>(count));
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return text;
}

std::size_t count_of(const std::string &text, const std::string &part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

TEST(TraceOfTheThreads, QueueLockAndTicks)
{
    struct Row {
        std::uint32_t bit;
        const char *text;
        std::size_t at_least, at_most;
    };
    constexpr std::size_t MANY = 999;
    const Row rows[] = {
        // Once from the switch, once from the timer when it starts.
        {LAC_DBG_QUEUE, "\r\n lacQSend lac queue code 00000001 msgNum 0\n\r", 2, 2},
        {LAC_DBG_QUEUE, "\r\n lacRecvTask lac queue receive status 18 code 1\n\r", 2, 2},
        {LAC_DBG_QUEUE, "\r\n lacRecvTask lac queue lacState is ON\n\r", 1, 1},
        {LAC_DBG_QUEUE, "\r\n lacQSend lac queue code fcfcfcfc msgNum 0\n\r", 1, MANY},
        {LAC_DBG_QUEUE, "\r\n lacRecvTask lac queue receive status 18 code fcfcfcfc\n\r", 1, MANY},
        {LAC_DBG_QUEUE, "semaphore", 0, 0},
        {LAC_DBG_LOCK, "\n lacRecvTask post task semaphore\r", 1, 1},
        {LAC_DBG_LOCK, "\r\n set_lac_global_enable wait task semaphore\r", 1, 1},
        {LAC_DBG_LOCK, "\n lacTimerTask wait task semaphore at beginning\r", 1, 1},
        {LAC_DBG_LOCK, "\n lacTimerTask wait task semaphore for timer tick\r", 1, MANY},
        {LAC_DBG_LOCK, "\n lacQSend post task semaphore\r", 2, MANY},
        {LAC_DBG_LOCK, "lac queue", 0, 0},
    };
    std::map<std::uint32_t, std::string> texts;
    for (const Row &row : rows) {
        if (!texts.contains(row.bit))
            texts[row.bit] = text_of_threads(row.bit, 1);
        const std::size_t count = count_of(texts[row.bit], row.text);
        EXPECT_TRUE(row.at_least <= count && count <= row.at_most)
            << count << " times " << visible(row.text) << visible(texts[row.bit]);
    }
    const std::string ticks = text_of_threads(LAC_DBG_TICK, 2);
    EXPECT_GE(ticks.size(), 2U);
    EXPECT_EQ(ticks, std::string(ticks.size(), '.')) << "one point a tick, whatever the number of ports";
}

} // namespace
