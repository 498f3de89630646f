// An engine that takes one step after another, each decoded from the bytes of an input: frames, ticks, links,
// configuration as a client of the datastore may change it, and failures of what is around it.
#pragma once

#include "../fuzz/input.h"
#include "engine.h"
#include "invariants.h"

class RandomSteps : private EngineTest
{
  public:
    explicit RandomSteps(fuzz::Input &input);

    // All steps of the input and what must follow them: the first invariant that is broken, or nothing.
    std::string run();

  private:
    using Step = void (RandomSteps::*)();

    void TestBody() override {}

    void step();
    void settle();
    static std::string unsettled();
    std::string check();
    void watch_trunks();

    std::uint32_t any_port() { return 1 + input_.below(intf.last_uplink_port); }
    static bool has_type(int group);
    static bool has_room(int group);
    static void configure(std::uint32_t port_no, const char *leaf, const fake::Value &value);
    static void set_member(bool member, int group, std::uint32_t port_no);
    static void set_group_leaf(std::uint32_t port_no, std::uint8_t group);
    static void hear(Bytes frame);
    std::uint32_t variant(std::uint32_t limit);
    LacInfo partner_of(std::uint32_t port_no);
    void second();
    void answer(std::uint32_t port_no);
    void quiet_seconds();

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
    // The far ends of the cables: what each is, what it heard last, and whether it answers what it hears.
    struct Partner {
        LacInfo self;
        LacInfo heard{};
        bool answers = true;
    };
    std::vector<Partner> partners_;
    std::uint32_t ticks_left_ = 600; // of one input, so that all are quick
    bool held_ = false;              // messages wait
    bool started_ = false;
};
