// Helpers of the fault tests (tests/e2e/fault_*.cpp): the packages gwconfd writes as the configuration library
// loads them, a comparison of a package with the states before and after a write, orphans of a killed daemon,
// and a bus connection of the test's own that waits for an object without starting a program per look.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>


namespace gw::e2e {

// The packages gwconfd writes.
extern const std::vector<std::string> kWrittenPackages;   // macFilter firewall iptv network WanPortMap upnpd

// One section of a loaded package. Options map to their value; a list is its items joined by '\n' behind a
// leading '\n' (so a list never equals a plain option).
struct UciSection {
    std::string name;   // "" for an anonymous section
    std::string type;
    std::map<std::string, std::string> options;
    bool operator==(const UciSection &) const = default;
};

struct UciPackage {
    bool ok = false;        // loaded without a parse error
    std::string error;      // the library's error text when not
    std::vector<UciSection> sections;
    std::string text;       // the package in configuration syntax (uci export), for messages
};

// Loads /etc/config/<package> strictly, as a file (no pending changes).
UciPackage loadConfigFile(const std::string &package);
// Loads the package as every reader sees it: the file plus the pending changes saved in /tmp/.uci.
UciPackage loadPackage(const std::string &package);

// Compares `now` with the package before and after a write that may have been cut off anywhere. Every section that
// is the same before and after must be there unchanged; a named section that the write changes may be absent or hold,
// option by option, the value before or the value after; an anonymous section must equal one before or after (the
// daemon writes each of them with one commit) and appear no more often than in either. With `rebuiltLists`, a list
// may also hold the first items of its value after (a list the write empties and then fills item by item).
// `passing` names values ("section.option" -> value) that the write stores on its way and replaces later (a switch
// off before the switch on). Returns "" when `now` is such a state, else what is wrong.
std::string checkOldOrNew(const UciPackage &before, const UciPackage &after, const UciPackage &now,
                          bool rebuiltLists = false, const std::map<std::string, std::string> &passing = {});

// Hidden files in /etc/config (temporary files of a commit that was cut off).
std::vector<std::string> hiddenConfigFiles();

// The whole content of a folder's plain files, and putting it back (files not in `files` are removed).
std::map<std::string, std::string> snapshotFolder(const std::string &dir);
void restoreFolder(const std::string &dir, const std::map<std::string, std::string> &files);

// Makes this process the reaper of its orphaned descendants (the commands a killed daemon had started).
void adoptOrphans();
// Waits for every child of this process except those in `keep` (the fixture's bus daemon); false when one is still
// running after timeoutMs (it is then killed).
bool reapChildren(const std::vector<pid_t> &keep, int timeoutMs);
// The children of this process whose program name (comm) is `name`.
std::vector<pid_t> childrenNamed(const std::string &name);

// A program started without waiting for it (no shell); its output goes to /dev/null.
pid_t spawnQuiet(const std::vector<std::string> &argv);
// Waits for a child started with spawnQuiet; its exit status (128 + signal), or -1 after timeoutMs (it is then killed).
int waitQuiet(pid_t pid, int timeoutMs);

}  // namespace gw::e2e
