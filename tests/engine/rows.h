// Rows of the machines' tests: states and events by name.
#pragma once

#include "engine.h"

// Words with the names of states and of what follows from them (in capitals) written out.
std::string expanded(const std::string &words);

// Port 1 of a running engine in a state, and what may happen to it.
class Machines
{
  public:
    explicit Machines(const std::string &given) : p_(Engine::port(1))
    {
        Engine::switch_on();
        set(expanded(given));
    }
    void act(const std::string &event);
    std::string result;

  private:
    void hear(const std::string &differences);

    LacPort &p_;
};
