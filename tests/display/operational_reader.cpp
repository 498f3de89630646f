// A datastore client in a process of its own: asks for operational paths, again and again.
//
//     operational_reader TIMES PATH...
//
// One line an answer: the path's number and the leaves found, "-" for none, "! code" for a failed request.
#include <libyang/libyang.h>
#include <sysrepo.h>

#include <cstdio>
#include <cstdlib>
#include <string>

static std::string leaves(const lyd_node *tree, const char *path)
{
    std::string text;
    ly_set *found = nullptr;
    if (tree == nullptr || lyd_find_xpath(tree, path, &found) != LY_SUCCESS)
        return text;
    for (std::uint32_t i = 0; i < found->count; ++i) {
        const lyd_node *top = found->dnodes[i];
        const lyd_node *node = nullptr;
        LYD_TREE_DFS_BEGIN(top, node)
        {
            if ((node->schema->nodetype & LYS_LEAF) != 0)
                text += (text.empty() ? "" : " ") + std::string(node->schema->name) + "=" + lyd_get_value(node);
            LYD_TREE_DFS_END(top, node);
        }
    }
    ly_set_free(found, nullptr);
    return text;
}

int main(int count, char **arguments)
{
    sr_conn_ctx_t *connection = nullptr;
    sr_session_ctx_t *session = nullptr;
    if (count < 3 || sr_connect(0, &connection) != SR_ERR_OK ||
        sr_session_start(connection, SR_DS_OPERATIONAL, &session) != SR_ERR_OK)
        return 1;
    for (long left = std::strtol(arguments[1], nullptr, 10); left > 0; --left) {
        for (int path = 2; path < count; ++path) {
            sr_data_t *data = nullptr;
            const int code = sr_get_data(session, arguments[path], 0, 0, 0, &data);
            const std::string found = data != nullptr ? leaves(data->tree, arguments[path]) : "";
            if (code != SR_ERR_OK)
                std::printf("%d ! %d\n", path - 1, code);
            else
                std::printf("%d %s\n", path - 1, found.empty() ? "-" : found.c_str());
            sr_release_data(data);
        }
    }
    sr_disconnect(connection);
    return 0;
}
