// The configuration access layer: the shared read and write operations over libuci. Every operation but
// uciDeleteSection and uciRevertPackage opens its own context and frees it, with every package loaded in it,
// before it returns; the daemon keeps no configuration state between operations.
#include "uciconfig.h"

#include "routeutils/routeutils.h"
#include "routeutils/text.h"
#include "routeutils/uci_session.h"

#include <cstring>
#include <string>

using routeutils::copyCut;
using routeutils::UciEdit;
using routeutils::UciSession;
using routeutils::UciWriteResult;

namespace {

std::size_t limitOf(int len) { return len > 0 ? static_cast<std::size_t>(len) : 0; }

// One edit of a single option or list value in a context of its own, then save and commit. Returns the first
// failing call's number. With `caller` given, that failure is also logged as "[caller:line]<call> error" (the
// edit named `editName`); without it the failure is only returned.
int editSaveCommit(UciEdit edit, const char *package, const char *section, const char *option, const char *value,
                   const char *caller = nullptr, const char *editName = nullptr)
{
    auto fail = [caller](const char *call, int line, int rc) {
        if (caller)
            log_error("[%s:%d]%s error", caller, line, call);
        return rc;
    };
    UciSession s;
    if (!s)
        return fail(UciSession::allocCallName(), __LINE__, UCI_ERR_MEM);
    const int rc = s.edit(edit, {nullptr, package, section, option, value});
    if (rc != UCI_OK)
        return fail(editName, __LINE__, rc);
    const UciWriteResult w = s.saveThenCommit();
    if (w.failed == UciWriteResult::Step::Save)
        return fail("uci_save", __LINE__, w.rc);
    if (w.failed == UciWriteResult::Step::Commit) {
        // The change is saved but not in the file (a full or read-only /etc/config). Take it back, so a write
        // reported as failed does not become permanent at the next commit of the package, whoever makes it.
        s.revertOption(section, option);
        return fail("uci_commit", __LINE__, w.rc);
    }
    return UCI_OK;
}

}  // namespace

int uciGetConfig(const char *package, const char *section, const char *option, char *buffer, int len)
{
    if (!package || !section || !option || !buffer) {
        log_error("[%s:%d]UCI_ERR_INVAL", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    UciSession s;
    if (!s) {
        log_error("[%s:%d]uciGetConfig UCI_ERR_MEM", __func__, __LINE__);
        return UCI_ERR_MEM;
    }
    const int rc = s.load(package);
    if (rc != UCI_OK || !s.pkg()) {
        const int err = rc != UCI_OK ? rc : UCI_ERR_NOTFOUND;
        log_error("[%s:%d]uciGetConfig uci_load:%d", __func__, __LINE__, err);
        return err;
    }
    uci_section *sec = uci_lookup_section(s.ctx(), s.pkg(), section);
    if (!sec) {
        log_error("[%s:%d]uciGetConfig UCI_ERR_NOTFOUND2", __func__, __LINE__);
        return UCI_ERR_NOTFOUND;
    }
    // A list option counts as absent: only a single text is read here.
    const char *text = uci_lookup_option_string(s.ctx(), sec, option);
    if (!text) {
        log_error("[%s:%d]uciGetConfig UCI_ERR_NOTFOUND1", __func__, __LINE__);
        return UCI_ERR_NOTFOUND;
    }
    copyCut(buffer, text, limitOf(len));
    log_info("[%s:%d]uciConfig value:%s", __func__, __LINE__, buffer);
    return UCI_OK;
}

int uciSetConfig(const char *package, const char *section, const char *option, const char *value)
{
    if (!package || !section || !option || !value) {
        log_error("[%s:%d]UCI_ERR_INVAL", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    // uci_set loads the package itself and refuses an option of a section that does not exist.
    return editSaveCommit(UciEdit::Set, package, section, option, value);
}

// Copies an option's value into the caller's buffer: a single text cut to len characters, or a list joined by
// single blanks as far as it fits in len characters (2 when it did not fit; what fitted stays in the buffer).
static int uciGetValue(uci_option *o, char *buffer, int len)
{
    if (!o) {
        log_error("[%s:%d]UCI_ERR_INVAL", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    const std::size_t limit = limitOf(len);
    if (o->type == UCI_TYPE_STRING) {
        copyCut(buffer, o->v.string, limit);
        return UCI_OK;
    }
    if (o->type != UCI_TYPE_LIST) {
        log_error("[%s:%d]UCI_ERR_INVAL", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    std::size_t used = 0;
    buffer[0] = '\0';
    bool first = true;
    uci_element *e = nullptr;
    uci_foreach_element(&o->v.list, e)
    {
        if (!first) {
            if (used + 1 > limit)
                return UCI_ERR_INVAL;
            buffer[used++] = ' ';
            buffer[used] = '\0';
        }
        first = false;
        const char *value = e->name ? e->name : "";
        const std::size_t n = std::strlen(value);
        if (used + n > limit)
            return UCI_ERR_INVAL;
        std::memcpy(buffer + used, value, n);
        used += n;
        buffer[used] = '\0';
    }
    return UCI_OK;
}

int uciGetStr(const char *path, char *buffer, int len)
{
    if (!path || !buffer) {
        log_error("[%s:%d]UCI_ERR_INVAL", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    UciSession s;
    if (!s) {
        log_error("[%s:%d]UCI_ERR_MEM", __func__, __LINE__);
        return UCI_ERR_MEM;
    }
    // libuci splits the path in place; it works on a copy, so a constant path is never written.
    std::string copy(path);
    uci_ptr ptr{};
    if (uci_lookup_ptr(s.ctx(), &ptr, copy.data(), true) != UCI_OK) {
        log_error("[%s:%d]UCI_ERR_NOTFOUND", __func__, __LINE__);
        return UCI_ERR_NOTFOUND;
    }
    int result = UCI_OK;
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE)) {
        log_error("[%s:%d]UCI_ERR_NOTFOUND", __func__, __LINE__);
        result = UCI_ERR_NOTFOUND;
    } else if (ptr.last && ptr.last->type == UCI_TYPE_SECTION) {
        log_error("[%s:%d]UCI_ERR_INVAL", __func__, __LINE__);
        result = UCI_ERR_INVAL;
    } else if (!ptr.last || ptr.last->type != UCI_TYPE_OPTION) {
        log_error("[%s:%d]UCI_ERR_NOTFOUND", __func__, __LINE__);
        result = UCI_ERR_NOTFOUND;
    } else {
        result = uciGetValue(ptr.o, buffer, len);
    }
    log_info("[%s:%d]uciGetStr val:%s", __func__, __LINE__, buffer);
    return result;
}

int uciAddNewSection(const char *package, const char *type, const char (*options)[16], const char (*values)[64],
                     int count)
{
    log_info("[%s:%d]in uciAddNewSection", __func__, __LINE__);
    if (!package || !type || (count > 0 && (!options || !values))) {
        log_error("[%s:%d]UCI_ERR_INVAL", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    UciSession s;
    if (!s) {
        log_error("[%s:%d]uciAddNewSection UCI_ERR_MEM", __func__, __LINE__);
        return UCI_ERR_MEM;
    }
    const int rc = s.load(package);
    if (rc != UCI_OK) {
        log_error("[%s:%d]uciAddNewSection uci_load:%d", __func__, __LINE__, rc);
        return rc;
    }
    uci_package *pkg = uci_lookup_package(s.ctx(), package);
    if (!pkg) {
        log_error("[%s:%d]uciAddNewSection UCI_ERR_NOTFOUND", __func__, __LINE__);
        return UCI_ERR_NOTFOUND;
    }
    uci_section *sec = nullptr;
    uci_add_section(s.ctx(), pkg, type, &sec);
    for (int i = 0; i < count; ++i) {
        // The slots are fixed-size arrays; a text that fills its slot is read up to the slot's end.
        const std::string option(options[i], strnlen(options[i], sizeof options[i]));
        const std::string value(values[i], strnlen(values[i], sizeof values[i]));
        log_info("[%s:%d]option:%s, value:%s", __func__, __LINE__, option.c_str(), value.c_str());
        if (sec)
            uciSetString(s.ctx(), pkg, sec, option.c_str(), value.c_str());
    }
    // Once the package is loaded the result is 0, whatever the edits and the commit did. No save: commit alone.
    s.adopt(pkg);
    s.commit();
    return UCI_OK;
}

int uciDeleteSection(struct uci_context *ctx, struct uci_package *pkg, const char *package, const char *section)
{
    if (!ctx || !pkg || !package || !section) {
        log_error("[%s:%d]ctx is null or pkg is null or configFile or sectionName is null", __func__, __LINE__);
        return -1;
    }
    return publicUciDelSection(ctx, pkg, package, section);
}

int uciRevertPackage(struct uci_context *ctx, struct uci_package **pkg, const char *section)
{
    return routeutils::uciRevertLoaded(ctx, pkg, section);
}

int uciAddList(const char *package, const char *section, const char *option, const char *value)
{
    if (!package || !section || !option || !value) {
        log_error("[%s:%d]param is null", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    return editSaveCommit(UciEdit::AddList, package, section, option, value, __func__, "uci_add_list");
}

int uciDelList(const char *package, const char *section, const char *option, const char *value)
{
    if (!package || !section || !option || !value) {
        log_error("[%s:%d]param is null", __func__, __LINE__);
        return UCI_ERR_INVAL;
    }
    return editSaveCommit(UciEdit::DelList, package, section, option, value);
}
