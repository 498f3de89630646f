// The engine's own work on the fakes, without system calls and without a datastore: per LACPDU, Marker, tick and
// selection round, with eight ports that all distribute.
#include "engine.h"
#include "run_benchmarks.h"

#include <sys/socket.h>

// In place of the system call: frames that the engine sends are gone.
extern "C" ssize_t sendto(int, const void *, std::size_t length, int, const sockaddr *, socklen_t)
{
    return static_cast<ssize_t>(length);
}

namespace
{

constexpr std::uint32_t PORTS = 8;
constexpr std::uint32_t GROUP_PORTS = 4;
constexpr std::uint16_t PEER_KEY = 7;
constexpr unsigned FORMING_TICKS = 20;

struct Received {
    Bytes buffer; // as the receive thread has it
    int length;
};

// Two groups of four ports whose partner is fast and has everything in sync.
class Formed : public Engine
{
  public:
    Formed() : Engine(1, PORTS)
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number) {
            running_port(number, group_of(number));
            send(LAC_Q_PORT_TIMEOUT, number, 1);
        }
        for (unsigned count = 0; count < FORMING_TICKS; ++count)
            second();
        check();
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            frames_.push_back(lacpdu(number));
    }

    ~Formed() { check(); }

    // What was measured is the work of ports that distribute.
    static void check()
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            if (port(number).muxm != LAC_MUX_COLLECTING_DISTRIBUTING || port(number).rxm != LAC_RX_CURRENT)
                abort();
    }

    static unsigned group_of(std::uint32_t number) { return number <= GROUP_PORTS ? 1 : 2; }

    static Received received(std::uint32_t number, const Bytes &pdu)
    {
        Received frame{tagged_frame(number, pdu), 0};
        frame.length = static_cast<int>(frame.buffer.size());
        frame.buffer.resize(LACP_RX_BUFFER_SIZE);
        return frame;
    }

    static Received lacpdu(std::uint32_t number)
    {
        LacInfo actor = peer(static_cast<std::uint16_t>(number));
        actor.key = static_cast<std::uint16_t>(PEER_KEY + group_of(number));
        actor.state |= LAC_TIMEOUT | LAC_COLLECTING | LAC_DISTRIBUTING;
        return received(number, pdu_bytes(actor, lac_actor_info(&port(number))));
    }

    // From the receive thread's buffer to the machines. The addresses move over the tag, so a frame is taken once.
    void take(const Received &frame)
    {
        std::copy_n(frame.buffer.begin(), frame.length, buffer_.begin());
        lacp_pkt_take(buffer_.data(), frame.length, lacp_bpdu_recv);
        dispatch();
    }

    void take_lacpdu(std::uint32_t number) { take(frames_[number - 1]); }

    // One LACPDU a port and the tick, as in a running system with fast partners.
    void second()
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            take(lacpdu(number));
        tick();
    }

    // Partners are heard without their LACPDUs' cost.
    void keep_current()
    {
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            port(number).current_while_timer.count = LAC_SHORT_TIMEOUT_TICKS;
    }

    LacPort &first() { return port(1); }

  private:
    std::vector<Received> frames_;
    Bytes buffer_ = Bytes(LACP_RX_BUFFER_SIZE);
};

void lacpdu(benchmark::State &state)
{
    Formed engine;
    for (auto _ : state)
        engine.take_lacpdu(1);
}

void marker(benchmark::State &state)
{
    Formed engine;
    Bytes pdu = {LAC_SUBTYPE_MARKER, 1, LAC_MARKER_INFORMATION, LAC_MARKER_TLV_LENGTH, 0, 1};
    pdu.resize(LAC_PDU_SIZE);
    const Received frame = Formed::received(1, pdu);
    for (auto _ : state)
        engine.take(frame);
}

void tick(benchmark::State &state)
{
    Formed engine;
    for (auto _ : state) {
        engine.keep_current();
        engine.tick();
    }
}

void second(benchmark::State &state)
{
    Formed engine;
    for (auto _ : state) {
        for (std::uint32_t number = 1; number <= PORTS; ++number)
            engine.take_lacpdu(number);
        engine.tick();
    }
}

void selection(benchmark::State &state)
{
    Formed engine;
    for (auto _ : state)
        lacSelect(&engine.first());
}

BENCHMARK(lacpdu)->Apply(with_iterations);
BENCHMARK(marker)->Apply(with_iterations);
BENCHMARK(tick)->Apply(with_iterations);
BENCHMARK(second)->Apply(with_iterations);
BENCHMARK(selection)->Apply(with_iterations);

} // namespace

int main(int argc, char **argv)
{
    return run_benchmarks(argc, argv);
}
