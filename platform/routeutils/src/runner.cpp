// The one command runner: LC_SystemCall and iptables. No shell is involved: the format is split first, each
// argument is formatted into its own word, and the command goes to the installed runner (system.h). The spawning
// runner starts the program with posix_spawnp (no copy of the daemon's address space; the start costs a process
// creation and the program's own loading, nothing more).
#include "routeutils/command_line.h"
#include "routeutils/routeutils.h"
#include "routeutils/system.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace routeutils {
namespace {

// Background commands not reaped yet. The event loop may reap them first (it collects every child on SIGCHLD);
// then waitpid reports ECHILD and the entry is dropped just the same.
constexpr int kMaxBackground = 32;
pid_t g_background[kMaxBackground];
int g_backgroundCount = 0;

// The message a shell would give when a command cannot start; written to the daemon's stderr unless the command
// sends its own stderr elsewhere (as "2> /dev/null" does in a shell).
void startFailed(const Command &command, const char *what, const char *name, int err)
{
    for (const auto &r : command.redirections)
        if (r.fd == STDERR_FILENO)
            return;
    const char *parts[] = {"gwconfd: ", what, " ", name, ": ", strerror(err), "\n"};
    for (const char *p : parts)
        if (write(STDERR_FILENO, p, strlen(p)) < 0)
            break;
}

// Descriptors opened for one start, closed when it is done.
struct OpenFiles {
    int fds[8];
    int count = 0;
    OpenFiles() = default;
    OpenFiles(const OpenFiles &) = delete;
    OpenFiles &operator=(const OpenFiles &) = delete;
    ~OpenFiles()
    {
        for (int i = 0; i < count; ++i)
            close(fds[i]);
    }
};

// The child's set-up, as the daemon's event loop leaves it otherwise: SIGPIPE back to its default (the loop ignores
// it), no blocked signal; stdin from /dev/null for a background command, as a shell does for "&"; then the
// redirections in their order. Files are opened here, in the daemon, so a file that cannot be made fails the
// command before anything runs.
struct SpawnSetup {
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    SpawnSetup()
    {
        posix_spawnattr_init(&attr);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;

    // 0, or the failing redirection's errno with its path in failedPath
    int prepare(const Command &command, OpenFiles &files, const char **failedPath)
    {
        sigset_t set;
        sigemptyset(&set);
        posix_spawnattr_setsigmask(&attr, &set);
        sigaddset(&set, SIGPIPE);
        posix_spawnattr_setsigdefault(&attr, &set);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        if (command.background)
            posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        for (const auto &r : command.redirections) {
            if (r.toStdout) {
                posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, r.fd);
                continue;
            }
            if (files.count == static_cast<int>(sizeof files.fds / sizeof files.fds[0])) {
                *failedPath = r.path.c_str();
                return EMFILE;
            }
            const int fd = open(r.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            if (fd < 0) {
                *failedPath = r.path.c_str();
                return errno;
            }
            files.fds[files.count++] = fd;
            posix_spawn_file_actions_adddup2(&actions, fd, r.fd);
        }
        return 0;
    }
};

int exitStatus(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

int reapBackgroundCommands()
{
    int kept = 0;
    for (int i = 0; i < g_backgroundCount; ++i) {
        int status = 0;
        const pid_t r = waitpid(g_background[i], &status, WNOHANG);
        if (r == 0)
            g_background[kept++] = g_background[i];
    }
    g_backgroundCount = kept;
    return kept;
}

int runCommand(const Command &command)
{
    reapBackgroundCommands();
    if (command.argv.empty() || command.argv[0].empty())
        return -1;
    std::vector<char *> argv;
    argv.reserve(command.argv.size() + 1);
    for (const auto &a : command.argv)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);

    SpawnSetup setup;
    OpenFiles files;
    const char *failedPath = nullptr;
    if (const int err = setup.prepare(command, files, &failedPath); err != 0) {
        // As a shell that cannot make a redirection: 1, and a background command still "started".
        startFailed(command, "cannot create", failedPath, err);
        return command.background ? 0 : 1;
    }
    pid_t pid = -1;
    const int err = posix_spawnp(&pid, argv[0], &setup.actions, &setup.attr, argv.data(), environ);
    if (err != 0) {
        // As a shell reports a program it cannot start: 127, and a background command still "started".
        startFailed(command, "cannot run", argv[0], err);
        return command.background ? 0 : 127;
    }
    if (command.background) {
        if (g_backgroundCount < kMaxBackground)
            g_background[g_backgroundCount++] = pid;
        return 0;
    }
    int status = 0;
    for (;;) {
        const pid_t r = waitpid(pid, &status, 0);
        if (r == pid)
            return exitStatus(status);
        if (r < 0 && errno != EINTR)
            return -1;
    }
}

namespace {

int runFormat(const char *caller, const char *program, const char *fmt, va_list ap)
{
    CommandFormat format;
    std::string why;
    if (!splitCommandFormat(fmt, format, &why)) {
        log_error("[%s:%d]refused command format \"%s\": %s", caller, __LINE__, fmt ? fmt : "(null)", why.c_str());
        return -1;
    }
    VaListSource args(ap);
    const Command cmd = formatCommand(format, args, program ? program : "");
    log_debug("[%s:%d]%s", caller, __LINE__, cmd.line.c_str());
    if (cmd.cut)
        log_debug("[%s:%d]command cut to %zu characters", caller, __LINE__, kCommandLineMax);
    return commandRunner().run(cmd);
}

}  // namespace
}  // namespace routeutils

extern "C" int LC_SystemCallV(const char *fmt, va_list ap)
{
    return routeutils::runFormat("LC_SystemCall", nullptr, fmt, ap);
}

extern "C" int LC_SystemCall(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int rc = routeutils::runFormat("LC_SystemCall", nullptr, fmt, ap);
    va_end(ap);
    return rc;
}

extern "C" int iptables(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int rc = routeutils::runFormat("iptables", "iptables", fmt, ap);
    va_end(ap);
    return rc;
}
