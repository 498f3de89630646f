// What happens to an engine and its partners by chance, in words:
//
//   g1dynamic g1manual g1-        a client makes a group or deletes it; "g1alone" leaves its ports configured for it
//   join2:3 join2:0               port 2 joins a group, leaves
//   down2 up2 9s                  its link; nine seconds
//   mute2 talk2 hear2 blind2      its partner falls silent, speaks, says what it heard last, or that it knows nobody
//   2.key=9                       what that partner is
//   short2 long2 best2 usual2 passive2 active2        settings
//   refuse busy accept            new members are refused, members are not written, all is well
//   away back off on sysid        driver service, LACP, another System ID and back
//   loop2 noise2HEX               a port hears what was sent last; a LACPDU with other octets from the first on
//   hold                          messages wait, until it is said again
#pragma once

#include "engine.h"
#include "input.h"

class Story : public Engine
{
  public:
    explicit Story(std::uint32_t last_port) : Engine(1, last_port) {}

    // Words drawn from an input, until it is used up, and then some seconds in which nothing fails and every partner
    // is an active system in sync that answers. The first invariant that is broken, and the words; or nothing.
    std::string draw(fuzz::Input &input);

  private:
    void happen(const std::string &word);
    void join_as_configured(std::uint32_t port_no, const std::string &group);
    void make_group(std::uint32_t group, const std::string &kind);
    void hear_noise(std::uint32_t port_no, const Bytes &octets);
    std::string drawn_word(fuzz::Input &input) const;
    std::string come_to_rest();
    std::string broken();

    SentFrame last_sent_;
    bool held_ = false, away_ = false;
};
