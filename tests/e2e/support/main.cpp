// main() of every e2e test program: each selected test case runs in a fresh emulated router.
//
// Inside a sandbox (GWCONF_SANDBOX is set) the tests simply run. Outside, the program asks itself for the list of
// selected test cases and runs each one as
//     <source>/sandbox/router --no-daemon --build <its build folder> -- <this program> <args> --gtest_filter=<case>
// A single case (what ctest runs) replaces the program with that command, so a timeout that kills the test kills
// the whole sandbox. Listing the tests and asking for help need no sandbox.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/router.h"

namespace {

bool startsWith(const std::string &s, const char *prefix) { return s.rfind(prefix, 0) == 0; }

std::string selfPath()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return {};
    buf[n] = '\0';
    return buf;
}

std::string buildDir()
{
    std::string bin = GWCONF_BIN_DIR;
    return bin.substr(0, bin.find_last_of('/'));
}

// The test cases this invocation selects, from the program's own --gtest_list_tests output.
std::vector<std::string> selectedCases(const std::string &self, const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {self};
    for (const auto &a : args)
        if (startsWith(a, "--gtest_filter=") || startsWith(a, "--gtest_also_run_disabled_tests"))
            argv.push_back(a);
    argv.push_back("--gtest_list_tests");
    gw::e2e::RunResult r = gw::e2e::run(argv);
    std::vector<std::string> cases;
    std::string suite;
    for (const auto &line : gw::e2e::splitLines(r.out)) {
        if (line.empty())
            continue;
        std::string word = line.substr(line.find_first_not_of(' '));
        word = word.substr(0, word.find(' '));
        if (line[0] != ' ')
            suite = word;   // "Suite." (maybe followed by a type comment)
        else
            cases.push_back(suite + word);
    }
    return cases;
}

std::vector<std::string> sandboxCommand(const std::string &self, const std::vector<std::string> &args,
                                        const std::string &testCase)
{
    std::vector<std::string> argv = {std::string(GWCONF_SOURCE_DIR) + "/sandbox/router", "--no-daemon",
                                     "--build", buildDir(), "--", self};
    for (const auto &a : args)
        if (!startsWith(a, "--gtest_filter="))
            argv.push_back(a);
    argv.push_back("--gtest_filter=" + testCase);
    return argv;
}

[[noreturn]] void execute(const std::vector<std::string> &argv)
{
    std::vector<char *> c;
    for (const auto &a : argv)
        c.push_back(const_cast<char *>(a.c_str()));
    c.push_back(nullptr);
    execv(c[0], c.data());
    std::fprintf(stderr, "e2e: cannot run %s: %s\n", c[0], std::strerror(errno));
    std::exit(125);
}

int runInSandboxes(const std::string &self, const std::vector<std::string> &args)
{
    std::vector<std::string> cases = selectedCases(self, args);
    if (cases.size() == 1)
        execute(sandboxCommand(self, args, cases[0]));

    std::vector<std::string> failed;
    for (const auto &testCase : cases) {
        std::fflush(stdout);
        pid_t pid = fork();
        if (pid == 0)
            execute(sandboxCommand(self, args, testCase));
        int st = 0;
        waitpid(pid, &st, 0);
        if (!WIFEXITED(st) || WEXITSTATUS(st) != 0)
            failed.push_back(testCase);
    }
    std::printf("[e2e] %zu test cases, each in its own sandbox: %zu passed, %zu failed\n", cases.size(),
                cases.size() - failed.size(), failed.size());
    for (const auto &f : failed)
        std::printf("[e2e] FAILED %s\n", f.c_str());
    return failed.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    bool listOrHelp = false;
    for (const auto &a : args)
        if (startsWith(a, "--gtest_list_tests") || a == "--help" || a == "-h" || a == "-?" || a == "/?" ||
            startsWith(a, "--gtest_help"))
            listOrHelp = true;

    if (std::getenv("GWCONF_SANDBOX") == nullptr && !listOrHelp) {
        std::string self = selfPath();
        if (self.empty()) {
            std::fprintf(stderr, "e2e: cannot find this program's own path\n");
            return 125;
        }
        return runInSandboxes(self, args);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
