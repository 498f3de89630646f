#include "shell/grammar.h"

#include <algorithm>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace
{

// ---- prompts --------------------------------------------------------------------------------------------------

constexpr std::string_view SLOT_AND_PORT = "%d/%d";
constexpr char SESSION_PROMPT[] = "%pSP"; // printed, like every prompt, with the host name as its argument

// What the nodes' prompts were before.
std::map<int, const char *> &session_prompts()
{
    static std::map<int, const char *> instance;
    return instance;
}

// A prompt is printed in an event of its session.
ssize_t print_session_prompt(fbuf *buffer, printfrr_eargs *, const void *host_name)
{
    const auto *host = static_cast<const char *>(host_name);
    const auto *session = static_cast<const vty *>(frr::running_event_argument());
    const ShellSession *fields = known_session(session);
    if (fields == nullptr)
        return bputs(buffer, host);
    return bprintfrr(buffer, session_prompts()[session->node], host, fields->slot, fields->port);
}

constexpr printfrr_ext SESSION_PROMPT_EXTENSION = {"SP", print_session_prompt, nullptr};

// ---- words ----------------------------------------------------------------------------------------------------

// A word of a command that stands in the grammar as a variable, which any text matches, and is shown as it was
// written. Both have the same length.
struct Word {
    std::string variable;
    std::string shown;
};

constexpr std::string_view SLOT_PORT = "<S/P>";

std::list<Word> &words()
{
    static std::list<Word> instance = {{"S-P-X", std::string(SLOT_PORT)}};
    return instance;
}

struct Translated {
    cmd_element element;
    std::string syntax;
    decltype(cmd_element::func) run;
};

std::list<Translated> &translated_commands()
{
    static std::list<Translated> instance;
    return instance;
}

std::string upper_case(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return text;
}

void replace_word(std::string &syntax, const Word &word)
{
    if (const auto at = syntax.find(word.shown); at != std::string::npos)
        syntax.replace(at, word.shown.size(), word.variable);
}

// The words of a hidden command behind its first are matched as a whole, so that a short form of theirs means what
// is shown.
std::vector<Word> hidden_words(std::string_view syntax)
{
    std::vector<Word> found;
    for (auto blank = syntax.find(' '); blank != std::string_view::npos;) {
        const auto next = syntax.find(' ', blank + 1);
        const std::string word(syntax.substr(blank + 1, next - blank - 1));
        if (islower(static_cast<unsigned char>(word.front())))
            found.push_back({upper_case(word), word});
        blank = next;
    }
    return found;
}

bool is_mistyped(const cmd_token *token)
{
    return token->type == VARIABLE_TKN && token->text != SLOT_PORT && strcmp(token->text, token->arg) != 0;
}

int run_hidden(const cmd_element *self, vty *vty, int argc, cmd_token *argv[])
{
    if (std::any_of(argv, argv + argc, is_mistyped))
        return CMD_ERR_NO_MATCH;
    const auto &all = translated_commands();
    const auto own = std::ranges::find_if(all, [self](const auto &command) { return &command.element == self; });
    return own->run(self, vty, argc, argv);
}

template <typename T> std::vector<T *> entries(vector list)
{
    std::vector<T *> found;
    for (unsigned i = 0; i < vector_active(list); ++i)
        if (void *entry = vector_slot(list, i); entry != nullptr)
            found.push_back(static_cast<T *>(entry));
    return found;
}

// Writes one text of each word in the place of the other, in every grammar. Behind a command's last token stands its
// record, which nothing follows.
void write_words(std::string Word::*old, std::string Word::*text)
{
    for (const auto *node : entries<const cmd_node>(cmdvec))
        for (const graph_node *place : entries<graph_node>(node->cmdgraph->nodes)) {
            auto *token = static_cast<cmd_token *>(place->data);
            if (vector_active(place->to) == 0 || token->type != VARIABLE_TKN)
                continue;
            const auto word = std::ranges::find(words(), std::string_view(token->text), old);
            if (word != words().end())
                ((*word).*text).copy(token->text, ((*word).*text).size());
        }
}

std::vector<const cmd_element *> &default_commands()
{
    static std::vector<const cmd_element *> instance;
    return instance;
}

bool leads_out(const cmd_element *command)
{
    const std::string_view syntax = command->string;
    return syntax == "exit" || syntax == "quit";
}

} // namespace

void grammar_init(const cmd_node &node)
{
    printfrr_ext_reg(&SESSION_PROMPT_EXTENSION);
    for (const auto *command : entries<const cmd_element>(node.cmd_vector))
        default_commands().push_back(command);
}

void shell_install_node(cmd_node *node)
{
    if (std::string_view(node->prompt).find(SLOT_AND_PORT) != std::string_view::npos) {
        session_prompts()[node->node] = node->prompt;
        node->prompt = SESSION_PROMPT;
    }
    install_node(node);
}

void shell_install_element(int node, const cmd_element *command)
{
    Translated &translated = translated_commands().emplace_back(Translated{*command, command->string, command->func});
    cmd_element &element = translated.element;
    const bool is_hidden = (command->attr & CMD_ATTR_HIDDEN) != 0;
    if (is_hidden) {
        std::ranges::copy(hidden_words(command->string), std::back_inserter(words()));
        element.func = run_hidden;
    }
    for (const Word &word : words())
        if (is_hidden || word.shown == SLOT_PORT)
            replace_word(translated.syntax, word);
    element.string = translated.syntax.c_str();
    write_words(&Word::shown, &Word::variable);
    _install_element(static_cast<node_type>(node), &element);
    write_words(&Word::variable, &Word::shown);
    element.string = command->string; // what "list" and "find" show
}

void shell_install_defaults(int node)
{
    for (const cmd_element *command : default_commands())
        if (!leads_out(command))
            _install_element(static_cast<node_type>(node), command);
}
