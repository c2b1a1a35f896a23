// The daemon's 20 methods in this process: commands go to the recording runner, the configuration is a system root
// refilled from sandbox/defaults for every input, replies come through busReplyTap, armed timers fire at once.
// Input: up to four calls, one per line; a byte picks the method ('a' + i: the i-th in registration order, listed in
// docs/reliability.md), then a JSON object (the message), nothing, or other bytes (a raw payload to the input's end).
// Checked besides the sanitizers: replies are well-formed, a call answers exactly when its status is 0 and refuses
// only as listed in call(), commands are sane, every package still loads, descriptors stay flat.
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sanitizer/common_interface_defs.h>
#include <syslog.h>

#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>

#include "busmethod.h"
#include "gwconf.h"
#include "routeutils/system.h"
#include "routeutils/uci_session.h"

namespace fs = std::filesystem;
using routeutils::Command;

namespace {

std::vector<std::pair<ubus_object *, const ubus_method *>> g_methods;
std::string g_root;
routeutils::RecordingRunner g_runner;
std::vector<std::vector<char>> g_replies;

void removeRoot()
{
    std::error_code ignored;
    if (!g_root.empty())
        fs::remove_all(g_root, ignored);
}

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "fuzz_handlers: %s\n", what.c_str());
    removeRoot();
    std::abort();
}

// The uci tool's set, delete and commit, done with libuci on the root as the router's tool does them.
int uciTool(const Command &c)
{
    routeutils::UciSession s;
    std::string arg = c.argv.size() == 3 ? c.argv[2] : "";
    uci_ptr ptr{};
    int rc = uci_lookup_ptr(s.ctx(), &ptr, arg.data(), true);
    if (rc == UCI_OK && c.argv[1] == "set")
        rc = uci_set(s.ctx(), &ptr) ?: uci_save(s.ctx(), ptr.p);
    else if (rc == UCI_OK && c.argv[1] == "delete")
        rc = uci_delete(s.ctx(), &ptr) ?: uci_save(s.ctx(), ptr.p);
    else if (rc == UCI_OK && c.argv[1] == "commit")
        rc = uci_commit(s.ctx(), &ptr.p, false);
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
        const int type = blobmsg_type(cur);
        if (!blobmsg_check_attr(cur, named) ||
            ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) &&
             !validMembers(blobmsg_data(cur), blobmsg_data_len(cur), type == BLOBMSG_TYPE_TABLE)))
            return false;
        seen += blob_pad_len(cur);
    }
    return seen == len;
}

// msg holds exactly the message's padded bytes (a vector of that size), so that a read past it is caught.
void call(ubus_object *obj, const ubus_method *method, std::vector<uint8_t> msg)
{
    static const std::map<std::string, std::set<int>> refusals = {
        {"RTIptv.setIptv", {-1}}, {"firewall.setForbiddNet", {-1}},
        {"zelmad.macfilter.setMacFilter", {UBUS_STATUS_INVALID_ARGUMENT, UBUS_STATUS_UNKNOWN_ERROR}},
        {"zelmad.vlan.setIptvVlan", {UBUS_STATUS_INVALID_ARGUMENT}}};
    const std::string name = std::string(obj->name) + "." + method->name;
    g_replies.clear();
    g_runner.commands.clear();
    ubus_request_data req{};
    const int status = method->handler(nullptr, obj, &req, method->name, reinterpret_cast<blob_attr *>(msg.data()));
    for (uloop_timeout *t : {&reloadNetworkTimer, &wanPortMapTimer})
        if (t->pending && uloop_timeout_cancel(t) == 0)
            t->cb(t);
    checkCommands();
    for (auto &bytes : g_replies) {
        auto *reply = reinterpret_cast<blob_attr *>(bytes.data());
        char *json = validMembers(blob_data(reply), blob_len(reply), true) ? blobmsg_format_json(reply, true) : nullptr;
        if (json == nullptr)
            fail("the reply of " + name + " is not a well-formed blobmsg table");
        std::free(json);
    }
    if (status == 0 && g_replies.size() != 1)
        fail(name + " returned 0 with " + std::to_string(g_replies.size()) + " replies");
    if (status != 0 && (!g_replies.empty() || !refusals.count(name) || !refusals.at(name).count(status)))
        fail(name + " refused with status " + std::to_string(status) + " in a way it must not");
}

// The root as the router starts: the default configuration, nothing saved, no file the daemon wrote.
void resetRoot()
{
    for (const char *dir : {"/etc", "/tmp"})
        fs::remove_all(g_root + dir);
    fs::create_directories(g_root + "/tmp/.uci");
    fs::create_directories(g_root + "/etc");
    fs::copy(GWCONF_SOURCE_DIR "/sandbox/defaults", g_root + "/etc/config", fs::copy_options::recursive);
}

int countDescriptors() { return int(std::distance(fs::directory_iterator("/proc/self/fd"), {})); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // What the daemon prints on standard output goes nowhere; its log lines are formatted but not sent.
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        fail("no /dev/null");
    setenv("GWCONF_LOG_LEVEL", "debug", 1);
    setlogmask(LOG_MASK(LOG_EMERG));
    char tmpl[] = "/dev/shm/gwconf-fuzz-handlers-XXXXXX";  // tmpfs: an input writes a dozen files
    if (mkdtemp(tmpl) == nullptr)
        fail("no temporary folder");
    g_root = tmpl;
    std::atexit(removeRoot);
    __sanitizer_set_death_callback(removeRoot);
    resetRoot();
    routeutils::setSystemRoot(g_root);
    g_runner.answer = [](const Command &c) { return c.argv.size() > 1 && c.argv[0] == "uci" ? uciTool(c) : 0; };
    routeutils::installCommandRunner(&g_runner);
    busReplyTap = [](blob_attr *reply) {
        g_replies.emplace_back(reinterpret_cast<char *>(reply), reinterpret_cast<char *>(reply) + blob_pad_len(reply));
    };
    uloop_init();
    wanPortMapTimer.cb = applyConfig;
    macFilterInit();
    iptvInit();
    NatForward_upnpRestore(nullptr);
    for (ubus_object *o : {&rtMacFilterObject, &zelmadMacfilterObject, &rtIptvObject, &firewallObject,
                           &zelmadVlanObject, &rtPortMapObject, &rtUpnpObject, &rtWanPortMapObject})
        for (int i = 0; i < o->n_methods; ++i)
            g_methods.emplace_back(o, &o->methods[i]);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int inputs = 0, baselineFds = -1;
    resetRoot();
    const char *p = reinterpret_cast<const char *>(data), *end = p + size;
    for (int calls = 0; calls < 4 && p < end; ++calls) {
        const auto [obj, method] = g_methods[uint8_t(*p++ - 'a') % g_methods.size()];
        const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
        eol = eol ? eol : end;
        blob_buf b{};
        blob_buf_init(&b, 0);
        bool parsed = true;
        if (p < eol && *p == '{')
            parsed = blobmsg_add_json_from_string(&b, std::string(p, eol).c_str());
        else if (p < eol) {  // a client may send any payload: the bus checks only that it fits in the message
            blob_put_raw(&b, p, unsigned(end - p));
            eol = end;
        }
        if (parsed)
            call(obj, method, std::vector<uint8_t>((uint8_t *)b.head, (uint8_t *)b.head + blob_pad_len(b.head)));
        blob_buf_free(&b);
        p = eol + (eol < end);
    }
    for (const auto &file : fs::directory_iterator(g_root + "/etc/config")) {
        routeutils::UciSession s;
        if (s.load(file.path().filename().c_str()) != UCI_OK)
            fail("package " + file.path().filename().string() + " no longer loads");
    }
    if (++inputs == 8)
        baselineFds = countDescriptors();
    if (baselineFds >= 0 && inputs % 64 == 0 && countDescriptors() > baselineFds + 8)
        fail("open descriptors keep growing");
    return 0;
}
