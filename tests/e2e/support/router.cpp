// The end-to-end fixture: programs, files, journal, kernel rules and the daemon's log inside the emulated router.
#include "support/router.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace gw::e2e {

const std::vector<std::string> kDaemonObjects = {"RTMacFilter", "zelmad.macfilter", "RTIptv",
                                                 "firewall",    "zelmad.vlan",      "RTPortMap",
                                                 "RTUpnp",      "RTWanPortMap"};

namespace {

using Clock = std::chrono::steady_clock;

void pause(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// A program of the build, as the sandbox names it in the environment, else its bare name (found on PATH).
std::string tool(const char *var, const char *name)
{
    const char *path = std::getenv(var);
    return path && *path ? path : name;
}

std::string realTool(const std::string &name) { return "/run/sandbox/real/" + name; }

int decodeStatus(int st)
{
    if (WIFEXITED(st))
        return WEXITSTATUS(st);
    if (WIFSIGNALED(st))
        return 128 + WTERMSIG(st);
    return -1;
}

std::vector<char *> cArgs(const std::vector<std::string> &argv)
{
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    return args;
}

// Starts a long-running program with its stdout and stderr appended to `logPath`.
pid_t spawnLogged(const std::vector<std::string> &argv, const std::string &logPath,
                  const std::vector<std::string> &env = {})
{
    auto args = cArgs(argv);
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int in = open("/dev/null", O_RDONLY);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        if (in >= 0)
            dup2(in, 0);
        for (const auto &e : env)
            putenv(const_cast<char *>(e.c_str()));
        execvp(args[0], args.data());
        dprintf(2, "cannot run %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    return pid;
}

// Waits up to timeoutMs for the child to end; its exit status, or -1 when it is still running.
int waitChild(pid_t pid, int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int st = 0;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid)
            return decodeStatus(st);
        if (r < 0)
            return -1;
        if (Clock::now() >= end)
            return -1;
        pause(10);
    }
}

// Ends a child: `sig`, then SIGKILL after timeoutMs. Its exit status.
int endChild(pid_t pid, int sig, int timeoutMs)
{
    kill(pid, sig);
    int status = waitChild(pid, timeoutMs);
    if (status == -1) {
        kill(pid, SIGKILL);
        int st = 0;
        waitpid(pid, &st, 0);
        ADD_FAILURE() << "process " << pid << " did not end within " << timeoutMs << " ms of signal " << sig
                      << "; killed";
        status = decodeStatus(st);
    }
    return status;
}

bool socketAccepts(const char *path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

std::string fileFrom(const std::string &path, long offset)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return {};
    in.seekg(offset);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

long fileSize(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

bool sanitizerReported(const std::string &log)
{
    return log.find("ERROR: AddressSanitizer") != std::string::npos ||
           log.find("ERROR: LeakSanitizer") != std::string::npos ||
           log.find("runtime error:") != std::string::npos;
}

}  // namespace

// ---- plain helpers ------------------------------------------------------------------------------------------

RunResult run(const std::vector<std::string> &argv, const std::string &input, int timeoutMs)
{
    RunResult result;
    int inPipe[2], outPipe[2], errPipe[2];
    if (pipe2(inPipe, O_CLOEXEC) || pipe2(outPipe, O_CLOEXEC) || pipe2(errPipe, O_CLOEXEC)) {
        result.err = "pipe failed";
        return result;
    }
    auto args = cArgs(argv);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(inPipe[0], 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        execvp(args[0], args.data());
        dprintf(2, "cannot run %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    // Inputs are small (well under a pipe's capacity), so writing all of it first cannot block.
    if (!input.empty() && write(inPipe[1], input.data(), input.size()) < 0)
        result.err = "writing the input failed\n";
    close(inPipe[1]);

    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string *sinks[2] = {&result.out, &result.err};
    int openPipes = 2;
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    bool killed = false;
    while (openPipes > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            if (killed)
                break;   // something the program started still holds its output open
            kill(pid, SIGKILL);
            killed = true;
            result.err += "[run: " + argv[0] + " killed after " + std::to_string(timeoutMs) + " ms]\n";
            deadline = Clock::now() + std::chrono::seconds(2);
            continue;
        }
        if (poll(fds, 2, static_cast<int>(left)) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --openPipes;
            }
        }
    }
    for (auto &f : fds)
        if (f.fd >= 0)
            close(f.fd);
    int st = 0;
    waitpid(pid, &st, 0);
    result.status = decodeStatus(st);
    return result;
}

std::string readFile(const std::string &path) { return fileFrom(path, 0); }

bool fileExists(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

void writeFile(const std::string &path, const std::string &text, unsigned mode)
{
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        ASSERT_TRUE(out) << "cannot write " << path;
        out << text;
    }
    chmod(path.c_str(), mode);
}

std::string jsonString(const std::string &s)
{
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

std::vector<std::string> splitLines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

int logCount(const std::string &log, const std::string &level, const std::string &function,
             const std::string &message)
{
    const std::string head = level + " [" + function + ":";
    int count = 0;
    for (size_t at = log.find(head); at != std::string::npos; at = log.find(head, at + 1)) {
        if (at != 0 && log[at - 1] != '\n')
            continue;   // the level word starts an entry
        size_t p = at + head.size();
        size_t digits = p;
        while (p < log.size() && std::isdigit(static_cast<unsigned char>(log[p])))
            ++p;
        if (p == digits || p >= log.size() || log[p] != ']')
            continue;
        ++p;
        if (log.compare(p, message.size(), message) != 0)
            continue;
        size_t after = p + message.size();
        // The message must end there: at the end of the log, at a line end, or itself with a line end.
        if (after == log.size() || log[after] == '\n' || (!message.empty() && message.back() == '\n'))
            ++count;
    }
    return count;
}

bool logContains(const std::string &log, const std::string &level, const std::string &function,
                 const std::string &message)
{
    return logCount(log, level, function, message) > 0;
}

// ---- the fixture --------------------------------------------------------------------------------------------

void RouterTest::SetUp()
{
    ASSERT_NE(std::getenv("GWCONF_SANDBOX"), nullptr)
        << "e2e tests run inside the emulated router; start them through their own main() or sandbox/router";
}

void RouterTest::TearDown()
{
    bool died = false;
    if (daemon_ > 0) {
        if (!daemonRunning()) {
            died = true;
        } else {
            int status = stopDaemon();
            EXPECT_EQ(status, 0) << "gwconfd did not exit cleanly on SIGTERM";
        }
    } else if (daemonExit_ != -1) {
        died = true;
    }
    if (died)
        ADD_FAILURE() << "gwconfd ended by itself during the test (exit status " << daemonExit_ << ")";
    if (bus_ > 0)
        stopBus();

    std::string log = readFile(kDaemonLog);
    if (sanitizerReported(log))
        ADD_FAILURE() << "a sanitizer reported in gwconfd's log";
    if (HasFailure()) {
        std::cerr << "---- journal (" << kJournal << ")\n" << readFile(kJournal);
        std::cerr << "---- gwconfd log (" << kDaemonLog << ")\n" << log;
        std::string busLog = readFile(kBusLog);
        if (!busLog.empty())
            std::cerr << "---- bus log (" << kBusLog << ")\n" << busLog;
        std::cerr << "----\n";
    }
}

void RouterTest::writeConfig(const std::string &package, const std::string &text)
{
    writeFile(std::string(kConfigDir) + "/" + package, text);
}

void RouterTest::removeConfig(const std::string &package)
{
    std::string path = std::string(kConfigDir) + "/" + package;
    ASSERT_TRUE(unlink(path.c_str()) == 0 || errno == ENOENT) << "cannot remove " << path;
}

std::string RouterTest::readConfig(const std::string &package)
{
    return readFile(std::string(kConfigDir) + "/" + package);
}

void RouterTest::start()
{
    ASSERT_NO_FATAL_FAILURE(startBus());
    ASSERT_NO_FATAL_FAILURE(startDaemon());
}

void RouterTest::startBus()
{
    ASSERT_LE(bus_, 0) << "the bus daemon is already running";
    bus_ = spawnLogged({tool("GWCONF_UBUSD", "ubusd")}, kBusLog);
    ASSERT_GT(bus_, 0);
    auto end = Clock::now() + std::chrono::seconds(20);
    while (!socketAccepts(kBusSocket)) {
        int status = waitChild(bus_, 0);
        if (status != -1) {
            bus_ = -1;
            FAIL() << "the bus daemon exited with status " << status << "; log:\n" << readFile(kBusLog);
        }
        ASSERT_LT(Clock::now(), end) << "the bus daemon did not open " << kBusSocket;
        pause(20);
    }
}

void RouterTest::stopBus()
{
    if (bus_ <= 0)
        return;
    endChild(bus_, SIGTERM, 10000);
    bus_ = -1;
}

void RouterTest::killBus()
{
    if (bus_ <= 0)
        return;
    endChild(bus_, SIGKILL, 10000);
    bus_ = -1;
}

void RouterTest::startDaemon(bool wait)
{
    ASSERT_LE(daemon_, 0) << "gwconfd is already running";
    daemonLogStart_ = fileSize(kDaemonLog);
    daemonExit_ = -1;
    daemon_ = spawnLogged({tool("GWCONF_GWCONFD", "gwconfd")}, kDaemonLog, {"GWCONF_LOG_STDERR=1"});
    ASSERT_GT(daemon_, 0);
    if (wait) {
        ASSERT_TRUE(waitObjects(kDaemonObjects)) << "gwconfd did not register its objects; its log:\n"
                                                 << daemonLog();
    }
}

int RouterTest::stopDaemon()
{
    if (daemon_ <= 0) {   // already ended: its status, now taken note of
        int status = daemonExit_;
        daemonExit_ = -1;
        return status;
    }
    int status = endChild(daemon_, SIGTERM, 10000);
    daemon_ = -1;
    daemonExit_ = -1;
    return status;
}

void RouterTest::killDaemon()
{
    daemonExit_ = -1;
    if (daemon_ <= 0)
        return;
    endChild(daemon_, SIGKILL, 10000);
    daemon_ = -1;
    daemonExit_ = -1;
}

void RouterTest::restartDaemon()
{
    EXPECT_EQ(stopDaemon(), 0) << "gwconfd did not exit cleanly on SIGTERM";
    startDaemon();
}

bool RouterTest::daemonRunning()
{
    if (daemon_ <= 0)
        return false;
    int status = waitChild(daemon_, 0);
    if (status == -1)
        return true;
    daemonExit_ = status;
    daemon_ = -1;
    return false;
}

std::vector<std::string> RouterTest::objects()
{
    return splitLines(run({tool("GWCONF_UBUS", "ubus"), "-S", "list"}, {}, 10000).out);
}

bool RouterTest::waitObjects(const std::vector<std::string> &names, int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto present = objects();
        bool all = std::all_of(names.begin(), names.end(), [&](const std::string &n) {
            return std::find(present.begin(), present.end(), n) != present.end();
        });
        if (all)
            return true;
        if ((daemon_ > 0 && !daemonRunning()) || Clock::now() >= end)
            return false;
        pause(50);
    }
}

CallResult RouterTest::call(const std::string &object, const std::string &method, const std::string &json,
                            int timeoutSeconds)
{
    std::vector<std::string> argv = {tool("GWCONF_UBUS", "ubus"), "-S", "-t", std::to_string(timeoutSeconds),
                                     "call", object, method};
    if (!json.empty())
        argv.push_back(json);
    RunResult r = run(argv, {}, (timeoutSeconds + 10) * 1000);
    CallResult c;
    c.status = r.status;
    c.reply = r.out;
    while (!c.reply.empty() && c.reply.back() == '\n')
        c.reply.pop_back();
    return c;
}

RunResult RouterTest::uci(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {tool("GWCONF_UCI", "uci")};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
}

std::optional<std::string> RouterTest::uciGet(const std::string &path)
{
    RunResult r = uci({"get", path});
    if (r.status != 0)
        return std::nullopt;
    if (!r.out.empty() && r.out.back() == '\n')
        r.out.pop_back();
    return r.out;
}

std::string RouterTest::uciShow(const std::string &what) { return uci({"show", what}).out; }

std::string RouterTest::uciExport(const std::string &package) { return uci({"export", package}).out; }

std::vector<std::string> RouterTest::journal() { return splitLines(readFile(kJournal)); }

void RouterTest::clearJournal() { truncate(kJournal, 0); }

bool RouterTest::waitJournal(const std::string &line, int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto lines = journal();
        if (std::find(lines.begin(), lines.end(), line) != lines.end())
            return true;
        if (Clock::now() >= end)
            return false;
        pause(20);
    }
}

std::vector<std::string> RouterTest::iptablesRules(const std::string &table)
{
    return splitLines(run({realTool("iptables"), "-w", "-t", table, "-S"}).out);
}

std::vector<std::string> RouterTest::ip6tablesRules(const std::string &table)
{
    return splitLines(run({realTool("ip6tables"), "-w", "-t", table, "-S"}).out);
}

std::vector<std::string> RouterTest::ebtablesRules(const std::string &table)
{
    return splitLines(run({realTool("ebtables"), "-t", table, "-L"}).out);
}

std::string RouterTest::daemonLog() { return fileFrom(kDaemonLog, daemonLogStart_); }

bool RouterTest::logHas(const std::string &level, const std::string &function, const std::string &message)
{
    return logContains(daemonLog(), level, function, message);
}

int RouterTest::logCountOf(const std::string &level, const std::string &function, const std::string &message)
{
    return logCount(daemonLog(), level, function, message);
}

bool RouterTest::waitLog(const std::string &level, const std::string &function, const std::string &message,
                         int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (logHas(level, function, message))
            return true;
        if (Clock::now() >= end)
            return false;
        pause(20);
    }
}

}  // namespace gw::e2e
