// The daemon's 20 methods, called in this process with arbitrary messages: commands go to the recording runner,
// the configuration is a temporary system root filled from sandbox/defaults for every input, replies come through
// busReplyTap, and the timers a call armed fire right after it.
//
// Input: up to four calls, one per line. A call is a byte that picks the method (('a' + i) is method i of the list
// printed at start-up, modulo its length), then either a JSON object (the message, as `ubus call` takes it), or
// nothing (an empty message), or any other bytes: the raw payload of the message, which ends the input.
//
// Checks, besides the sanitizers and leaks: every reply is a well-formed blobmsg table; a call answers exactly
// when its status is 0, and only setIptv and setForbiddNet (-1), the agent's setMacFilter (2 or 9) and setIptvVlan
// (2) refuse; every command runs a program of the daemon's, and no argument or redirection holds text a shell would
// have split (request data is always one word); every package still loads; open descriptors stay flat.
// GWCONF_FUZZ_VERBOSE=1 prints each call, its status, reply and commands (to replay a saved input).
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include <arpa/inet.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <uci.h>

#include "busmethod.h"
#include "gwconf.h"
#include "routeutils/system.h"

namespace fs = std::filesystem;
using routeutils::Command;

namespace {

struct Method {
    ubus_object *obj;
    const ubus_method *m;
};
std::vector<Method> g_methods;
std::string g_root;
routeutils::RecordingRunner g_runner;
std::vector<std::vector<char>> g_replies;
bool g_verbose = false;

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "fuzz_handlers: %s\n", what.c_str());
    std::abort();
}

uci_context *uciContext()
{
    uci_context *ctx = uci_alloc_context();
    uci_set_confdir(ctx, (g_root + "/etc/config").c_str());
    uci_set_savedir(ctx, (g_root + "/tmp/.uci").c_str());
    return ctx;
}

// The uci tool's set, delete and commit, done with libuci on the root, as the router's tool would do them.
int uciTool(const Command &c)
{
    if (c.argv.size() != 3)
        return 1;
    uci_context *ctx = uciContext();
    std::string arg = c.argv[2];
    uci_ptr ptr{};
    int rc = uci_lookup_ptr(ctx, &ptr, arg.data(), true);
    if (rc == UCI_OK && c.argv[1] == "set")
        rc = uci_set(ctx, &ptr) ?: uci_save(ctx, ptr.p);
    else if (rc == UCI_OK && c.argv[1] == "delete")
        rc = uci_delete(ctx, &ptr) ?: uci_save(ctx, ptr.p);
    else if (rc == UCI_OK && c.argv[1] == "commit")
        rc = uci_commit(ctx, &ptr.p, false);
    uci_free_context(ctx);
    return rc == UCI_OK ? 0 : 1;
}

// Every command runs one of the daemon's programs and redirects only to its own files; no argument holds a blank,
// tab or line end followed by an option (words of a command line run together, which a shell would have split).
// The WAN script, the one file that a shell runs, holds no text of a request: only numbers and dotted addresses.
void checkCommands()
{
    static const std::set<std::string> programs = {
        "iptables", "ip6tables", "ebtables", "uci", "/etc/init.d/firewall", "/etc/init.d/miniupnpd",
        "/etc/init.d/network", "/tmp/wanPortMap.sh"};
    for (const Command &c : g_runner.commands) {
        if (g_verbose)
            std::fprintf(stderr, "run %s\n", c.line.c_str());
        if (c.argv.empty() || !programs.count(c.argv[0]))
            fail("command of an unknown program: " + c.line);
        for (const std::string &a : c.argv)
            for (size_t i = a.find_first_of(" \t\n"); i != std::string::npos; i = a.find_first_of(" \t\n", i + 1)) {
                const size_t j = a.find_first_not_of('-', i + 1);
                if (j > i + 1 && j != std::string::npos && std::isalpha(static_cast<unsigned char>(a[j])))
                    fail("an argument holds several words of a command line: " + c.line);
            }
        for (const routeutils::Redirection &r : c.redirections)
            if (!r.toStdout && r.path != "/dev/null" && r.path != "/tmp/wanPortMap.log")
                fail("redirection to " + r.path + ": " + c.line);
    }
    std::ifstream in(g_root + "/tmp/wanPortMap.sh");
    const std::string script{std::istreambuf_iterator<char>(in), {}};
    if (script.find_first_not_of("#!/ .-0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ\n") !=
        std::string::npos)
        fail("the WAN script holds request text:\n" + script);
}

// Every member passes the library's check, members of nested tables and arrays too, and they fill their container.
bool validMembers(const void *data, size_t len, bool named)
{
    blob_attr *cur;
    size_t rem = len, seen = 0;
    __blob_for_each_attr(cur, const_cast<void *>(data), rem) {
        if (!blobmsg_check_attr(cur, named))
            return false;
        const int type = blobmsg_type(cur);
        if ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) &&
            !validMembers(blobmsg_data(cur), blobmsg_data_len(cur), type == BLOBMSG_TYPE_TABLE))
            return false;
        seen += blob_pad_len(cur);
    }
    return seen == len;
}

bool refusalAllowed(const std::string &method, int status)
{
    if (method == "RTIptv.setIptv" || method == "firewall.setForbiddNet")
        return status == -1;
    if (method == "zelmad.macfilter.setMacFilter")
        return status == UBUS_STATUS_INVALID_ARGUMENT || status == UBUS_STATUS_UNKNOWN_ERROR;
    return method == "zelmad.vlan.setIptvVlan" && status == UBUS_STATUS_INVALID_ARGUMENT;
}

// The message as a heap block of exactly its padded size, so that a read past it is caught.
std::unique_ptr<uint8_t[]> exactCopy(const void *attr, size_t len)
{
    auto copy = std::make_unique<uint8_t[]>(len);
    std::memcpy(copy.get(), attr, len);
    return copy;
}

void call(const Method &method, std::unique_ptr<uint8_t[]> msg)
{
    const std::string name = std::string(method.obj->name) + "." + method.m->name;
    auto *attr = reinterpret_cast<blob_attr *>(msg.get());
    if (g_verbose) {
        char *json = blobmsg_format_json(attr, true);
        std::fprintf(stderr, "call %s %s\n", name.c_str(), json ? json : "(not printable)");
        std::free(json);
    }
    g_replies.clear();
    g_runner.commands.clear();
    ubus_request_data req{};
    const int status = method.m->handler(nullptr, method.obj, &req, method.m->name, attr);
    for (uloop_timeout *t : {&reloadNetworkTimer, &wanPortMapTimer}) {
        if (t->pending) {
            uloop_timeout_cancel(t);
            t->cb(t);
            uloop_timeout_cancel(t);
        }
    }
    checkCommands();
    for (auto &bytes : g_replies) {
        auto *reply = reinterpret_cast<blob_attr *>(bytes.data());
        char *json = validMembers(blob_data(reply), blob_len(reply), true) ? blobmsg_format_json(reply, true)
                                                                            : nullptr;
        if (json == nullptr)
            fail("the reply of " + name + " is not a well-formed blobmsg table");
        if (g_verbose)
            std::fprintf(stderr, "reply %s\n", json);
        std::free(json);
    }
    if (g_verbose)
        std::fprintf(stderr, "status %d\n", status);
    if (status == 0 && g_replies.size() != 1)
        fail(name + " returned 0 with " + std::to_string(g_replies.size()) + " replies");
    if (status != 0 && (!g_replies.empty() || !refusalAllowed(name, status)))
        fail(name + " refused with status " + std::to_string(status) + " in a way it must not");
}

// The root as the router starts: the default configuration, nothing saved, no file the daemon wrote.
void resetRoot()
{
    fs::remove_all(g_root + "/etc");
    fs::remove_all(g_root + "/tmp");
    fs::create_directories(g_root + "/tmp/.uci");
    fs::create_directories(g_root + "/etc");
    fs::copy(GWCONF_SOURCE_DIR "/sandbox/defaults", g_root + "/etc/config", fs::copy_options::recursive);
}

int countDescriptors()
{
    return int(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // What the daemon prints on standard output goes nowhere; its log lines are formatted but not sent.
    const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(devnull, STDOUT_FILENO);
    close(devnull);
    setenv("GWCONF_LOG_LEVEL", "debug", 1);
    setlogmask(LOG_MASK(LOG_EMERG));
    g_verbose = std::getenv("GWCONF_FUZZ_VERBOSE") != nullptr;
    char tmpl[] = "/dev/shm/gwconf-fuzz-handlers-XXXXXX";  // tmpfs: an input writes a dozen files
    if (mkdtemp(tmpl) == nullptr)
        fail("no temporary folder");
    g_root = tmpl;
    std::atexit([] { fs::remove_all(g_root); });
    resetRoot();
    routeutils::setSystemRoot(g_root);
    g_runner.answer = [](const Command &c) { return c.argv.size() > 0 && c.argv[0] == "uci" ? uciTool(c) : 0; };
    routeutils::installCommandRunner(&g_runner);
    busReplyTap = [](blob_attr *reply) {
        const auto *p = reinterpret_cast<const char *>(reply);
        g_replies.emplace_back(p, p + blob_pad_len(reply));
    };
    uloop_init();
    wanPortMapTimer.cb = applyConfig;
    macFilterInit();
    iptvInit();
    NatForward_upnpRestore(nullptr);
    std::fprintf(stderr, "fuzz_handlers: methods");
    for (ubus_object *o : {&rtMacFilterObject, &zelmadMacfilterObject, &rtIptvObject, &firewallObject,
                           &zelmadVlanObject, &rtPortMapObject, &rtUpnpObject, &rtWanPortMapObject})
        for (int i = 0; i < o->n_methods; ++i) {
            std::fprintf(stderr, " %c=%s.%s", char('a' + g_methods.size()), o->name, o->methods[i].name);
            g_methods.push_back({o, &o->methods[i]});
        }
    std::fprintf(stderr, "\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int inputs = 0, baselineFds = -1;
    resetRoot();

    const char *p = reinterpret_cast<const char *>(data), *end = p + size;
    for (int calls = 0; calls < 4 && p < end; ++calls) {
        const Method &method = g_methods[uint8_t(*p++ - 'a') % g_methods.size()];
        const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
        if (eol == nullptr)
            eol = end;
        if (p == eol || *p == '{') {
            const std::string json(p, eol);
            blob_buf b{};
            blob_buf_init(&b, 0);
            if (json.empty() || blobmsg_add_json_from_string(&b, json.c_str()))
                call(method, exactCopy(b.head, blob_pad_len(b.head)));
            blob_buf_free(&b);
            p = eol + (eol < end);
        } else {
            // A client may send any payload: the bus checks only that the data attribute fits in the message.
            const size_t raw = sizeof(blob_attr) + size_t(end - p), padded = (raw + 3) & ~size_t(3);
            auto msg = std::make_unique<uint8_t[]>(padded);
            const uint32_t idLen = htonl((uint32_t(UBUS_ATTR_DATA) << 24) | uint32_t(raw));
            std::memcpy(msg.get(), &idLen, 4);
            std::memcpy(msg.get() + 4, p, size_t(end - p));
            call(method, std::move(msg));
            p = end;
        }
    }
    uci_context *ctx = uciContext();
    for (const auto &file : fs::directory_iterator(g_root + "/etc/config")) {
        uci_package *pkg = nullptr;
        if (uci_load(ctx, file.path().filename().c_str(), &pkg) != UCI_OK)
            fail("package " + file.path().filename().string() + " no longer loads");
        uci_unload(ctx, pkg);
    }
    uci_free_context(ctx);

    if (++inputs == 8)
        baselineFds = countDescriptors();
    if (baselineFds >= 0 && inputs % 64 == 0 && countDescriptors() > baselineFds + 8)
        fail("open descriptors keep growing");
    return 0;
}
