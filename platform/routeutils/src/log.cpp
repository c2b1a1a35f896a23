// Logging: one line per call to syslog (facility daemon, ident "gwconfd"), and to stderr as "<level> <message>"
// when the environment holds GWCONF_LOG_STDERR=1. GWCONF_LOG_LEVEL in the environment (both read at the first
// line) sets the threshold of both ("err", "info", "debug", any other syslog level name, or its number 0 to 7);
// without it, or with a value it does not know, syslog takes err and info (the debug lines, one per command run,
// stay out) and stderr every level.
#include "routeutils/routeutils.h"
#include "routeutils/system.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

bool g_syslogOpen = false;

// The syslog priority that GWCONF_LOG_LEVEL names, or -1 when it is unset or names none.
int levelAsked()
{
    const char *v = std::getenv("GWCONF_LOG_LEVEL");
    if (!v)
        return -1;
    if (v[0] >= '0' && v[0] <= '7' && v[1] == '\0')
        return v[0] - '0';
    static const struct {
        const char *name;
        int priority;
    } names[] = {
        {"emerg", LOG_EMERG},     {"alert", LOG_ALERT},     {"crit", LOG_CRIT},   {"err", LOG_ERR},
        {"error", LOG_ERR},       {"warning", LOG_WARNING}, {"warn", LOG_WARNING}, {"notice", LOG_NOTICE},
        {"info", LOG_INFO},       {"debug", LOG_DEBUG},
    };
    for (const auto &n : names)
        if (strcasecmp(v, n.name) == 0)
            return n.priority;
    return -1;
}

// The highest priority each output takes (-1: none), read from the environment once, at the first line.
struct Thresholds {
    int syslog;
    int stderrCopy;
};

const Thresholds &thresholds()
{
    static const Thresholds t = [] {
        const int asked = levelAsked();
        const char *copy = std::getenv("GWCONF_LOG_STDERR");
        const bool copyWanted = copy && std::strcmp(copy, "1") == 0;
        return Thresholds{asked >= 0 ? asked : LOG_INFO, copyWanted ? (asked >= 0 ? asked : LOG_DEBUG) : -1};
    }();
    return t;
}

void logLine(int priority, const char *level, const char *fmt, va_list ap)
{
    if (!fmt)
        return;
    const Thresholds &t = thresholds();
    // The syslog socket is a path of the system too: under a test's root the lines go to the stderr copy only.
    const bool toSyslog = priority <= t.syslog && routeutils::systemRootIsDefault();
    const bool toStderr = priority <= t.stderrCopy;
    if (!toSyslog && !toStderr)
        return;
    char small[512];
    va_list copy;
    va_copy(copy, ap);
    const int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0)
        return;
    std::vector<char> big;
    const char *msg = small;
    if (static_cast<std::size_t>(n) >= sizeof small) {
        big.resize(static_cast<std::size_t>(n) + 1);
        std::vsnprintf(big.data(), big.size(), fmt, ap);
        msg = big.data();
    }
    if (toSyslog) {
        if (!g_syslogOpen) {
            openlog("gwconfd", LOG_PID, LOG_DAEMON);
            g_syslogOpen = true;
        }
        syslog(priority, "%s", msg);
    }
    if (toStderr) {
        // One write per line, so lines of several processes sharing stderr never interleave. A message that
        // already ends its line gets no second line end.
        std::vector<char> line;
        const std::size_t levelLen = std::strlen(level);
        const std::size_t msgLen = static_cast<std::size_t>(n);
        line.reserve(levelLen + msgLen + 2);
        line.insert(line.end(), level, level + levelLen);
        line.push_back(' ');
        line.insert(line.end(), msg, msg + msgLen);
        if (msgLen == 0 || msg[msgLen - 1] != '\n')
            line.push_back('\n');
        std::size_t off = 0;
        while (off < line.size()) {
            const ssize_t w = write(STDERR_FILENO, line.data() + off, line.size() - off);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                break;
            off += static_cast<std::size_t>(w);
        }
    }
}

}  // namespace

extern "C" void log_error(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    logLine(LOG_ERR, "error", fmt, ap);
    va_end(ap);
}

extern "C" void log_info(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    logLine(LOG_INFO, "info", fmt, ap);
    va_end(ap);
}

extern "C" void log_debug(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    logLine(LOG_DEBUG, "debug", fmt, ap);
    va_end(ap);
}
