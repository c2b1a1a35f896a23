// Whole-process figures of gwconfd, measured in the emulated router (its service scripts record and return, so
// a firewall reload costs what a recorder costs):
//
//   start   fork/exec of gwconfd until a bus client has seen all eight objects announced ("ubus.object.add"
//           events), 20 starts, each with a fresh process on the same bus: first with iptables, ip6tables and
//           ebtables replaced by programs that do nothing, then 20 more through the sandbox's shims (journal,
//           then the real tool on the sandbox's kernel tables);
//   rss     VmRSS of the last started process when idle, after 1,000 and after 10,000 calls of the getters
//           (its anonymous and file parts too);
//   methods the latency of every method of the eight objects through the bus, one row per kind of request
//           (a setter is measured in both directions, e.g. on and off, so each call really changes something).
//
// The configuration is the emulated router's default one with /etc/config/firewall replaced by a package of 500
// sections (its defaults, then zones, forwardings, rules, other programs' redirects and a few port and group
// mappings). Outside a sandbox the program runs itself again inside `sandbox/router --bus-only`.
//
// Usage: bench_daemon [--out FILE] [--starts N] [--calls N] [--quick]
// Writes one JSON object to FILE (default: stdout) and a line per phase to stderr.
#include "bench_util.h"
#include "sandbox_entry.h"

#include <libubus.h>
extern "C" {
#include <libubox/blobmsg_json.h>
}

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using gwbench::median;

double msSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

const char *const kObjects[] = {"RTMacFilter", "zelmad.macfilter", "RTIptv",  "firewall",
                                "zelmad.vlan", "RTPortMap",        "RTUpnp", "RTWanPortMap"};
constexpr int kFirewallSections = 500;

// ---- the configuration ----------------------------------------------------------------------------------------

int countSections(const std::string &text)
{
    int n = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find_first_not_of(" \t");
        if (at != std::string::npos && line.compare(at, 7, "config ") == 0)
            n++;
    }
    return n;
}

// The default firewall package grown to `total` sections. 8 port mappings and 4 group mappings sit in the
// middle of the package, so the daemon's scans pass other sections before and after them.
std::string firewallPackage(const std::string &defaults, int total)
{
    std::ostringstream f;
    f << defaults;
    int n = countSections(defaults);
    auto mapping = [&](const char *idOption, int id, const std::string &ports, const char *src) {
        f << "\nconfig redirect\n\toption name 'map" << idOption[0] << id << "'\n\toption " << idOption << " '" << id
          << "'\n\tlist proto 'tcp'\n\toption src_dport '" << ports << "'\n\toption dest_port '" << ports
          << "'\n\toption dest_ip '192.168.1." << 100 + id << "'\n\toption target 'DNAT'\n\toption dest 'lan'\n"
          << "\toption src '" << src << "'\n";
        n++;
    };
    const int mappingSections = 2 * 8 + 2 * 4;
    const int before = (total - n - mappingSections) / 2;
    auto filler = [&](int count) {
        for (int i = 0; i < count; i++, n++) {
            const int k = n;
            switch (k % 10) {
            case 0:
                f << "\nconfig zone\n\toption name 'vz" << k << "'\n\tlist network 'vlan" << k
                  << "'\n\toption input 'REJECT'\n\toption output 'ACCEPT'\n\toption forward 'REJECT'\n";
                break;
            case 1:
                f << "\nconfig forwarding\n\toption src 'vz" << k - 1 << "'\n\toption dest 'wan'\n";
                break;
            case 2:
            case 3:
            case 4:
            case 5:
            case 6:
                f << "\nconfig rule\n\toption name 'Allow-Svc-" << k << "'\n\toption src 'wan'\n\toption proto '"
                  << (k % 2 ? "udp" : "tcp") << "'\n\toption dest_port '" << 30000 + k
                  << "'\n\toption family 'ipv4'\n\toption target 'ACCEPT'\n";
                break;
            default:
                f << "\nconfig redirect\n\toption name 'fwd" << k << "'\n\toption src 'wan'\n\toption proto 'tcp'\n"
                  << "\toption src_dport '" << 40000 + k << "'\n\toption dest_ip '192.168.1." << 2 + k % 200
                  << "'\n\toption dest_port '" << 40000 + k << "'\n\toption target 'DNAT'\n";
            }
        }
    };
    filler(before);
    for (const char *src : {"wan", "lan"})
        for (int id = 1; id <= 8; id++)
            mapping("PmapID", id, std::to_string(10000 + id), src);
    for (const char *src : {"wan", "lan"})
        for (int id = 1; id <= 4; id++)
            mapping("GmapID", id, std::to_string(20000 + 100 * id) + "-" + std::to_string(20009 + 100 * id), src);
    filler(total - n);
    return f.str();
}

// ---- processes --------------------------------------------------------------------------------------------------

std::string tool(const char *envName, const char *name)
{
    const char *v = std::getenv(envName);
    return v != nullptr && *v != '\0' ? v : std::string(GWCONF_BIN_DIR) + "/" + name;
}

// `path` empty: the sandbox's PATH; else the PATH the daemon gets.
pid_t spawnDaemon(const std::string &gwconfd, const std::string &path)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!path.empty())
            setenv("PATH", path.c_str(), 1);
        const int out = open("/run/sandbox/gwconfd.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (out >= 0) {
            dup2(out, 1);
            dup2(out, 2);
        }
        execl(gwconfd.c_str(), gwconfd.c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

int stopDaemon(pid_t pid)
{
    int status = 0;
    kill(pid, SIGTERM);
    for (int i = 0; i < 1000; i++) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return 137;
}

// Resident memory of a process from /proc/<pid>/status, in KiB: all of it, its anonymous part (heap, stacks,
// data) and its file part (code and data of the program and its libraries). -1 when unreadable.
struct Rss {
    long total = -1, anon = -1, file = -1;
};

Rss rssOf(pid_t pid)
{
    Rss r;
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        for (auto [key, field] : {std::pair{"VmRSS:", &r.total}, {"RssAnon:", &r.anon}, {"RssFile:", &r.file}})
            if (line.compare(0, strlen(key), key) == 0)
                *field = std::strtol(line.c_str() + strlen(key), nullptr, 10);
    }
    return r;
}

// Time a process spent on a CPU and waiting for one, in ns, from /proc/<pid>/schedstat.
std::pair<double, double> schedTimes(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
    double onCpu = 0, waiting = 0;
    in >> onCpu >> waiting;
    return {onCpu, waiting};
}

// ---- the bus client ---------------------------------------------------------------------------------------------

struct Client;
Client *s_client = nullptr; // the one client whose event handler is registered

struct Client {
    ubus_context *ctx = nullptr;
    ubus_event_handler added{};
    std::map<std::string, Clock::time_point> seen; // object name -> when its add event arrived

    bool connect()
    {
        for (int i = 0; i < 400 && ctx == nullptr; i++) {
            ctx = ubus_connect(nullptr);
            if (ctx == nullptr)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (ctx == nullptr)
            return false;
        s_client = this;
        added.cb = [](ubus_context *, ubus_event_handler *ev, const char *, blob_attr *msg) {
            (void)ev;
            Client *self = s_client;
            blob_attr *attr;
            size_t rem;
            blobmsg_for_each_attr(attr, msg, rem)
            {
                if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING && strcmp(blobmsg_name(attr), "path") == 0)
                    self->seen.emplace(blobmsg_get_string(attr), Clock::now());
            }
        };
        return ubus_register_event_handler(ctx, &added, "ubus.object.add") == 0;
    }
    ~Client()
    {
        if (ctx != nullptr)
            ubus_free(ctx);
    }

    bool allSeen() const
    {
        return std::all_of(std::begin(kObjects), std::end(kObjects), [&](const char *o) { return seen.count(o); });
    }

    // Handles bus traffic until all eight objects were announced or `ms` passed.
    bool waitAllAdded(int ms)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        while (!allSeen()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            if (left <= 0)
                return false;
            pollfd p{ctx->sock.fd, POLLIN, 0};
            if (poll(&p, 1, int(left)) > 0)
                ubus_handle_event(ctx);
        }
        return true;
    }

    bool present(const char *object)
    {
        uint32_t id = 0;
        return ubus_lookup_id(ctx, object, &id) == 0;
    }

    struct Reply {
        int status = -1;
        bool replied = false;
        bool resultFalse = false;
    };

    Reply call(const char *object, const char *method, blob_attr *msg)
    {
        Reply r;
        uint32_t id = 0;
        if (ubus_lookup_id(ctx, object, &id) != 0)
            return r;
        r.status = ubus_invoke(
            ctx, id, method, msg,
            [](ubus_request *req, int, blob_attr *reply) {
                Reply *out = static_cast<Reply *>(req->priv);
                out->replied = true;
                blob_attr *attr;
                size_t rem;
                blobmsg_for_each_attr(attr, reply, rem)
                {
                    if (strcmp(blobmsg_name(attr), "result") == 0 && blobmsg_type(attr) == BLOBMSG_TYPE_INT8 &&
                        !blobmsg_get_bool(attr))
                        out->resultFalse = true;
                }
            },
            &r, 20000);
        return r;
    }
};

// A request as its JSON text, encoded once.
struct Request {
    const char *object, *method, *label, *json;
    blob_buf buf{};
    void encode()
    {
        blob_buf_init(&buf, 0);
        if (!blobmsg_add_json_from_string(&buf, json)) {
            std::fprintf(stderr, "bench_daemon: bad request text %s\n", json);
            std::exit(1);
        }
    }
};

// ---- phases -------------------------------------------------------------------------------------------------------

struct Figures {
    struct Starts {
        std::vector<double> ms;        // fork/exec to the last object announced
        std::vector<double> restoreMs; // RTUpnp announced to RTWanPortMap announced: the start-up commands
        std::vector<double> cpuMs;     // the daemon's own time on a CPU until then (not its commands')
        std::vector<double> queuedMs;  // the daemon's time waiting for a CPU until then
        int failures = 0;
    };
    Starts stubbed; // iptables, ip6tables and ebtables are programs that do nothing
    Starts shimmed; // the sandbox's shims: journal line, then the real tool on the sandbox's kernel tables
    Rss idle, after1k, after;
    int calls = 0, callFailures = 0;
    double callsSeconds = 0;
    struct Row {
        std::string object, method, label;
        int n = 0, failures = 0;
        double medianMs = 0, maxMs = 0;
    };
    std::vector<Row> rows;
    int exitStatus = -1;
};

// Starts gwconfd `starts` times, each after the previous one ended and its objects left the bus; `path` is the
// daemon's PATH (empty: the sandbox's). The last one is left running and returned.
pid_t measureStarts(Client &bus, const std::string &gwconfd, const std::string &path, int starts,
                    Figures::Starts &out, pid_t previous)
{
    pid_t pid = previous;
    for (int i = 0; i < starts; i++) {
        if (pid > 0) {
            // A SIGTERM that arrives before the daemon's event loop runs is lost (the loop clears a pending
            // cancel on entry), so first make sure it answers calls.
            blob_buf none{};
            blob_buf_init(&none, 0);
            bus.call("RTIptv", "test", none.head);
            blob_buf_free(&none);
            stopDaemon(pid);
            // The bus drops the objects when it sees the connection close.
            for (int k = 0; k < 2000 && bus.present("RTWanPortMap"); k++)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        bus.seen.clear();
        const auto t0 = Clock::now();
        pid = spawnDaemon(gwconfd, path);
        if (bus.waitAllAdded(20000)) {
            const auto t1 = Clock::now();
            const auto [cpuNs, queuedNs] = schedTimes(pid);
            auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };
            out.ms.push_back(ms(t1 - t0));
            out.restoreMs.push_back(ms(bus.seen["RTWanPortMap"] - bus.seen["RTUpnp"]));
            out.cpuMs.push_back(cpuNs / 1e6);
            out.queuedMs.push_back(queuedNs / 1e6);
        } else {
            out.failures++;
        }
    }
    return pid;
}

// A folder of firewall tools that do nothing, for the daemon's PATH.
std::string stubPath()
{
    const std::string dir = "/run/bench-stubs";
    mkdir(dir.c_str(), 0755);
    for (const char *name : {"iptables", "ip6tables", "ebtables"}) {
        const std::string link = dir + "/" + name;
        unlink(link.c_str());
        if (symlink("/bin/true", link.c_str()) != 0)
            return {};
    }
    const char *path = std::getenv("PATH");
    return dir + ":" + (path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
}

int main2(int argc, char **argv)
{
    std::string outPath;
    int starts = 20, calls = 10000, getterN = 50, setterN = 10;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--out" && i + 1 < argc)
            outPath = argv[++i];
        else if (a == "--starts" && i + 1 < argc)
            starts = std::max(1, std::atoi(argv[++i]));
        else if (a == "--calls" && i + 1 < argc)
            calls = std::max(1000, std::atoi(argv[++i]));
        else if (a == "--quick") {
            starts = 5;
            calls = 1000;
            getterN = 10;
            setterN = 4;
        } else {
            std::fprintf(stderr, "usage: bench_daemon [--out FILE] [--starts N] [--calls N] [--quick]\n");
            return 2;
        }
    }

    // The configuration: the defaults with a 500-section firewall package.
    {
        std::ifstream in("/etc/config/firewall");
        std::stringstream defaults;
        defaults << in.rdbuf();
        std::ofstream("/etc/config/firewall", std::ios::trunc) << firewallPackage(defaults.str(), kFirewallSections);
    }
    {
        std::ifstream in("/etc/config/firewall");
        std::stringstream text;
        text << in.rdbuf();
        if (countSections(text.str()) != kFirewallSections) {
            std::fprintf(stderr, "bench_daemon: the firewall package holds %d sections\n", countSections(text.str()));
            return 1;
        }
    }

    Client bus;
    if (!bus.connect()) {
        std::fprintf(stderr, "bench_daemon: no bus\n");
        return 1;
    }
    Figures fig;
    const std::string gwconfd = tool("GWCONF_GWCONFD", "gwconfd");
    const std::string stubs = stubPath();
    if (stubs.empty()) {
        std::fprintf(stderr, "bench_daemon: cannot make the stub folder\n");
        return 1;
    }
    pid_t pid = measureStarts(bus, gwconfd, stubs, starts, fig.stubbed, -1);
    pid = measureStarts(bus, gwconfd, "", starts, fig.shimmed, pid);
    std::fprintf(stderr,
                 "bench_daemon: %zu starts, median %.1f ms with stubbed commands (%.1f ms of them the commands, "
                 "daemon on a CPU %.1f ms, waiting for one %.1f ms), %.1f ms through the shims\n",
                 fig.stubbed.ms.size(), median(fig.stubbed.ms), median(fig.stubbed.restoreMs),
                 median(fig.stubbed.cpuMs), median(fig.stubbed.queuedMs), median(fig.shimmed.ms));
    if (fig.stubbed.ms.empty() || fig.shimmed.ms.empty())
        return 1;

    // Idle: let the start-up's children finish and the daemon settle.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    fig.idle = rssOf(pid);

    // The getters of every object, in turn.
    std::vector<Request> getters = {
        {"RTMacFilter", "getMacFilterList", "", "{}"}, {"zelmad.macfilter", "getMacFilter", "", "{}"},
        {"RTIptv", "getIptvInfo", "", "{}"},           {"RTIptv", "test", "", "{}"},
        {"zelmad.vlan", "getIptvVlan", "", "{}"},      {"RTPortMap", "getPortMapping", "", "{}"},
        {"RTPortMap", "getGroupMapping", "", "{}"},    {"RTUpnp", "getUpnpStatus", "", "{}"},
        {"RTWanPortMap", "getWanPortMap", "", "{}"},
    };
    for (auto &g : getters)
        g.encode();
    const auto c0 = Clock::now();
    for (int i = 0; i < calls; i++) {
        Request &g = getters[size_t(i) % getters.size()];
        const Client::Reply r = bus.call(g.object, g.method, g.buf.head);
        if (r.status != 0 || !r.replied || r.resultFalse)
            fig.callFailures++;
        if (i + 1 == calls / 10)
            fig.after1k = rssOf(pid);
    }
    fig.callsSeconds = msSince(c0) / 1000.0;
    fig.calls = calls;
    fig.after = rssOf(pid);
    std::fprintf(stderr, "bench_daemon: %d calls in %.1f s, RSS idle %ld KiB, after %d %ld, after %d %ld\n",
                 calls, fig.callsSeconds, fig.idle.total, calls / 10, fig.after1k.total, calls, fig.after.total);

    // Every method. Each group is run in turn, N times; a group's requests undo each other, so the state after
    // a full turn is the state before it.
    struct Group {
        int n;
        std::vector<Request> steps;
    };
    std::vector<Group> groups;
    for (auto &g : getters)
        groups.push_back({getterN, {{g.object, g.method, "", g.json}}});
    const char *mac = R"("macList":{"name":"bench","mac":"AA:BB:CC:DD:EE:01"})";
    static std::string addMac = std::string(R"({"enable":1,"model":1,)") + mac + "}";
    groups.push_back({setterN,
                      {{"RTMacFilter", "setMacFilter", "black list on", R"({"enable":1,"model":1})"},
                       {"RTMacFilter", "setMacFilter", "off", R"({"enable":0,"model":1})"}}});
    groups.push_back({setterN,
                      {{"RTMacFilter", "addMacFilterList", "", addMac.c_str()},
                       {"RTMacFilter", "delMacFilterList", "", addMac.c_str()}}});
    groups.push_back(
        {setterN,
         {{"zelmad.macfilter", "setMacFilter", "two entries",
           R"({"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE10/tv,AABBCCDDEE11/console"})"},
          {"zelmad.macfilter", "setMacFilter", "off",
           R"({"macFilterEnable":0,"macFilterPolicy":0,"macFilterEntries":""})"}}});
    groups.push_back({setterN,
                      {{"firewall", "setForbiddNet", "block", R"({"enable":1,"mac":"AA:BB:CC:DD:EE:20"})"},
                       {"firewall", "setForbiddNet", "unblock", R"({"enable":0,"mac":"AA:BB:CC:DD:EE:20"})"}}});
    groups.push_back(
        {setterN,
         {{"RTPortMap", "modPortMapping", "add",
           R"({"MapList":[{"Name":"bench","Protocol":0,"InternalIP":"192.168.1.200","InternalPort":80,"ExternalPort":9000}],"Operation":1})"},
          {"RTPortMap", "modPortMapping", "delete", R"({"MapList":[{"PmapID":9}],"Operation":0})"}}});
    groups.push_back(
        {setterN,
         {{"RTPortMap", "modGroupMapping", "add",
           R"({"MapList":[{"Name":"bench","Protocol":1,"InternalIP":"192.168.1.201","StartPort":9100,"StopPort":9110}],"Operation":1})"},
          {"RTPortMap", "modGroupMapping", "delete", R"({"MapList":[{"GmapID":5}],"Operation":0})"}}});
    groups.push_back({setterN,
                      {{"RTUpnp", "setUpnpStatus", "on", R"({"Enable":1})"},
                       {"RTUpnp", "setUpnpStatus", "off", R"({"Enable":0})"}}});
    // These two arm a delayed apply (1 s after the change); they run last so the applies overlap no other row.
    groups.push_back(
        {setterN,
         {{"RTIptv", "setIptv", "on", R"({"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":0})"},
          {"RTIptv", "setIptv", "off", R"({"enable":0,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":0})"}}});
    groups.push_back(
        {setterN,
         {{"zelmad.vlan", "setIptvVlan", "on", R"({"vlanEnable":1,"vlanId":200,"iptvStatus":[{"radio":"LAN","index":2}]})"},
          {"zelmad.vlan", "setIptvVlan", "off", R"({"vlanEnable":0,"vlanId":0,"iptvStatus":[]})"}}});
    groups.push_back(
        {setterN,
         {{"RTWanPortMap", "setWanPortMap", "on", R"({"Enabled":1,"InPort":8080,"ExPort":80,"RemoteAddr":"203.0.113.7"})"},
          {"RTWanPortMap", "setWanPortMap", "off", R"({"Enabled":0,"InPort":8080,"ExPort":80})"}}});

    for (auto &g : groups) {
        for (auto &s : g.steps)
            s.encode();
        std::vector<std::vector<double>> ms(g.steps.size());
        std::vector<int> failures(g.steps.size(), 0);
        for (int i = 0; i < g.n; i++) {
            for (size_t k = 0; k < g.steps.size(); k++) {
                Request &s = g.steps[k];
                const auto t0 = Clock::now();
                const Client::Reply r = bus.call(s.object, s.method, s.buf.head);
                ms[k].push_back(msSince(t0));
                if (r.status != 0 || !r.replied || r.resultFalse)
                    failures[k]++;
            }
        }
        for (size_t k = 0; k < g.steps.size(); k++) {
            Figures::Row row{g.steps[k].object, g.steps[k].method, g.steps[k].label, g.n, failures[k], median(ms[k]),
                             *std::max_element(ms[k].begin(), ms[k].end())};
            std::fprintf(stderr, "bench_daemon: %s %s %s: %.2f ms (%d failed)\n", row.object.c_str(),
                         row.method.c_str(), row.label.c_str(), row.medianMs, row.failures);
            fig.rows.push_back(row);
            blob_buf_free(&g.steps[k].buf);
        }
    }
    for (auto &g : getters)
        blob_buf_free(&g.buf);
    fig.exitStatus = stopDaemon(pid);

    // The figures as one JSON object.
    std::ostringstream j;
    j << "{\"firewall_sections\":" << kFirewallSections;
    for (const auto &[name, st] : {std::pair{"start_stubbed", &fig.stubbed}, std::pair{"start_shims", &fig.shimmed}}) {
        j << ",\"" << name << "_ms\":[";
        for (size_t i = 0; i < st->ms.size(); i++)
            j << (i ? "," : "") << st->ms[i];
        j << "],\"" << name << "_failures\":" << st->failures << ",\"" << name << "_median_ms\":" << median(st->ms)
          << ",\"" << name << "_commands_median_ms\":" << median(st->restoreMs) << ",\"" << name
          << "_cpu_median_ms\":" << median(st->cpuMs) << ",\"" << name << "_queued_median_ms\":" << median(st->queuedMs);
    }
    for (const auto &[name, rss] :
         {std::pair{"idle_rss", &fig.idle}, std::pair{"rss_warm", &fig.after1k}, std::pair{"rss_after_calls", &fig.after}})
        j << ",\"" << name << "_kib\":" << rss->total << ",\"" << name << "_anon_kib\":" << rss->anon << ",\""
          << name << "_file_kib\":" << rss->file;
    j << ",\"warm_calls\":" << fig.calls / 10 << ",\"calls\":" << fig.calls
      << ",\"call_failures\":" << fig.callFailures << ",\"calls_seconds\":" << fig.callsSeconds
      << ",\"exit_status\":" << fig.exitStatus << ",\"methods\":[";
    for (size_t i = 0; i < fig.rows.size(); i++) {
        const auto &r = fig.rows[i];
        j << (i ? "," : "") << "{\"object\":\"" << r.object << "\",\"method\":\"" << r.method << "\",\"label\":\""
          << r.label << "\",\"n\":" << r.n << ",\"failures\":" << r.failures << ",\"median_ms\":" << r.medianMs
          << ",\"max_ms\":" << r.maxMs << "}";
    }
    j << "]}\n";
    if (outPath.empty()) {
        std::fputs(j.str().c_str(), stdout);
    } else {
        std::ofstream out(outPath, std::ios::trunc);
        out << j.str();
        if (!out) {
            std::fprintf(stderr, "bench_daemon: cannot write %s\n", outPath.c_str());
            return 1;
        }
    }
    return fig.exitStatus == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    // Inside the emulated router, with the bus daemon of this build running and no gwconfd.
    gwbench::enterSandbox(true);
    return main2(argc, argv);
}
