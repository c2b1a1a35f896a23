// Helpers of the fault tests; see fault.h.
#include "support/fault.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/router.h"

#include <uci.h>

namespace gw::e2e {

const std::vector<std::string> kWrittenPackages = {"macFilter", "firewall", "iptv", "network", "WanPortMap", "upnpd"};

namespace {

using Clock = std::chrono::steady_clock;

void pauseMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

UciPackage load(const std::string &name)
{
    UciPackage out;
    uci_context *ctx = uci_alloc_context();
    if (!ctx) {
        out.error = "no memory for a context";
        return out;
    }
    ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_STRICT);
    uci_package *pkg = nullptr;
    if (uci_load(ctx, name.c_str(), &pkg) != UCI_OK || !pkg) {
        char *err = nullptr;
        uci_get_errorstr(ctx, &err, name.c_str());
        out.error = err ? err : "load failed";
        free(err);
        uci_free_context(ctx);
        return out;
    }
    out.ok = true;
    uci_element *se;
    uci_foreach_element(&pkg->sections, se)
    {
        uci_section *s = uci_to_section(se);
        UciSection section;
        section.name = s->anonymous ? "" : se->name;
        section.type = s->type ? s->type : "";
        uci_element *oe;
        uci_foreach_element(&s->options, oe)
        {
            uci_option *o = uci_to_option(oe);
            std::string value;
            if (o->type == UCI_TYPE_STRING) {
                value = o->v.string ? o->v.string : "";
            } else {
                uci_element *ie;
                uci_foreach_element(&o->v.list, ie) value += "\n" + std::string(ie->name ? ie->name : "");
                if (value.empty())
                    value = "\n";
            }
            section.options[oe->name] = value;
        }
        out.sections.push_back(std::move(section));
    }
    char *buf = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&buf, &len);
    if (mem) {
        uci_export(ctx, mem, pkg, true);
        fclose(mem);
        out.text.assign(buf, len);
        free(buf);
    }
    uci_free_context(ctx);
    return out;
}

std::string show(const std::string &value)
{
    if (value.empty())
        return "(absent)";
    if (value[0] != '\n')
        return "'" + value + "'";
    std::string items = "list[";
    for (char c : value.substr(1))
        items += c == '\n' ? std::string("|") : std::string(1, c);
    return items + "]";
}

std::string describe(const UciSection &s)
{
    std::string text = s.type + (s.name.empty() ? "" : " '" + s.name + "'") + " {";
    for (const auto &[k, v] : s.options)
        text += " " + k + "=" + show(v);
    return text + " }";
}

const UciSection *named(const UciPackage &p, const std::string &name)
{
    for (const auto &s : p.sections)
        if (s.name == name)
            return &s;
    return nullptr;
}

int countAnonymous(const UciPackage &p, const UciSection &like)
{
    return static_cast<int>(std::count_if(p.sections.begin(), p.sections.end(),
                                           [&](const UciSection &s) { return s.name.empty() && s == like; }));
}

std::string optionOf(const UciSection *s, const std::string &option)
{
    if (!s)
        return "";
    auto it = s->options.find(option);
    return it == s->options.end() ? "" : it->second;
}

// True when `value` is a list holding the first items of the list `full` (also none at all).
bool listPrefix(const std::string &value, const std::string &full)
{
    if (full.empty() || full[0] != '\n')
        return false;
    if (value.empty() || value == "\n")
        return true;
    return value[0] == '\n' && full.compare(0, value.size(), value) == 0 &&
           (full.size() == value.size() || full[value.size()] == '\n');
}

}  // namespace

UciPackage loadConfigFile(const std::string &package) { return load(std::string(kConfigDir) + "/" + package); }

UciPackage loadPackage(const std::string &package) { return load(package); }

std::string checkOldOrNew(const UciPackage &before, const UciPackage &after, const UciPackage &now,
                          bool rebuiltLists, const std::map<std::string, std::string> &passing)
{
    if (!now.ok)
        return "does not load: " + now.error;
    std::ostringstream why;
    std::set<std::string> names;
    for (const auto *p : {&before, &after, &now})
        for (const auto &s : p->sections)
            if (!s.name.empty())
                names.insert(s.name);
    for (const auto &name : names) {
        const UciSection *b = named(before, name), *a = named(after, name), *n = named(now, name);
        bool same = (!b && !a) || (b && a && *b == *a);
        for (const auto &[key, value] : passing)
            same = same && key.compare(0, name.size() + 1, name + ".") != 0;
        if (same) {
            if ((b == nullptr) != (n == nullptr) || (n && !(*n == *b)))
                why << "section '" << name << "' is untouched by the write but reads "
                    << (n ? describe(*n) : "(absent)") << " instead of " << describe(*b) << "\n";
            continue;
        }
        if (!n)
            continue;   // deleted on the way from before to after
        if ((!b || n->type != b->type) && (!a || n->type != a->type))
            why << "section '" << name << "' has the type '" << n->type << "', neither before nor after\n";
        std::set<std::string> options;
        for (const auto *s : {b, a, n})
            if (s)
                for (const auto &[k, v] : s->options)
                    options.insert(k);
        for (const auto &o : options) {
            std::string nv = optionOf(n, o), bv = optionOf(b, o), av = optionOf(a, o);
            auto via = passing.find(name + "." + o);
            if (nv == bv || nv == av || (rebuiltLists && listPrefix(nv, av)) ||
                (via != passing.end() && via->second == nv))
                continue;
            why << "option " << name << "." << o << " reads " << show(nv) << ", before " << show(bv) << ", after "
                << show(av) << "\n";
        }
    }
    for (const auto &s : now.sections) {
        if (!s.name.empty())
            continue;
        int inNow = countAnonymous(now, s), inBefore = countAnonymous(before, s), inAfter = countAnonymous(after, s);
        if (inNow > std::max(inBefore, inAfter))
            why << "anonymous section " << describe(s) << " appears " << inNow << " times (before " << inBefore
                << ", after " << inAfter << ")\n";
    }
    for (const auto &s : before.sections) {
        if (!s.name.empty())
            continue;
        int kept = std::min(countAnonymous(before, s), countAnonymous(after, s));
        if (countAnonymous(now, s) < kept)
            why << "anonymous section " << describe(s) << " that the write keeps is lost\n";
    }
    return why.str();
}

std::vector<std::string> hiddenConfigFiles()
{
    std::vector<std::string> out;
    if (DIR *d = opendir(kConfigDir)) {
        while (dirent *e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != ".." && n[0] == '.')
                out.push_back(n);
        }
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::map<std::string, std::string> snapshotFolder(const std::string &dir)
{
    std::map<std::string, std::string> files;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            std::string path = dir + "/" + e->d_name;
            struct stat st {};
            if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
                files[e->d_name] = readFile(path);
        }
        closedir(d);
    }
    return files;
}

void restoreFolder(const std::string &dir, const std::map<std::string, std::string> &files)
{
    for (const auto &[name, text] : snapshotFolder(dir))
        if (!files.count(name))
            unlink((dir + "/" + name).c_str());
    mkdir(dir.c_str(), 0755);
    for (const auto &[name, text] : files) {
        std::ofstream out(dir + "/" + name, std::ios::binary | std::ios::trunc);
        out << text;
    }
}

void adoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

std::vector<pid_t> childrenNamed(const std::string &name)
{
    std::vector<pid_t> out;
    const pid_t self = getpid();
    DIR *d = opendir("/proc");
    if (!d)
        return out;
    while (dirent *e = readdir(d)) {
        char *end = nullptr;
        long pid = std::strtol(e->d_name, &end, 10);
        if (pid <= 0 || *end)
            continue;
        // /proc/PID/stat: "pid (comm) state ppid ..."; comm may hold blanks and parentheses.
        std::string stat = readFile("/proc/" + std::string(e->d_name) + "/stat");
        size_t open = stat.find('('), close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos || close + 4 > stat.size())
            continue;
        std::istringstream rest(stat.substr(close + 2));
        char state = 0;
        long ppid = 0;
        rest >> state >> ppid;
        if (ppid == self && (name.empty() || stat.substr(open + 1, close - open - 1) == name))
            out.push_back(static_cast<pid_t>(pid));
    }
    closedir(d);
    return out;
}

bool reapChildren(const std::vector<pid_t> &keep, int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        std::vector<pid_t> left;
        for (pid_t pid : childrenNamed("")) {
            if (std::find(keep.begin(), keep.end(), pid) != keep.end())
                continue;
            int st = 0;
            if (waitpid(pid, &st, WNOHANG) == 0)
                left.push_back(pid);
        }
        if (left.empty())
            return true;
        if (Clock::now() >= end) {
            for (pid_t pid : left) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
            return false;
        }
        pauseMs(2);
    }
}

pid_t spawnQuiet(const std::vector<std::string> &argv)
{
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
        }
        execvp(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int waitQuiet(pid_t pid, int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int st = 0;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid)
            return WIFEXITED(st) ? WEXITSTATUS(st) : WIFSIGNALED(st) ? 128 + WTERMSIG(st) : -1;
        if (r < 0)
            return -1;
        if (Clock::now() >= end) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            return -1;
        }
        pauseMs(1);
    }
}

}  // namespace gw::e2e
