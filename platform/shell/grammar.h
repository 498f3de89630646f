// What the framework's grammar and prompts do not have. Inside platform/shell.
#pragma once

#include "shell/shell.h"

// Once, in shell_init. Keeps the commands that `node` has: those that the framework gives every node.
void grammar_init(const cmd_node &node);

// The session's fields, or null for one that has none yet.
const ShellSession *known_session(const vty *vty);
