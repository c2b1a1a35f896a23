// The configuration access layer (src/uci): shared operations over libuci. Each of them but uciDeleteSection and
// uciRevertPackage opens a fresh context, does one thing, makes it permanent where it writes, and frees the
// context before it returns. Results are libuci's numbers: 0 success, 1 UCI_ERR_MEM, 2 UCI_ERR_INVAL,
// 3 UCI_ERR_NOTFOUND, or a failing libuci call's own number; uciDeleteSection and uciRevertPackage return 0 or -1.
#pragma once

#include <uci.h>

// Reads one single-text option into buffer (at least len + 1 bytes, zeroed by the caller), cut to len characters.
int uciGetConfig(const char *package, const char *section, const char *option, char *buffer, int len);
// Sets one option, then saves and commits the package.
int uciSetConfig(const char *package, const char *section, const char *option, const char *value);
// Reads "package.section.option"; a list comes back as its values joined by one blank. path is never written.
int uciGetStr(const char *path, char *buffer, int len);
// Adds an unnamed section of type with count option/value pairs (names in 16-byte slots, values in 64-byte slots)
// and commits; 0 once the package loaded.
int uciAddNewSection(const char *package, const char *type, const char (*options)[16], const char (*values)[64],
                     int count);
// Deletes a named section of a package the caller loaded in ctx; the caller commits.
int uciDeleteSection(struct uci_context *ctx, struct uci_package *pkg, const char *package, const char *section);
// Discards the uncommitted changes of a loaded package; *pkg is replaced by the reloaded package.
int uciRevertPackage(struct uci_context *ctx, struct uci_package **pkg, const char *section);
// Adds one value to / removes one value from a list option, then saves and commits.
int uciAddList(const char *package, const char *section, const char *option, const char *value);
int uciDelList(const char *package, const char *section, const char *option, const char *value);
