// What the daemon does to the system outside the bus, behind one narrow seam: every command it runs (the commands
// of LC_SystemCall and iptables, the background WAN script, the calls of the uci tool) goes to the installed
// CommandRunner, and every absolute path it opens itself (libuci's configuration, save and override folders, the
// WAN script, the UPnP lease file, the bus socket of its private connections) is taken under the system root.
//
// The daemon never changes either: the spawning runner and the root "/" are what it runs with. A test installs the
// recording runner, which keeps each command and answers a chosen exit status without starting anything, and
// points the root at a temporary folder; the handlers then run in a plain process, without root rights.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "routeutils/command_line.h"

namespace routeutils {

class CommandRunner {
public:
    virtual ~CommandRunner() = default;
    // Runs one formatted command; its exit status as a shell gives it (a background command: 0 once started).
    virtual int run(const Command &command) = 0;
};

// Starts the program (runCommand): the runner of the daemon.
class SpawningRunner final : public CommandRunner {
public:
    int run(const Command &command) override;
};

// Starts nothing: keeps every command, in order, and answers `status` for each one run in the foreground (0 for a
// background one, as "&" gives). When `answer` is set it decides the status of each foreground command instead.
class RecordingRunner final : public CommandRunner {
public:
    int run(const Command &command) override;

    std::vector<Command> commands;
    int status = 0;
    std::function<int(const Command &)> answer;
};

// The runner in use: the spawning one until another is installed. Installing nullptr puts the spawning one back.
CommandRunner &commandRunner();
void installCommandRunner(CommandRunner *runner);

// The folder under which the daemon's absolute paths are taken: "/" unless a test sets another (an absolute path,
// without a trailing slash). Commands are not rewritten: they name the daemon's own paths. Under another root the
// log lines are not sent to syslog (its socket is the host's); the stderr copy still comes with GWCONF_LOG_STDERR.
void setSystemRoot(const std::string &root);
bool systemRootIsDefault();
// An absolute path under the root: the path itself while the root is "/" (a relative path is never changed).
std::string systemPath(const char *path);

}  // namespace routeutils
