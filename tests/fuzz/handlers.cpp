// The daemon's 20 methods in this process (docs/reliability.md): commands go to the recording runner, replies come
// through busReplyTap, armed timers fire at once, the system root is refilled from sandbox/defaults for every input.
// Up to four calls, one per line: a byte picks the method ('a' + i: the i-th registered), then a JSON object, nothing
// or other bytes (a raw payload to the input's end).
#include <map>
#include <regex>
#include <set>
#include <syslog.h>

#include <libubox/uloop.h>

#include "busmethod.h"
#include "fuzz.h"
#include "gwconf.h"
#include "routeutils/system.h"
#include "uci_command.h"

namespace fs = std::filesystem;
using routeutils::Command;

namespace {

std::vector<std::pair<ubus_object *, const ubus_method *>> g_methods;
std::string g_root;
routeutils::RecordingRunner g_runner;
std::vector<std::vector<char>> g_replies;

// Every command runs one of the daemon's programs and redirects only to its own files; no argument holds a blank,
// tab or line end followed by an option (words of a command line run together, which a shell would have split).
// The WAN script, the one file that a shell runs, holds no text of a request: only numbers and dotted addresses.
void checkCommands()
{
    static const std::set<std::string> programs = {
        "iptables", "ip6tables", "ebtables", "uci", "/etc/init.d/firewall", "/etc/init.d/miniupnpd",
        "/etc/init.d/network", "/tmp/wanPortMap.sh"};
    static const std::regex option("[ \t\n]-+[A-Za-z]");
    for (const Command &c : g_runner.commands) {
        FUZZ_CHECK(!c.argv.empty() && programs.count(c.argv[0]), "command of an unknown program: " + c.line);
        for (const std::string &a : c.argv)
            FUZZ_CHECK(!std::regex_search(a, option), "an argument holds several words of a command line: " + c.line);
        for (const routeutils::Redirection &r : c.redirections)
            FUZZ_CHECK(r.toStdout || r.path == "/dev/null" || r.path == "/tmp/wanPortMap.log",
                       "redirection to " + r.path + ": " + c.line);
    }
    std::ifstream in(g_root + "/tmp/wanPortMap.sh");
    const std::string script{std::istreambuf_iterator<char>(in), {}};
    FUZZ_CHECK(script.find_first_not_of("#!/ .-0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ\n") ==
                   std::string::npos, "the WAN script holds request text:\n" + script);
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
        auto *r = reinterpret_cast<blob_attr *>(bytes.data());
        char *text = fuzz::wellFormed(blob_data(r), blob_len(r), true) ? blobmsg_format_json(r, true) : nullptr;
        FUZZ_CHECK(text, "the reply of " + name + " is not a well-formed blobmsg table");
        std::free(text);
    }
    FUZZ_CHECK(status != 0 || g_replies.size() == 1,
               name + " returned 0 with " + std::to_string(g_replies.size()) + " replies");
    FUZZ_CHECK(status == 0 || (g_replies.empty() && refusals.count(name) && refusals.at(name).count(status)),
               name + " refused with status " + std::to_string(status) + " in a way it must not");
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
    FUZZ_CHECK(std::freopen("/dev/null", "w", stdout), "no /dev/null");
    setenv("GWCONF_LOG_LEVEL", "debug", 1);
    setlogmask(LOG_MASK(LOG_EMERG));
    g_root = fuzz::scratch();
    resetRoot();
    routeutils::setSystemRoot(g_root);
    g_runner.answer = [](const Command &c) {
        return !c.argv.empty() && c.argv[0] == "uci" ? uciCommand(c.argv, nullptr) != UCI_OK : 0;
    };
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
        const char *eol = std::find(p, end, '\n');
        blob_buf b{};
        blob_buf_init(&b, 0);
        const bool json = p < eol && *p == '{';
        if (p < eol && !json)  // a client may send any payload: the bus checks only that it fits in the message
            blob_put_raw(&b, p, unsigned(end - p)), eol = end;
        if (!json || blobmsg_add_json_from_string(&b, std::string(p, eol).c_str()))
            call(obj, method, std::vector<uint8_t>((uint8_t *)b.head, (uint8_t *)b.head + blob_pad_len(b.head)));
        blob_buf_free(&b);
        p = eol + (eol < end);
    }
    for (const auto &file : fs::directory_iterator(g_root + "/etc/config"))
        FUZZ_CHECK(routeutils::UciSession().load(file.path().filename().c_str()) == UCI_OK,
                   "package " + file.path().filename().string() + " no longer loads");
    if (++inputs == 8)
        baselineFds = countDescriptors();
    FUZZ_CHECK(baselineFds < 0 || inputs % 64 != 0 || countDescriptors() <= baselineFds + 8,
               "open descriptors keep growing");
    return 0;
}
