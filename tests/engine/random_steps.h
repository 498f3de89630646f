// An engine that takes one step after another, each decoded from the bytes of an input: frames, ticks, links,
// configuration as a client of the datastore may change it, and failures of what is around it. Its partners are model
// ones: they may re-key, renumber, split, merge and fall silent, and in the end they all speak the truth.
#pragma once

#include "engine.h"
#include "input.h"

// What the invariants must know of what is around the engine.
struct Surroundings {
    bool drained = true;                   // no message waits
    bool trunks_known = true;              // the driver service has heard every request
    std::array<std::uint32_t, 5> trunks{}; // members by group, as the service has them
};

// The first invariant that is broken, or nothing.
std::string broken_invariant(const Surroundings &surroundings);

class RandomSteps : private Engine
{
  public:
    explicit RandomSteps(fuzz::Input &input);

    // All steps of the input and what must follow them: the first invariant that is broken, or nothing.
    std::string run();

  private:
    using Step = void (RandomSteps::*)();
    struct Partner { // the far end of a cable: what it is, what it heard last, and whether it answers what it hears
        LacInfo self;
        LacInfo heard{};
        bool answers = true;
    };

    void step();
    void settle();
    std::string check();

    std::uint32_t any_port() { return 1 + input_.below(intf.last_uplink_port); }
    std::uint32_t variant(std::uint32_t limit);
    LacInfo partner_of(std::uint32_t port_no);
    void second();
    void answer(std::uint32_t port_no);

    void change_partner();
    void hear_partner();
    void hear_marker();
    void hear_anything();
    void hear_ourselves();
    void pass_time();
    void flip_link();
    void create_group();
    void delete_group();
    void move_port();
    void set_attribute();
    void set_global();
    void fail_writes();
    void lose_driver();
    void switch_lacp();
    void hold_queue();
    void send_message();

    fuzz::Input &input_;
    Surroundings seen_;
    SentFrame last_sent_;
    std::vector<Partner> partners_;
    std::uint32_t ticks_left_ = 600; // of one input, so that all are quick
    bool held_ = false;              // messages wait
    bool started_ = false;
};
