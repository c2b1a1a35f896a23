// Typed option accessors and list/section helpers on packages loaded with libuci.
#include "routeutils/routeutils.h"
#include "routeutils/text.h"
#include "routeutils/uci_session.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using routeutils::copyCut;
using routeutils::UciEdit;
using routeutils::UciSession;

namespace {

// The option that holds a section's enable flag, stored as "1" or "0".
constexpr const char *kEnabledOption = "enabled";

// Strict decimal: optional sign (when allowed), digits only, no blanks, within [lo, hi].
bool parseDecimal(const char *text, bool allowSign, long long lo, long long hi, long long *out)
{
    if (!text || !*text)
        return false;
    const char *p = text;
    bool negative = false;
    if (allowSign && (*p == '-' || *p == '+'))
        negative = *p++ == '-';
    if (*p < '0' || *p > '9')
        return false;
    long long v = 0;
    for (; *p; ++p) {
        if (*p < '0' || *p > '9')
            return false;
        v = v * 10 + (*p - '0');
        if (v > 10000000000LL)  // beyond every range asked for; stops before the value could overflow
            return false;
    }
    if (negative)
        v = -v;
    if (v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

uci_ptr sectionPtr(uci_package *pkg, uci_section *sec, const char *option, const char *value)
{
    uci_ptr ptr{};
    ptr.p = pkg;
    ptr.s = sec;
    ptr.package = pkg->e.name;
    ptr.section = sec->e.name;
    ptr.option = option;
    ptr.value = value;
    return ptr;
}

}  // namespace

extern "C" {

int uciGetString(struct uci_context *ctx, struct uci_section *sec, const char *option, char *buf, int size)
{
    if (!ctx || !sec || !option || !buf || size <= 0)
        return -1;
    const char *text = uci_lookup_option_string(ctx, sec, option);
    if (!text)
        return -1;
    copyCut(buf, text, static_cast<std::size_t>(size - 1));
    return 0;
}

int uciGetUint32(struct uci_context *ctx, struct uci_section *sec, const char *option, uint32_t *out)
{
    if (!ctx || !sec || !option || !out)
        return -1;
    long long v = 0;
    if (!parseDecimal(uci_lookup_option_string(ctx, sec, option), false, 0, UINT32_MAX, &v))
        return -1;
    *out = static_cast<uint32_t>(v);
    return 0;
}

int uciGetEnabled(struct uci_context *ctx, struct uci_section *sec, uint8_t *enabled)
{
    if (!ctx || !sec || !enabled)
        return -1;
    const char *text = uci_lookup_option_string(ctx, sec, kEnabledOption);
    if (!text)
        return -1;
    static const char *const on[] = {"1", "true", "yes", "on", "enabled"};
    static const char *const off[] = {"0", "false", "no", "off", "disabled"};
    for (const char *t : on)
        if (std::strcmp(text, t) == 0) {
            *enabled = 1;
            return 0;
        }
    for (const char *t : off)
        if (std::strcmp(text, t) == 0) {
            *enabled = 0;
            return 0;
        }
    return -1;
}

int uciSetString(struct uci_context *ctx, struct uci_package *pkg, struct uci_section *sec, const char *option,
                 const char *value)
{
    if (!ctx || !pkg || !sec || !option || !value)
        return -1;
    uci_ptr ptr = sectionPtr(pkg, sec, option, value);
    return uci_set(ctx, &ptr) == UCI_OK ? 0 : -1;
}

int uciSetUint32(struct uci_context *ctx, struct uci_package *pkg, struct uci_section *sec, const char *option,
                 uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "%u", value);
    return uciSetString(ctx, pkg, sec, option, text);
}

int uciSetEnabled(struct uci_context *ctx, struct uci_package *pkg, struct uci_section *sec, uint8_t enabled)
{
    return uciSetString(ctx, pkg, sec, kEnabledOption, enabled ? "1" : "0");
}

int uciGetOptionInt32(const char *config, const char *package, const char *section, const char *option,
                      int32_t *value)
{
    const char *name = config ? config : package;
    if (!name || !section || !option || !value)
        return -1;
    UciSession s;
    if (!s)
        return -1;
    if (s.load(name) != UCI_OK || !s.pkg())
        return -1;
    uci_section *sec = uci_lookup_section(s.ctx(), s.pkg(), section);
    if (!sec)
        return -1;
    long long v = 0;
    if (!parseDecimal(uci_lookup_option_string(s.ctx(), sec, option), true, INT32_MIN, INT32_MAX, &v))
        return -1;
    *value = static_cast<int32_t>(v);
    return 0;
}

int uciSetOptionInt32(const char *config, const char *package, const char *section, const char *option,
                      int32_t value)
{
    const char *name = config ? config : package;
    if (!name || !section || !option)
        return -1;
    UciSession s;
    if (!s)
        return -1;
    char text[16];
    std::snprintf(text, sizeof text, "%d", static_cast<int>(value));
    if (s.edit(UciEdit::Set, {nullptr, name, section, option, text}) != UCI_OK || !s.pkg())
        return -1;
    return s.saveThenCommit().ok() ? 0 : -1;
}

int publicUciAddList(struct uci_context *ctx, const char *package, const char *section, const char *option,
                     const char *value)
{
    return routeutils::uciEdit(ctx, UciEdit::AddList, {nullptr, package, section, option, value}) == UCI_OK ? 0 : -1;
}

int publicUciDelList(struct uci_context *ctx, const char *package, const char *section, const char *option,
                     const char *value)
{
    return routeutils::uciEdit(ctx, UciEdit::DelList, {nullptr, package, section, option, value}) == UCI_OK ? 0 : -1;
}

int publicUciDelSection(struct uci_context *ctx, struct uci_package *pkg, const char *package, const char *section)
{
    if (!pkg)
        return -1;
    return routeutils::uciEdit(ctx, UciEdit::DeleteSection, {pkg, package, section}) == UCI_OK ? 0 : -1;
}

}  // extern "C"
