/* libRouteUtils: the platform utility library the daemon calls. Typed option accessors on loaded libuci
 * packages, list and section helpers, command execution and logging. Every function returns 0 on success and
 * non-zero (-1) on failure unless its comment says otherwise. */
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <uci.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RU_PRINTF(f, a) __attribute__((format(printf, f, a)))

/* Typed accessors on a section of a package loaded in ctx. */
int uciGetString(struct uci_context *ctx, struct uci_section *sec, const char *option, char *buf, int size);
int uciGetUint32(struct uci_context *ctx, struct uci_section *sec, const char *option, uint32_t *out);
int uciGetEnabled(struct uci_context *ctx, struct uci_section *sec, uint8_t *enabled);
/* Setters change the loaded package only; the caller saves and commits. */
int uciSetString(struct uci_context *ctx, struct uci_package *pkg, struct uci_section *sec, const char *option,
                 const char *value);
int uciSetUint32(struct uci_context *ctx, struct uci_package *pkg, struct uci_section *sec, const char *option,
                 uint32_t value);
int uciSetEnabled(struct uci_context *ctx, struct uci_package *pkg, struct uci_section *sec, uint8_t enabled);

/* Whole-operation helpers with a context of their own; callers pass the package name twice. */
int uciGetOptionInt32(const char *config, const char *package, const char *section, const char *option,
                      int32_t *value);
int uciSetOptionInt32(const char *config, const char *package, const char *section, const char *option,
                      int32_t value);

/* List and section edits in a package loaded in ctx; the caller commits. */
int publicUciAddList(struct uci_context *ctx, const char *package, const char *section, const char *option,
                     const char *value);
int publicUciDelList(struct uci_context *ctx, const char *package, const char *section, const char *option,
                     const char *value);
int publicUciDelSection(struct uci_context *ctx, struct uci_package *pkg, const char *package, const char *section);

/* Commands. The format is a constant of the code; it is split into words and redirections before any argument
 * is formatted, and each argument lands inside its word as plain text, so request data never reaches a shell.
 * Understood beyond plain words: "2> /dev/null", ">/dev/null", "> FILE 2>&1" and a final "&" (background).
 * LC_SystemCall waits for the command (except a background one); its exit status is returned but callers
 * ignore it. iptables runs the iptables program with the formatted arguments. */
int LC_SystemCall(const char *fmt, ...) RU_PRINTF(1, 2);
int LC_SystemCallV(const char *fmt, va_list ap);
int iptables(const char *fmt, ...) RU_PRINTF(1, 2);

/* Logging: one line per call. Formats start with "[%s:%d]" filled with __func__ and __LINE__. Lines go to syslog
 * (facility daemon, ident "gwconfd"), and also to stderr as "<level> <message>" when GWCONF_LOG_STDERR=1.
 * GWCONF_LOG_LEVEL (err, info, debug, or a syslog level 0 to 7) is the threshold of both; unset, syslog takes
 * err and info, stderr every level. */
void log_error(const char *fmt, ...) RU_PRINTF(1, 2);
void log_info(const char *fmt, ...) RU_PRINTF(1, 2);
void log_debug(const char *fmt, ...) RU_PRINTF(1, 2);

#ifdef __cplusplus
}
#endif
