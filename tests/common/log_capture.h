// The log lines a piece of code writes: runs it with fd 2 sent to a fresh temporary file and GWCONF_LOG_STDERR
// set as asked (nullptr: unset), and returns what was written ("<level> <message>" lines when the value is "1").
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

namespace gw::testutil {

template <typename Body>
std::string captureLog(const char *envValue, Body body)
{
    char path[] = "/tmp/gwconf-log-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    unlink(path);
    const int saved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    if (envValue)
        setenv("GWCONF_LOG_STDERR", envValue, 1);
    else
        unsetenv("GWCONF_LOG_STDERR");
    body();
    unsetenv("GWCONF_LOG_STDERR");
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string out;
    char buf[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        out.append(buf, static_cast<std::size_t>(n));
    close(fd);
    return out;
}

}  // namespace gw::testutil
