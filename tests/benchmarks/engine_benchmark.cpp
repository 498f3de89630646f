// The engine's own work on the fakes, without system calls and without a datastore: per LACPDU, Marker, tick, second
// and selection round, with eight ports that all distribute.
#include "engine.h"

#include <benchmark/benchmark.h>
#include <iostream>
#include <sys/socket.h>

// In place of the system call: frames that the engine sends are gone.
extern "C" ssize_t sendto(int, const void *, std::size_t length, int, const sockaddr *, socklen_t)
{
    return static_cast<ssize_t>(length);
}

namespace
{

constexpr std::uint32_t PORTS = 8;
constexpr unsigned FORMING_TICKS = 20;

// Two groups of four ports whose partner is fast and has everything in sync.
class Formed : public Engine
{
  public:
    Formed() : Engine(1, PORTS)
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number) {
            running_port(number, number <= PORTS / 2 ? 1 : 2);
            send(LAC_Q_PORT_TIMEOUT, number, 1);
        }
        for (unsigned count = 0; count < FORMING_TICKS; ++count) {
            for (std::uint32_t number = 1; number <= PORTS; ++number)
                lacpdus[number] = lacpdu(number);
            second();
        }
        lacSystem->unsaved = false; // a running daemon has kept what has changed
    }

    ~Formed()
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            if (port(number).muxm != LAC_MUX_COLLECTING_DISTRIBUTING || port(number).rxm != LAC_RX_CURRENT)
                abort(); // what was measured is not the work of ports that distribute
    }

    static Bytes lacpdu(std::uint32_t number)
    {
        const LacInfo ours = lac_actor_info(&port(number));
        LacInfo actor = peer(static_cast<std::uint16_t>(number));
        actor.key = ours.key;
        actor.state |= LAC_TIMEOUT | LAC_COLLECTING | LAC_DISTRIBUTING;
        return tagged_frame(number, pdu_bytes(actor, ours));
    }

    // From the receive thread's buffer to the machines. The addresses move over the tag, so a frame is taken once.
    void take(const Bytes &frame)
    {
        std::copy(frame.begin(), frame.end(), buffer.begin());
        lacp_pkt_take(buffer.data(), static_cast<int>(frame.size()), lacp_bpdu_recv);
        dispatch();
    }

    // One LACPDU a port and the tick, as in a running system with fast partners.
    void second()
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            take(lacpdus[number]);
        tick();
    }

    // With partners that are heard without their LACPDUs' cost.
    void lone_tick()
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            port(number).current_while_timer.count = LAC_SHORT_TIMEOUT_TICKS;
        tick();
    }

    std::vector<Bytes> lacpdus = std::vector<Bytes>(PORTS + 1); // by port
    const Bytes marker = tagged_frame(1, hex("0201 0110 0001" + std::string(2 * (LAC_PDU_SIZE - 6), '0')));
    Bytes buffer = Bytes(LACP_RX_BUFFER_SIZE);
};

// LACPD_BENCHMARK_ITERATIONS fixes the iterations, so that the instructions of two numbers can be subtracted
// (count-instructions.sh). The processor's time is the whole process's.
void add(const char *name, void (*work)(Formed &))
{
    auto *added = benchmark::RegisterBenchmark(name, [work](benchmark::State &state) {
        Formed engine;
        for (auto _ : state)
            work(engine);
    });
    added->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime()->UseRealTime();
    if (const char *text = std::getenv("LACPD_BENCHMARK_ITERATIONS"))
        added->Iterations(std::strtol(text, nullptr, 10));
}

} // namespace

int main(int argc, char **argv)
{
    add("lacpdu", [](Formed &engine) { engine.take(engine.lacpdus[1]); });
    add("marker", [](Formed &engine) { engine.take(engine.marker); });
    add("tick", [](Formed &engine) { engine.lone_tick(); });
    add("second", [](Formed &engine) { engine.second(); });
    add("selection", [](Formed &) { lacSelect(lacNoToPort(1)); });
    benchmark::Initialize(&argc, argv);
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_None);
    reporter.SetOutputStream(&std::cerr); // the daemon's parts talk on standard output
    return benchmark::RunSpecifiedBenchmarks(&reporter) == 0 ? 1 : 0;
}
