// A shell terminal in memory, and texts recorded in files.
#pragma once

#include "frr/frr.hpp"

#include <functional>
#include <string>

// The text with every octet visible: "\r", "\t" and "\n" are written out, and a line feed also ends the line.
std::string visible(const std::string &text);

// Compares a text with golden/<name>.txt, which holds it in visible form. The text of a failure is left beside the
// test program as <name>.actual.
void expect_recorded(const std::string &text, const std::string &name);
// The same for a text that is in visible form already.
void expect_recorded_visible(const std::string &text, const std::string &name);

// Several texts in one record, each below a heading.
struct Sections {
    std::string text;

    void add(const std::string &heading, const std::string &shown) { add_visible(heading, visible(shown)); }
    void add_visible(const std::string &heading, const std::string &shown)
    {
        text += "==== " + heading + "\n" + shown;
    }
};

class Terminal
{
  public:
    Terminal();

    operator vty *() const { return vty_; }
    std::string take(); // everything shown since the last call

    // What an action shows.
    template <typename Action> std::string shown(const Action &action)
    {
        take();
        action(vty_);
        return take();
    }

    // Types one line in a node; the framework's result code.
    int run(int node, const std::string &line);

  private:
    vty *vty_; // one for the process: the framework only frees those of its event loop
};
