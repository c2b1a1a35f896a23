// The daemon's method handlers, in this process, fed arbitrary messages inside an emulated router: the
// configuration is the router's /etc/config, commands run through its recording shims, and replies go to a real
// bus daemon. Started on the host, the program re-executes itself inside a fresh router (sandbox_reexec.h).
//
// Input: up to four calls, one after the other.
//   call   := sel:u8 body
//             the method is (sel & 0x7f) modulo the number of methods, in registration order of the objects
//             (the list is printed at start-up); sel & 0x80 selects a raw body, otherwise a decoded table.
//   raw    := len:u16le bytes[len]        the payload of the message's data attribute, as any client may send it
//                                         (ubusd and libubus check only that the attribute fits in the message)
//   table  := count:u8 field*(count % 16)
//   field  := name:u8 type:u8 value
//             name: 0xff = len:u8 then that many bytes; 0xfe = no name; else an entry of the name list below
//                   (the names the handlers look for, nested ones included)
//             type % 8: 0 string, 1 int32, 2 bool (int8), 3 int16, 4 int64, 5 double, 6 table, 7 array
//   string := k:u8   k < 0xc0: an entry of the value list below; 0xff: len:u16le bytes;
//             0xfe: i:u8 sep:u8 n:u8, value i of the list repeated n % 48 + 1 times, joined by one of ",; /"
//             (long lists and over-long texts from a few bytes); else (k - 0xc0) bytes
//   int*   := little-endian bytes of the width;  table/array := count:u8 field*(count % 16), nesting depth <= 4
//
// Each input starts from the same state: /etc/config and /tmp/.uci as the router made them. After each call the
// timers a handler armed fire at once (as the event loop would run them after their delay). Checks, besides the
// sanitizers and LeakSanitizer:
//   - every reply is a well-formed blobmsg list (read back from the bus daemon by a second client);
//   - a handler that returns 0 has sent exactly one reply; one that returns anything else has sent none, and
//     only the setters that may refuse a call that way do it: setIptv and setForbiddNet with -1, the agent
//     objects' setMacFilter and setIptvVlan with 2 (invalid argument) or 9 (unknown error);
//   - every configuration package still loads with libuci after the input;
//   - open descriptors stay flat across inputs.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
#include <uci.h>

#include "gwconf.h"
#include "fuzz/sandbox_reexec.h"

namespace {

[[noreturn]] void fail(const char *fmt, const char *detail = "")
{
    std::fprintf(stderr, "fuzz_handlers: ");
    std::fprintf(stderr, fmt, detail);
    std::fprintf(stderr, "\n");
    std::abort();
}

// ------------------------------------------------------------------------------------------------------------
// Input decoding

// Field names the handlers read, at the top level and inside nested tables. Names from the method policies that
// are missing here are appended at start-up.
const char *const kNames[] = {
    "enable", "model", "macList", "name", "mac", "macFilterEnable", "macFilterPolicy", "macFilterEntries",
    "vlanId", "vlan1", "vlan2", "vlan3", "type", "vlanEnable", "iptvStatus", "radio", "index", "MapList",
    "Operation", "Name", "Protocol", "InternalIP", "InternalPort", "ExternalPort", "PmapID", "StartPort",
    "StopPort", "GmapID", "Enable", "Enabled", "InPort", "ExPort", "RemoteAddr", "params", "DevName", "DevMac",
};

const char *const kValues[] = {
    "00:11:22:33:44:55", "AA:BB:CC:DD:EE:FF", "aa:bb:cc:dd:ee:ff", "001122334455", "AABBCCDDEEFF",
    "00-11-22-33-44-55", "ff:ff:ff:ff:ff:ff", "00:00:00:00:00:00", "00:11:22:33:44:5", "00:11:22:33:44:55:66",
    "001122334455/phone", "00:11:22:33:44:55/phone", "AABBCCDDEEFF/tv,001122334455/pc", "001122334455/",
    "/phone", ",", "/", "192.168.1.100", "192.168.1.1", "10.0.0.1", "0.0.0.0", "255.255.255.255",
    "192.168.1.256", "1.2.3", "::1", "", "a", "phone", "name with blanks", "x;reboot", "$(id)", "`id`",
    "'\"\\", "a\nb", "2.4G", "5G", "1", "0", "-1", "65535", "65536", "tcp", "udp", "TCP/UDP",
    "0123456789012345678901234567890123456789012345678901234567890123",
};

constexpr size_t kValueCount = sizeof kValues / sizeof kValues[0];

struct Reader {
    const uint8_t *p;
    size_t n;
    bool empty() const { return n == 0; }
    uint8_t u8()
    {
        if (n == 0)
            return 0;
        --n;
        return *p++;
    }
    uint64_t le(int bytes)
    {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i)
            v |= uint64_t(u8()) << (8 * i);
        return v;
    }
    std::string bytes(size_t len)
    {
        len = len < n ? len : n;
        std::string s(reinterpret_cast<const char *>(p), len);
        p += len;
        n -= len;
        return s;
    }
};

std::vector<std::string> g_names;

void addString(blob_buf *b, const char *name, const std::string &value)
{
    // Exact bytes, NULs included, plus the terminator the wire format asks for.
    std::string s = value;
    s.push_back('\0');
    blobmsg_add_field(b, BLOBMSG_TYPE_STRING, name, s.data(), unsigned(s.size()));
}

void decodeFields(Reader &in, blob_buf *b, bool array, int depth);

void decodeField(Reader &in, blob_buf *b, bool array, int depth)
{
    std::string name;
    uint8_t nb = in.u8();
    if (nb == 0xff)
        name = in.bytes(in.u8());
    else if (nb != 0xfe)
        name = g_names[nb % g_names.size()];
    if (array)
        name.clear();
    // Names with a NUL in them end there, as for any C client.
    const char *cname = name.c_str();
    uint8_t type = in.u8();
    switch (type % 8) {
    case 0: {
        uint8_t k = in.u8();
        if (k < 0xc0) {
            addString(b, cname, kValues[k % kValueCount]);
        } else if (k == 0xfe) {
            const char *item = kValues[in.u8() % kValueCount];
            char sep = ",; /"[in.u8() % 4];
            int times = in.u8() % 48 + 1;
            std::string joined = item;
            for (int i = 1; i < times; ++i)
                joined += sep + std::string(item);
            addString(b, cname, joined);
        } else if (k == 0xff)
            addString(b, cname, in.bytes(in.le(2)));
        else
            addString(b, cname, in.bytes(k - 0xc0));
        break;
    }
    case 1:
        blobmsg_add_u32(b, cname, uint32_t(in.le(4)));
        break;
    case 2:
        blobmsg_add_u8(b, cname, in.u8());
        break;
    case 3:
        blobmsg_add_u16(b, cname, uint16_t(in.le(2)));
        break;
    case 4:
        blobmsg_add_u64(b, cname, in.le(8));
        break;
    case 5: {
        uint64_t bits = in.le(8);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        blobmsg_add_double(b, cname, d);
        break;
    }
    case 6:
    case 7: {
        bool isArray = (type % 8) == 7;
        void *cookie = blobmsg_open_nested(b, cname, isArray);
        decodeFields(in, b, isArray, depth + 1);
        blobmsg_close_table(b, cookie);
        break;
    }
    }
}

void decodeFields(Reader &in, blob_buf *b, bool array, int depth)
{
    int count = in.u8() % 16;
    if (depth > 4)
        count = 0;
    for (int i = 0; i < count && !in.empty(); ++i)
        decodeField(in, b, array, depth);
}

// A heap block of exactly the message's padded size, so any read past it is caught.
struct Message {
    std::unique_ptr<uint8_t[]> bytes;
    blob_attr *attr() const { return reinterpret_cast<blob_attr *>(bytes.get()); }
};

Message rawMessage(const std::string &payload)
{
    size_t raw = sizeof(blob_attr) + payload.size();
    size_t padded = (raw + 3) & ~size_t(3);
    Message m{std::make_unique<uint8_t[]>(padded)};
    std::memset(m.bytes.get(), 0, padded);
    uint32_t idLen = htonl((uint32_t(UBUS_ATTR_DATA) << 24) | uint32_t(raw));
    std::memcpy(m.bytes.get(), &idLen, 4);
    std::memcpy(m.bytes.get() + 4, payload.data(), payload.size());
    return m;
}

Message copyMessage(const blob_attr *head)
{
    size_t len = blob_pad_len(head);
    Message m{std::make_unique<uint8_t[]>(len)};
    std::memcpy(m.bytes.get(), head, len);
    return m;
}

// ------------------------------------------------------------------------------------------------------------
// The bus: the daemon's context, and a plain second client that receives the replies.

struct Method {
    ubus_object *obj;
    const ubus_method *m;
};
std::vector<Method> g_methods;
ubus_context *g_ctx = nullptr;
int g_peerFd = -1;
uint32_t g_peerId = 0;
uint16_t g_seq = 0;
// GWCONF_FUZZ_VERBOSE=1: each call, its status and its reply on standard error (for replaying an input).
bool g_verbose = false;
constexpr uint16_t kMarkerSeq = 0xffff;

bool readFull(int fd, uint8_t *buf, size_t len)
{
    while (len > 0) {
        // A finished child interrupts the wait (the event loop's SIGCHLD handler is installed); wait again.
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, 10000);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            std::fprintf(stderr, "fuzz_handlers: %s while waiting for the bus daemon\n",
                         ready == 0 ? "10 s passed" : std::strerror(errno));
            return false;
        }
        ssize_t r = read(fd, buf, len);
        if (r <= 0) {
            if (r < 0 && errno == EINTR)
                continue;
            std::fprintf(stderr, "fuzz_handlers: reading from the bus daemon: %s\n",
                         r == 0 ? "end of file" : std::strerror(errno));
            return false;
        }
        buf += r;
        len -= size_t(r);
    }
    return true;
}

// One bus message: the 8-byte header, then the attribute container.
bool readFrame(int fd, ubus_msghdr &hdr, std::vector<uint8_t> &container)
{
    uint8_t head[12];
    if (!readFull(fd, head, sizeof head))
        return false;
    std::memcpy(&hdr, head, sizeof hdr);
    uint32_t idLen;
    std::memcpy(&idLen, head + 8, 4);
    size_t len = ntohl(idLen) & BLOB_ATTR_LEN_MASK;
    if (len < 4 || len > (1u << 24))
        return false;
    container.assign(len, 0);
    std::memcpy(container.data(), head + 8, 4);
    return readFull(fd, container.data() + 4, len - 4);
}

void connectPeer()
{
    g_peerFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    std::strcpy(sun.sun_path, UBUS_UNIX_SOCKET);
    if (g_peerFd < 0 || connect(g_peerFd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0)
        fail("cannot connect the reply reader to %s", UBUS_UNIX_SOCKET);
    ubus_msghdr hdr;
    std::vector<uint8_t> container;
    if (!readFrame(g_peerFd, hdr, container) || hdr.type != UBUS_MSG_HELLO)
        fail("no greeting from the bus daemon%s");
    g_peerId = ntohl(hdr.peer);
}

// Every member passes the library's check, members of nested tables and arrays too, and they fill their
// container exactly.
bool validMembers(const void *data, size_t len, bool named)
{
    blob_attr *cur;
    size_t rem = len, seen = 0;
    __blob_for_each_attr(cur, const_cast<void *>(data), rem) {
        if (!blobmsg_check_attr(cur, named))
            return false;
        int type = blobmsg_type(cur);
        if ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) &&
            !validMembers(blobmsg_data(cur), blobmsg_data_len(cur), type == BLOBMSG_TYPE_TABLE))
            return false;
        seen += blob_pad_len(cur);
    }
    return seen == len;
}

// Reads what the bus daemon passed on since the last call, up to the marker sent after it, and checks each reply.
int collectReplies(uint16_t seq, const Method &method)
{
    static blob_buf marker;
    blob_buf_init(&marker, 0);
    ubus_request_data req{};
    req.object = method.obj->id;
    req.peer = g_peerId;
    req.seq = kMarkerSeq;
    req.fd = req.req_fd = -1;
    if (ubus_send_reply(g_ctx, &req, marker.head) != 0)
        fail("the daemon's bus connection is gone%s");
    int replies = 0;
    for (;;) {
        ubus_msghdr hdr;
        std::vector<uint8_t> container;
        if (!readFrame(g_peerFd, hdr, container))
            fail("no marker back from the bus daemon%s");
        if (ntohs(hdr.seq) == kMarkerSeq)
            return replies;
        if (hdr.type != UBUS_MSG_DATA || ntohs(hdr.seq) != seq)
            fail("unexpected message for the caller after %s", method.m->name);
        auto *c = reinterpret_cast<blob_attr *>(container.data());
        const blob_attr *data = nullptr, *cur;
        size_t rem;
        blob_for_each_attr(cur, c, rem) {
            if (blob_id(cur) == UBUS_ATTR_DATA)
                data = cur;
        }
        if (data == nullptr)
            fail("reply of %s without a data attribute", method.m->name);
        if (!validMembers(blob_data(data), blob_len(data), true))
            fail("reply of %s is not a well-formed blobmsg list", method.m->name);
        char *json = blobmsg_format_json(const_cast<blob_attr *>(data), true);
        if (json == nullptr)
            fail("reply of %s does not print as JSON", method.m->name);
        if (g_verbose)
            std::fprintf(stderr, "fuzz_handlers: reply %s\n", json);
        std::free(json);
        ++replies;
    }
}

// The statuses other than 0 a method may end with (always without a reply).
bool refusalAllowed(const Method &method, int status)
{
    std::string full = std::string(method.obj->name) + "." + method.m->name;
    if (full == "RTIptv.setIptv" || full == "firewall.setForbiddNet")
        return status == -1;
    if (full == "zelmad.macfilter.setMacFilter")
        return status == UBUS_STATUS_INVALID_ARGUMENT || status == UBUS_STATUS_UNKNOWN_ERROR;
    if (full == "zelmad.vlan.setIptvVlan")
        return status == UBUS_STATUS_INVALID_ARGUMENT;
    return false;
}

// ------------------------------------------------------------------------------------------------------------
// The router's state

std::map<std::string, std::string> g_config;   // /etc/config as the router made it
constexpr const char *kConfigDir = "/etc/config";
constexpr const char *kSaveDir = "/tmp/.uci";
constexpr const char *kWork = "/run/fuzz-handlers";

std::string readFile(const std::string &path)
{
    std::string s;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        return s;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
        s.append(buf, n);
    std::fclose(f);
    return s;
}

std::vector<std::string> listDir(const char *dir)
{
    std::vector<std::string> names;
    DIR *d = opendir(dir);
    if (d == nullptr)
        return names;
    while (dirent *e = readdir(d))
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.push_back(e->d_name);
    closedir(d);
    return names;
}

void snapshotConfig()
{
    for (const auto &name : listDir(kConfigDir))
        g_config[name] = readFile(std::string(kConfigDir) + "/" + name);
    if (g_config.empty())
        fail("%s is empty: not inside the emulated router?", kConfigDir);
}

void restoreConfig()
{
    for (const auto &name : listDir(kConfigDir))
        if (!g_config.count(name))
            unlink((std::string(kConfigDir) + "/" + name).c_str());
    for (const auto &[name, text] : g_config) {
        std::string path = std::string(kConfigDir) + "/" + name;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 || write(fd, text.data(), text.size()) != ssize_t(text.size()))
            fail("cannot restore %s", path.c_str());
        close(fd);
    }
    for (const auto &name : listDir(kSaveDir))
        unlink((std::string(kSaveDir) + "/" + name).c_str());
}

void checkConfigLoads()
{
    uci_context *uci = uci_alloc_context();
    uci_set_confdir(uci, kConfigDir);
    uci_set_savedir(uci, kSaveDir);
    for (const auto &name : listDir(kConfigDir)) {
        uci_package *pkg = nullptr;
        if (uci_load(uci, name.c_str(), &pkg) != UCI_OK) {
            std::fprintf(stderr, "--- /etc/config/%s\n%s---\n", name.c_str(),
                         readFile(std::string(kConfigDir) + "/" + name).c_str());
            fail("package %s no longer loads", name.c_str());
        }
        uci_unload(uci, pkg);
    }
    uci_free_context(uci);
}

// Runs one of this harness's own commands (never through a shell); stdin from `in` when given.
int run(std::vector<const char *> argv, const char *in = nullptr, const char *out = nullptr)
{
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (in != nullptr) {
            int fd = open(in, O_RDONLY);
            if (fd < 0 || dup2(fd, 0) < 0)
                _exit(126);
        }
        if (out != nullptr) {
            int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd < 0 || dup2(fd, 1) < 0)
                _exit(126);
        }
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 2);
        execvp(argv[0], const_cast<char *const *>(argv.data()));
        _exit(127);
    }
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128;
}

// The kernel rules as the router made them, put back now and then: handlers add rules that the configuration
// reset does not remove, and an ever-growing rule set would slow every later command.
const char *const kSaved[][3] = {
    {"iptables-save", "iptables-restore", "/run/fuzz-handlers/iptables"},
    {"ip6tables-save", "ip6tables-restore", "/run/fuzz-handlers/ip6tables"},
    {"ebtables-save", "ebtables-restore", "/run/fuzz-handlers/ebtables"},
};

void saveRules()
{
    for (const auto &s : kSaved)
        run({s[0]}, nullptr, s[2]);
}

void restoreRules()
{
    timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    run({"nft", "flush", "ruleset"});
    for (const auto &s : kSaved)
        run({s[1]}, s[2]);
    clock_gettime(CLOCK_MONOTONIC, &t1);
    if (g_verbose)
        std::fprintf(stderr, "fuzz_handlers: kernel rules put back in %ld ms\n",
                     long((t1.tv_sec - t0.tv_sec) * 1000 + (t1.tv_nsec - t0.tv_nsec) / 1000000));
}

void reapChildren()
{
    // The daemon's event loop collects every finished child; without a running loop, this does it.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

int countDescriptors() { return int(listDir("/proc/self/fd").size()); }

// Timers run by the event loop after their delay; here they fire right after the call that armed them.
void fireTimers()
{
    for (uloop_timeout *t : {&reloadNetworkTimer, &wanPortMapTimer}) {
        if (t->pending && t->cb != nullptr) {
            uloop_timeout_cancel(t);
            t->cb(t);
            uloop_timeout_cancel(t);
        }
    }
}

void startDaemonParts()
{
    uloop_init();
    g_ctx = ubus_connect(nullptr);
    if (g_ctx == nullptr)
        fail("no bus daemon on %s (build the ubusd target of this build folder)", UBUS_UNIX_SOCKET);
    // The same start-up as gwconfd's main, without the event loop.
    macFilterInit();
    iptvInit();
    for (ubus_object *o : {&rtMacFilterObject, &zelmadMacfilterObject, &rtIptvObject, &firewallObject,
                           &zelmadVlanObject, &rtPortMapObject})
        ubus_add_object(g_ctx, o);
    NatForward_upnpRestore(g_ctx);
    wanPortMapTimer.cb = applyConfig;
    ubus_add_object(g_ctx, &rtWanPortMapObject);

    for (ubus_object *o : {&rtMacFilterObject, &zelmadMacfilterObject, &rtIptvObject, &firewallObject,
                           &zelmadVlanObject, &rtPortMapObject, &rtUpnpObject, &rtWanPortMapObject}) {
        if (o->id == 0)
            fail("object %s did not register", o->name);
        for (int i = 0; i < o->n_methods; ++i) {
            g_methods.push_back({o, &o->methods[i]});
            for (int j = 0; j < o->methods[i].n_policy; ++j) {
                const char *n = o->methods[i].policy[j].name;
                if (n != nullptr && std::find(g_names.begin(), g_names.end(), n) == g_names.end())
                    g_names.push_back(n);
            }
        }
    }
    std::fprintf(stderr, "fuzz_handlers: %zu methods:", g_methods.size());
    for (size_t i = 0; i < g_methods.size(); ++i)
        std::fprintf(stderr, " %zu=%s.%s", i, g_methods[i].obj->name, g_methods[i].m->name);
    std::fprintf(stderr, "\n");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_sandbox::enterRouter(*argc, *argv, "fuzz_handlers");
    // As under the service manager, what the daemon and its commands print on standard output goes nowhere;
    // libFuzzer reports on standard error.
    int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devnull < 0 || dup2(devnull, STDOUT_FILENO) < 0)
        fail("cannot send standard output to /dev/null%s");
    close(devnull);
    g_names.assign(std::begin(kNames), std::end(kNames));
    g_verbose = std::getenv("GWCONF_FUZZ_VERBOSE") != nullptr;
    mkdir(kWork, 0755);
    snapshotConfig();
    saveRules();
    startDaemonParts();
    connectPeer();
    restoreConfig();
    reapChildren();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int inputs = 0;
    static int baselineFds = -1;

    restoreConfig();
    Reader in{data, size};
    for (int call = 0; call < 4 && !in.empty(); ++call) {
        uint8_t sel = in.u8();
        const Method &method = g_methods[(sel & 0x7f) % g_methods.size()];
        Message msg;
        if (sel & 0x80) {
            msg = rawMessage(in.bytes(in.le(2)));
        } else {
            static blob_buf b;
            blob_buf_init(&b, 0);
            decodeFields(in, &b, false, 0);
            msg = copyMessage(b.head);
            blob_buf_free(&b);
        }

        g_seq = uint16_t(g_seq % 0x7fff + 1);
        ubus_request_data req{};
        req.object = method.obj->id;
        req.peer = g_peerId;
        req.seq = g_seq;
        req.fd = req.req_fd = -1;
        if (g_verbose) {
            char *json = blobmsg_format_json(msg.attr(), true);
            std::fprintf(stderr, "fuzz_handlers: call %s.%s %s\n", method.obj->name, method.m->name,
                         json != nullptr ? json : "(not printable)");
            std::free(json);
        }
        int status = method.m->handler(g_ctx, method.obj, &req, method.m->name, msg.attr());
        if (g_verbose)
            std::fprintf(stderr, "fuzz_handlers: status %d\n", status);
        fireTimers();
        int replies = collectReplies(g_seq, method);
        if (status == 0 && replies != 1) {
            std::fprintf(stderr, "fuzz_handlers: %d replies\n", replies);
            fail("%s returned 0 without exactly one reply", method.m->name);
        }
        if (status != 0 && (replies != 0 || !refusalAllowed(method, status))) {
            std::fprintf(stderr, "fuzz_handlers: status %d, %d replies\n", status, replies);
            fail("%s refused a call in a way it must not", method.m->name);
        }
        reapChildren();
    }
    checkConfigLoads();

    ++inputs;
    if (inputs == 8)
        baselineFds = countDescriptors();
    if (baselineFds >= 0 && inputs % 64 == 0 && countDescriptors() > baselineFds + 8)
        fail("open descriptors keep growing%s");
    if (inputs % 256 == 0)
        restoreRules();
    return 0;
}
