// Benchmarks that measure the daemon run inside the emulated router of their build folder. Started on the host,
// such a program replaces itself with
//     <source>/sandbox/router --build <build folder> [--bus-only] -- <itself> <its arguments>
// and carries on from the start inside. Its arguments are read from /proc, so this works before main() too.
#pragma once

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace gwbench {

// Returns at once inside the router; on the host it does not return (127 when the router cannot be started).
// busOnly: the router starts the bus daemon only, not gwconfd.
inline void enterSandbox(bool busOnly)
{
    if (std::getenv("GWCONF_SANDBOX") != nullptr)
        return;
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        _exit(127);
    self[n] = '\0';
    std::string buildDir = GWCONF_BIN_DIR;
    buildDir = buildDir.substr(0, buildDir.find_last_of('/'));
    const std::string router = std::string(GWCONF_SOURCE_DIR) + "/sandbox/router";
    std::vector<std::string> words = {router, "--build", buildDir};
    if (busOnly)
        words.push_back("--bus-only");
    words.push_back("--");
    words.push_back(self);
    std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
    bool first = true;
    for (std::string arg; std::getline(cmdline, arg, '\0'); first = false)
        if (!first)
            words.push_back(arg);
    std::vector<char *> args;
    for (auto &w : words)
        args.push_back(w.data());
    args.push_back(nullptr);
    execv(router.c_str(), args.data());
    std::perror("sandbox/router");
    _exit(127);
}

} // namespace gwbench
