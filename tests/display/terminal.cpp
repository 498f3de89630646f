#include "terminal.h"

#include <gtest/gtest.h>

#include <climits>
#include <fstream>
#include <sstream>

std::string visible(const std::string &text)
{
    std::string out;
    for (const char character : text) {
        switch (character) {
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\n':
            out += "\\n\n";
            break;
        default:
            out += character;
        }
    }
    return out.ends_with('\n') || out.empty() ? out : out + '\n';
}

void expect_recorded_visible(const std::string &text, const std::string &name)
{
    const std::string path = std::string(LACPD_GOLDEN_DIR) + "/" + name + ".txt";
    std::ifstream file(path, std::ios::binary);
    std::ostringstream recorded;
    recorded << file.rdbuf();
    if (file && recorded.str() == text)
        return;
    std::ofstream(name + ".actual", std::ios::binary) << text;
    EXPECT_EQ(text, recorded.str()) << "differs from " << path;
    EXPECT_TRUE(file) << "no " << path;
}

void expect_recorded(const std::string &text, const std::string &name)
{
    expect_recorded_visible(visible(text), name);
}

Terminal::Terminal()
{
    static vty *const only = vty_new();
    vty_ = only;
    vty_->type = vty::VTY_FILE;
    vty_->buf_size_intermediate = UINT64_MAX; // nothing leaves the buffer by itself
    take();
}

std::string Terminal::take()
{
    char *text = buffer_getstr(vty_->obuf);
    const std::string copy = text;
    qfree(MTYPE_TMP, text);
    buffer_reset(vty_->obuf);
    return copy;
}

int Terminal::run(int node, const std::string &line)
{
    vty_->node = static_cast<node_type>(node);
    return cmd_execute(vty_, line.c_str(), nullptr, 0);
}
