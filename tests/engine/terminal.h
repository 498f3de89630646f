// A shell terminal in memory; one for the process.
#pragma once

#include "lacp_cli.h"

#include "frr/frr.hpp"
#include "shell/shell.h"

#include <string>

class Terminal
{
  public:
    Terminal()
    {
        buffer_reset(vty_->obuf);
        shell_session(vty_).slot = 0;
        shell_session(vty_).port = 3;
    }

    std::string typed(const std::string &line, int node = CONFIG_NODE, int *result = nullptr)
    {
        vty_->node = static_cast<node_type>(node);
        const int code = cmd_execute(vty_, line.c_str(), nullptr, 0);
        if (result != nullptr)
            *result = code;
        char *text = buffer_getstr(vty_->obuf);
        const std::string copy = text;
        qfree(MTYPE_TMP, text);
        buffer_reset(vty_->obuf);
        return copy;
    }

  private:
    static vty *made()
    {
        static cmd_node debug_node = frr::node("debug", SHELL_DEBUG_NODE, ENABLE_NODE, "%s# ", nullptr);
        cmd_init(0);
        install_node(&debug_node);
        lacp_vty_init();
        vty *terminal = vty_new();
        terminal->type = vty::VTY_FILE;
        terminal->buf_size_intermediate = UINT64_MAX; // nothing leaves the buffer by itself
        return terminal;
    }
    static vty *only()
    {
        static vty *const terminal = made();
        return terminal;
    }
    vty *const vty_ = only();
};
