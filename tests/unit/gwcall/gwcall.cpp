// gwcall: one method of gwconfd called in this process as `ubus call` would call it, each command recorded instead of
// run, the configuration under a folder of the caller's (GWCALL_ROOT, default "."; no bus daemon, no root rights).
//
//   gwcall --init | [-l] --start | --uci ARGS... | [-S] [-l] OBJECT METHOD ['JSON']
//
// --init fills ROOT/etc/config from the default configuration; --start runs the start-up steps (MAC filter, IPTV,
// UPnP and DMZ, the WAN apply); --uci runs a uci command on ROOT. A call prints the reply as `ubus call` does (on
// one line with -S, as `ubus -S call`); with -l the daemon's log lines as `LEVEL [FUNCTION]MESSAGE` (errors, or the
// level GWCONF_LOG_LEVEL names); "run: " and each command, quoted as the router's journal quotes it; then
// "timer: NAME after N ms" and what each armed timer runs (fired at once). It exits with the bus status. Every
// recorded command answers GWCALL_STATUS (default 0), but the uci tool's commands run for real on ROOT.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>

#include "busmethod.h"
#include "gwconf.h"
#include "routeutils/system.h"
#include "uci_command.h"

namespace fs = std::filesystem;
using routeutils::Command;

namespace {

std::string g_root;
int g_stderr = -1;  // with -l: the caller's standard error, while fd 2 collects the daemon's log lines
std::vector<char> g_reply;  // the reply blob, as the bus would have sent it

void keepReply(blob_attr *reply)
{
    const auto *bytes = reinterpret_cast<const char *>(reply);
    g_reply.assign(bytes, bytes + blob_pad_len(reply));
}

// One argument as the router's journal writes it: bare when made of [A-Za-z0-9_@%+=:,./-] only, $'...' (bash's
// %q, for ASCII) when it holds a control character, else in single quotes.
std::string quote(const std::string &arg)
{
    if (!arg.empty() && arg.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                                              "_@%+=:,./-") == std::string::npos)
        return arg;
    static const char kEscaped[] = "\a\b\x1b\f\n\r\t\v\\'", kLetters[] = "abEfnrtv\\'";
    bool control = false;
    for (unsigned char c : arg)
        control = control || c < 0x20 || c == 0x7f;
    std::string out = control ? "$'" : "'";
    for (unsigned char c : arg) {
        char octal[8];
        std::snprintf(octal, sizeof octal, "\\%03o", c);
        const char *hit = c ? std::strchr(kEscaped, c) : nullptr;
        out += !control ? (c == '\'' ? std::string("'\\''") : std::string(1, static_cast<char>(c)))
               : hit    ? std::string("\\") + kLetters[hit - kEscaped]
               : c < 0x20 || c == 0x7f ? std::string(octal) : std::string(1, static_cast<char>(c));
    }
    return out + "'";
}

std::string commandLines(const std::vector<Command> &commands)
{
    std::string lines;
    for (const Command &c : commands) {
        lines += "run:";
        for (const std::string &a : c.argv)
            lines += " " + quote(a);
        for (const routeutils::Redirection &r : c.redirections)
            lines += r.toStdout ? " 2>&1" : (r.fd == 2 ? " 2> " : " > ") + r.path;
        lines += c.background ? " &\n" : "\n";
    }
    return lines;
}

// A uci command on ROOT (uci_command.h), with the tool's message when it fails.
int uci(const std::vector<std::string> &args)
{
    const int rc = uciCommand(args, stdout);
    std::fflush(stdout);
    if (rc != UCI_OK)  // the tool's messages are not the daemon's log lines
        dprintf(g_stderr >= 0 ? g_stderr : STDERR_FILENO, "uci: %s\n",
                rc == UCI_ERR_NOTFOUND ? "Entry not found" : "Invalid argument");
    return rc != UCI_OK;
}

// The uci tool, run on the folder's configuration; any other command answers GWCALL_STATUS.
int answer(const Command &c, int status)
{
    return !c.argv.empty() && c.argv[0] == "uci" ? uci(c.argv) : status;
}

int init()
{
    std::error_code ec;
    for (const char *dir : {"/etc/config", "/tmp", "/var/run"})
        fs::create_directories(g_root + dir, ec);
    fs::copy(GWCONF_SOURCE_DIR "/sandbox/defaults", g_root + "/etc/config",
             fs::copy_options::recursive | fs::copy_options::overwrite_existing, ec);
    if (ec)
        std::fprintf(stderr, "gwcall: %s\n", ec.message().c_str());
    return ec ? 1 : 0;
}

// The method's handler from the daemon's own tables; the status as the bus gives it for a call.
int call(const char *object, const char *method, const char *json)
{
    ubus_object *const objects[] = {&rtMacFilterObject, &zelmadMacfilterObject, &rtIptvObject, &firewallObject,
                                    &zelmadVlanObject,  &rtPortMapObject,       &rtUpnpObject, &rtWanPortMapObject};
    ubus_object *obj = nullptr;
    const ubus_method *m = nullptr;
    for (ubus_object *o : objects)
        for (int i = 0; i < o->n_methods; ++i)
            if (std::strcmp(o->name, object) == 0 && (obj = o) && std::strcmp(o->methods[i].name, method) == 0)
                m = &o->methods[i];
    if (m == nullptr)
        return obj == nullptr ? UBUS_STATUS_NOT_FOUND : UBUS_STATUS_METHOD_NOT_FOUND;
    blob_buf msg{};
    blob_buf_init(&msg, 0);
    ubus_request_data req{};
    const bool parsed = json == nullptr || blobmsg_add_json_from_string(&msg, json);
    const int status = parsed ? m->handler(nullptr, obj, &req, m->name, msg.head) : UBUS_STATUS_PARSE_ERROR;
    blob_buf_free(&msg);
    return status;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *root = std::getenv("GWCALL_ROOT");
    g_root = fs::absolute(root && *root ? root : ".").lexically_normal().string();
    if (g_root.size() > 1 && g_root.back() == '/')
        g_root.pop_back();
    routeutils::setSystemRoot(g_root);
    bool compact = false, logs = false;  // -S, -l
    for (; argc > 1 && (std::strcmp(argv[1], "-S") == 0 || std::strcmp(argv[1], "-l") == 0); --argc, ++argv)
        (argv[1][1] == 'S' ? compact : logs) = true;
    const bool start = argc == 2 && std::strcmp(argv[1], "--start") == 0;
    if (argc == 2 && std::strcmp(argv[1], "--init") == 0)
        return init();
    if (argc >= 2 && std::strcmp(argv[1], "--uci") == 0) {
        return uci(std::vector<std::string>(argv + 1, argv + argc));
    }
    if (!start && (argc < 3 || argc > 4)) {
        std::fprintf(stderr, "usage: gwcall --init | [-l] --start | --uci ARGS... | [-S] [-l] OBJECT METHOD ['JSON']\n");
        return 1;
    }

    routeutils::RecordingRunner runner;
    const int status = std::atoi(std::getenv("GWCALL_STATUS") ? std::getenv("GWCALL_STATUS") : "0");
    runner.answer = [status](const Command &c) { return answer(c, status); };
    routeutils::installCommandRunner(&runner);
    busReplyTap = keepReply;
    uloop_init();
    wanPortMapTimer.cb = applyConfig;

    // What the daemon prints on its standard output goes nowhere, as under the service manager.
    std::fflush(stdout);
    const int out = dup(STDOUT_FILENO);
    const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(devnull, STDOUT_FILENO);
    const int logFd = logs ? memfd_create("gwcall-log", MFD_CLOEXEC) : -1;
    if (logFd >= 0) {
        setenv("GWCONF_LOG_STDERR", "1", 1);
        setenv("GWCONF_LOG_LEVEL", "err", 0);  // the errors; GWCONF_LOG_LEVEL=info adds the info lines
        g_stderr = dup(STDERR_FILENO);
        dup2(logFd, STDERR_FILENO);
    }
    int result = 0;
    if (start) {
        macFilterInit();
        iptvInit();
        NatForward_upnpRestore(nullptr);
        uloop_timeout_set(&wanPortMapTimer, 30000);
    } else {
        result = call(argv[1], argv[2], argc == 4 ? argv[3] : nullptr);
    }
    const std::string ran = commandLines(runner.commands);
    std::string timers;  // each timer the call armed, fired now: what it runs
    const std::pair<uloop_timeout *, const char *> armable[] = {{&reloadNetworkTimer, "reloadNetworkTimer"},
                                                                {&wanPortMapTimer, "wanPortMapTimer"}};
    for (auto [t, name] : armable) {
        if (!t->pending)
            continue;
        const int64_t ms = (uloop_timeout_remaining64(t) + 99) / 100 * 100;
        uloop_timeout_cancel(t);
        runner.commands.clear();
        t->cb(t);
        timers += "timer: " + std::string(name) + " after " + std::to_string(ms) + " ms\n";
        timers += commandLines(runner.commands);
    }
    std::fflush(stdout);
    dup2(out, STDOUT_FILENO);
    std::string logLines;  // each entry "LEVEL [FUNCTION:LINE]MESSAGE" without ":LINE"
    if (logFd >= 0) {
        dup2(g_stderr, STDERR_FILENO);
        char chunk[4096];
        lseek(logFd, 0, SEEK_SET);
        for (ssize_t n; (n = read(logFd, chunk, sizeof chunk)) > 0;)
            logLines.append(chunk, static_cast<size_t>(n));
        static const std::regex kLine("^((?:error|info|debug) \\[[^\\]:]*):[0-9]+\\]", std::regex::multiline);
        logLines = std::regex_replace(logLines, kLine, "$1]");
    }

    if (!g_reply.empty()) {
        char *text = blobmsg_format_json_indent(reinterpret_cast<blob_attr *>(g_reply.data()), true, compact ? -1 : 0);
        std::printf("%s\n", text ? text : "");
        std::free(text);
    }
    std::printf("%s%s%s", logLines.c_str(), ran.c_str(), timers.c_str());
    uloop_done();
    return result & 0xff;
}
