// The one command runner: LC_SystemCall and iptables. No shell is involved: the format is split first, each
// argument is formatted into its own word, and the program is started with fork and execvp.
#include "routeutils/command_line.h"
#include "routeutils/routeutils.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace routeutils {
namespace {

// Background commands not reaped yet. The event loop may reap them first (it collects every child on SIGCHLD);
// then waitpid reports ECHILD and the entry is dropped just the same.
constexpr int kMaxBackground = 32;
pid_t g_background[kMaxBackground];
int g_backgroundCount = 0;

void childFail(const char *what, const char *name)
{
    // Only async-signal-safe calls between fork and exec.
    const char *err = strerror(errno);
    const char *parts[] = {"gwconfd: ", what, " ", name, ": ", err, "\n"};
    for (const char *p : parts)
        if (write(STDERR_FILENO, p, strlen(p)) < 0)
            break;
}

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

    const pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        // The event loop ignores SIGPIPE and may block signals; a started program gets the defaults back.
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &dfl, nullptr);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (command.background) {
            // As a shell does for "&": the background command does not read the daemon's input.
            const int devnull = open("/dev/null", O_RDONLY);
            if (devnull >= 0 && devnull != STDIN_FILENO) {
                dup2(devnull, STDIN_FILENO);
                close(devnull);
            }
        }
        for (const auto &r : command.redirections) {
            if (r.toStdout) {
                if (dup2(STDOUT_FILENO, r.fd) < 0)
                    _exit(1);
                continue;
            }
            const int fd = open(r.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (fd < 0) {
                childFail("cannot create", r.path.c_str());
                _exit(1);
            }
            if (fd != r.fd) {
                dup2(fd, r.fd);
                close(fd);
            }
        }
        execvp(argv[0], argv.data());
        childFail("cannot run", argv[0]);
        _exit(127);
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
    return runCommand(cmd);
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
