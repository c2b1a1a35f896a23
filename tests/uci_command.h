// The uci tool's commands that the daemon runs and the tests read with (get, set, add_list, delete, commit, export;
// one argument each: `uci set network.iptv=interface`), done in the caller's process through a configuration
// session of the platform. Its folders are those under the system root the test has set (routeutils::setSystemRoot),
// so nothing of the host's /etc/config, /tmp/.uci or /var/run/uci is read, as the tool itself would read its
// default save folder. Used by gwcall and the handlers' fuzz target in place of the tool.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "routeutils/uci_session.h"

// args: "uci", the command, its argument. What get and export print goes to out (nothing when null). Returns
// libuci's status (UCI_OK, UCI_ERR_NOTFOUND for a get or delete of what is not there, UCI_ERR_INVAL, ...).
inline int uciCommand(const std::vector<std::string> &args, FILE *out)
{
    routeutils::UciSession s;
    uci_context *ctx = s.ctx();
    const std::string verb = args.size() == 3 ? args[1] : "";
    std::string path = args.size() == 3 ? args[2] : "";
    uci_ptr p{};
    int rc = verb.empty() || !s ? UCI_ERR_INVAL : uci_lookup_ptr(ctx, &p, path.data(), true);
    if (rc != UCI_OK)
        return rc;
    const bool complete = (p.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0;
    if ((verb == "get" || verb == "delete") && !complete)
        return UCI_ERR_NOTFOUND;
    if (verb == "get" && out && (p.o == nullptr || p.o->type == UCI_TYPE_STRING)) {
        std::fprintf(out, "%s\n", p.o ? p.o->v.string : p.s->type);
    } else if (verb == "get" && out) {
        uci_element *e;
        uci_foreach_element(&p.o->v.list, e)
            std::fprintf(out, "%s%s", e->name, e->list.next == &p.o->v.list ? "\n" : " ");
    } else if (verb == "commit") {
        rc = uci_commit(ctx, &p.p, false);
    } else if (verb == "export") {
        rc = out ? uci_export(ctx, out, p.p, true) : UCI_OK;
    } else if (verb == "set" || verb == "add_list" || verb == "delete") {
        rc = verb == "set" ? uci_set(ctx, &p) : verb == "add_list" ? uci_add_list(ctx, &p) : uci_delete(ctx, &p);
        rc = rc == UCI_OK ? uci_save(ctx, p.p) : rc;
    } else if (verb != "get") {
        rc = UCI_ERR_INVAL;
    }
    return rc;
}
