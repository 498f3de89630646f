// The configuration file as the shell keeps it; see shell.h.
#pragma once

#include "frr/frr.hpp"

// Puts a guard around the commands that save. From the event loop, when every node and its commands are there.
void shell_guard_saving_commands(frr::Event *event);

// Configuration writer: a comment for each line of the file that was refused and is not configured since.
int shell_write_refused_lines(vty *vty);
