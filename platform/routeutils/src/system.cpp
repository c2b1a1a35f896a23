// The seam between the daemon and the system: the command runner in use and the root of the daemon's paths.
#include "routeutils/system.h"

namespace routeutils {
namespace {

SpawningRunner g_spawning;
CommandRunner *g_runner = &g_spawning;
std::string g_root = "/";

}  // namespace

int SpawningRunner::run(const Command &command) { return runCommand(command); }

int RecordingRunner::run(const Command &command)
{
    commands.push_back(command);
    if (command.background)
        return 0;
    return answer ? answer(command) : status;
}

CommandRunner &commandRunner() { return *g_runner; }

void installCommandRunner(CommandRunner *runner) { g_runner = runner ? runner : &g_spawning; }

void setSystemRoot(const std::string &root) { g_root = root.empty() ? "/" : root; }

bool systemRootIsDefault() { return g_root == "/"; }

std::string systemPath(const char *path)
{
    if (systemRootIsDefault() || path == nullptr || path[0] != '/')
        return path ? path : "";
    return g_root + path;
}

}  // namespace routeutils
