// The one owner of a libuci context and of the package loaded in it. Every configuration read and write of the
// daemon and of the platform library goes through a UciSession: it allocates the context (the only place that
// does, with the configuration and save folders under the system root of system.h), loads, finds, and makes edits
// permanent in one of the named orders below, and unloads and frees on every way out. The daemon keeps no session
// between operations: each one lives for one read or one write.
//
// The write orders are not uniform, and each is a choice the caller makes by name:
//   saveThenCommit()  the shared list and option writes, the MAC filter's rule removal, the integer setter;
//   commitThenSave()  the NAT mappings, the UPnP switch, the WAN redirect and the IPTV network edits;
//   commit()          alone: the new unnamed section (uciAddNewSection), which never saves;
//   revert()          after a failed write: the package's uncommitted changes are discarded (libuci reloads it);
//   revertOption()    after a failed commit of one saved option: only that option's saved change goes.
//
// The edits by address (set an option, add or remove one list value, delete a section) have one implementation,
// uciEdit below; the configuration layer's and the platform library's named operations are thin entries to it.
#pragma once

#include <string>
#include <uci.h>

namespace routeutils {

// An edit of a package by address, as libuci's own edit calls take it. Nothing is saved or committed.
enum class UciEdit { Set, AddList, DelList, DeleteSection };

struct UciAddress {
    uci_package *pkg = nullptr;  // the loaded package, when the caller has it; else libuci finds (or loads) it
    const char *package = nullptr;
    const char *section = nullptr;
    const char *option = nullptr;  // not for DeleteSection
    const char *value = nullptr;   // not for DeleteSection
};

// Makes one edit: libuci's result, UCI_ERR_INVAL when the context or a part the edit needs is missing. The section
// text may be the section's own name (deleting the section frees it): the edit works on a copy. On success *loaded,
// when asked for, is the package libuci edited.
int uciEdit(uci_context *ctx, UciEdit edit, const UciAddress &at, uci_package **loaded = nullptr);

// Which step of a two-step write failed, and libuci's number for it.
struct UciWriteResult {
    enum class Step { None, Save, Commit } failed = Step::None;
    int rc = UCI_OK;
    bool ok() const { return failed == Step::None; }
};

class UciSession {
public:
    UciSession();
    ~UciSession();
    UciSession(const UciSession &) = delete;
    UciSession &operator=(const UciSession &) = delete;

    // False when no context could be allocated.
    explicit operator bool() const { return ctx_ != nullptr; }
    // As operator bool, logging "[caller:N]error <allocation call>" when there is no context.
    bool ready(const char *caller) const;
    // The name of the allocation call, for the messages that name it in their own words.
    static const char *allocCallName();

    uci_context *ctx() const { return ctx_; }
    uci_package *pkg() const { return pkg_; }

    // Loads a package by name: libuci's result; on success pkg() is the package (null when libuci gave none).
    int load(const char *package);
    // load() with its failures logged under the caller's name: ready()'s message without a context,
    // "[%s:%d]can't load %s" when libuci fails, "[%s:%d]can't load(%s)" when it gives no package. 0 or -1.
    int open(const char *caller, const char *package);
    // Takes over a package that an edit by address (uci_set, uci_add_list, ...) loaded into the context.
    void adopt(uci_package *pkg);
    // uciEdit in the session's context; the session takes over the package the edit loaded.
    int edit(UciEdit edit, const UciAddress &at);
    // The first section of `type` in the package, whatever its name; null when there is none.
    uci_section *firstSection(const char *type) const;

    // The single steps: libuci's result (UCI_ERR_INVAL for save() without a package). A commit does not overwrite
    // and replaces pkg() by the package libuci reloads.
    int save();
    int commit();
    // The two orders; both stop at the first failing step.
    UciWriteResult saveThenCommit();
    UciWriteResult commitThenSave();
    // Discards the package's uncommitted changes (of one section when given); pkg() becomes the reloaded package.
    // 0 or -1; after a failure the package is forgotten (freeing the context releases whatever is still loaded).
    int revert(const char *section = nullptr);
    // Takes back the saved change of package.section.option only (by address, as it was written); the package is
    // forgotten afterwards (libuci reloaded it).
    void revertOption(const char *section, const char *option);
    // Forgets the package without unloading it (after a failed commit): freeing the context releases it.
    void forgetPackage() { pkg_ = nullptr; }

private:
    UciWriteResult inOrder(UciWriteResult::Step first, UciWriteResult::Step second);

    uci_context *ctx_;
    uci_package *pkg_ = nullptr;
    uci_element *hiddenDeltaDir_ = nullptr;  // libuci's default save folder, out of the delta path under a root
    std::string name_;  // the package's name, kept apart: a revert unloads the package first
};

// The revert of a loaded package: discards its uncommitted changes (of `section` only when given) and stores the
// package libuci reloaded in *pkg. 0 or -1; *pkg is left alone on failure.
int uciRevertLoaded(uci_context *ctx, uci_package **pkg, const char *section);

}  // namespace routeutils
