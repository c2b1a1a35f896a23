// For fuzz targets that must run inside the emulated router: when started on the host, the program replaces
// itself with
//     <source>/sandbox/router --build <its build folder> --bus-only -- <itself> <its arguments>
// The build folder is the parent of the folder holding the program (build*/bin); the source folder comes from
// that build folder's CMakeCache.txt.
//
// The router mounts fresh file systems on /tmp and /run, so an argument naming a path under them (a corpus folder
// made with mktemp, -artifact_prefix=/tmp/..., a crash file to replay) would vanish inside. Such paths are opened
// on the host before the switch, and the argument is rewritten to /proc/self/fd/<n>/..., which inside still
// leads to the host's folder through the inherited descriptor. Relative paths need nothing: the working folder
// is inherited too.
#pragma once

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace fuzz_sandbox {

inline std::string selfPath()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return {};
    buf[n] = '\0';
    return buf;
}

inline std::string parentOf(const std::string &path)
{
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The source folder this build folder was configured from, or "" when its cache does not say.
inline std::string sourceDirOf(const std::string &build)
{
    std::ifstream cache(build + "/CMakeCache.txt");
    std::string line;
    const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
    while (std::getline(cache, line))
        if (line.rfind(key, 0) == 0)
            return line.substr(key.size());
    return {};
}

inline bool hiddenInside(const std::string &abs)
{
    for (const char *top : {"/tmp", "/run"}) {
        size_t n = std::strlen(top);
        if (abs.compare(0, n, top) == 0 && (abs.size() == n || abs[n] == '/'))
            return true;
    }
    return false;
}

// The same path, reachable from inside the router. `isPrefix`: the path ends in a file name prefix (like
// -artifact_prefix), so only its folder has to exist.
inline std::string reachable(const std::string &path, bool isPrefix)
{
    if (path.empty() || path[0] != '/')
        return path;
    // Split into the folder to hold open and the rest that follows it.
    std::string dir = path, rest;
    if (isPrefix || path.back() != '/') {
        char real[PATH_MAX];
        bool isDir = !isPrefix && realpath(path.c_str(), real) != nullptr &&
                     access((std::string(real) + "/.").c_str(), F_OK) == 0;
        if (!isDir) {
            size_t slash = path.find_last_of('/');
            dir = path.substr(0, slash + 1);
            rest = path.substr(slash + 1);
        }
    }
    char real[PATH_MAX];
    if (realpath(dir.c_str(), real) == nullptr || !hiddenInside(real))
        return path;
    int fd = open(real, O_PATH | O_DIRECTORY);
    if (fd < 0)
        return path;
    // Well above what the launcher and libFuzzer use for themselves.
    int high = fcntl(fd, F_DUPFD, 200);
    close(fd);
    if (high < 0)
        return path;
    return "/proc/self/fd/" + std::to_string(high) + "/" + rest;
}

inline std::string rewriteArg(const std::string &arg)
{
    if (arg.empty())
        return arg;
    if (arg[0] != '-')
        return reachable(arg, false);   // a corpus folder or an input file
    for (const char *flag : {"-artifact_prefix=", "-exact_artifact_path=", "-dict=", "-stop_file="}) {
        std::string f = flag;
        if (arg.rfind(f, 0) == 0) {
            std::string value = arg.substr(f.size());
            return f + reachable(value, f == "-artifact_prefix=" && !value.empty() && value.back() != '/');
        }
    }
    return arg;
}

// Returns only when already inside a router; otherwise it becomes the router (or exits on failure).
inline void enterRouter(int argc, char **argv, const char *name)
{
    if (std::getenv("GWCONF_SANDBOX") != nullptr)
        return;
    std::string self = selfPath();
    std::string build = parentOf(parentOf(self));
    std::string source = sourceDirOf(build);
    if (self.empty() || source.empty()) {
        std::fprintf(stderr, "%s: cannot find the build folder of %s (no CMakeCache.txt above it)\n", name,
                     self.c_str());
        std::exit(125);
    }
    std::vector<std::string> args = {source + "/sandbox/router", "--build", build, "--bus-only", "--", self};
    for (int i = 1; i < argc; ++i)
        args.push_back(rewriteArg(argv[i]));
    std::vector<char *> cargs;
    for (auto &a : args)
        cargs.push_back(a.data());
    cargs.push_back(nullptr);
    std::fflush(nullptr);
    execv(cargs[0], cargs.data());
    std::fprintf(stderr, "%s: cannot run %s: %s\n", name, cargs[0], std::strerror(errno));
    std::exit(125);
}

}  // namespace fuzz_sandbox
