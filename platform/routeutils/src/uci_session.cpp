// The one owner of a libuci context and its loaded package (see uci_session.h).
#include "routeutils/uci_session.h"

#include "routeutils/routeutils.h"
#include "routeutils/system.h"

#include <cstring>

namespace routeutils {

namespace {

// The entry of libuci's default save folder in the delta search path, taken out of the path. libuci keeps that
// folder there when the save folder moves, so a session under a test root would read the host's deltas too.
uci_element *takeOutDefaultDeltaDir(uci_context *ctx)
{
    uci_element *e;
    uci_foreach_element(&ctx->delta_path, e) {
        if (e->name != nullptr && std::strcmp(e->name, UCI_SAVEDIR) == 0) {
            e->list.prev->next = e->list.next;
            e->list.next->prev = e->list.prev;
            return e;
        }
    }
    return nullptr;
}

// Puts the entry back at the head of the path, where libuci had it, so that freeing the context frees it.
void putBackDeltaDir(uci_context *ctx, uci_element *e)
{
    uci_list *head = &ctx->delta_path;
    e->list.next = head->next;
    e->list.prev = head;
    head->next->prev = &e->list;
    head->next = &e->list;
}

}  // namespace

UciSession::UciSession() : ctx_(uci_alloc_context())
{
    // libuci's own folders (/etc/config, /tmp/.uci, and /var/run/uci where libuci has that override folder)
    // unless a test moved the system root; then nothing of the host's configuration is read or written.
    if (ctx_ != nullptr && !systemRootIsDefault()) {
        uci_set_confdir(ctx_, systemPath(UCI_CONFDIR).c_str());
        uci_set_savedir(ctx_, systemPath(UCI_SAVEDIR).c_str());
#ifdef UCI_CONF2DIR
        uci_set_conf2dir(ctx_, systemPath(UCI_CONF2DIR).c_str());
#endif
        hiddenDeltaDir_ = takeOutDefaultDeltaDir(ctx_);
    }
}

UciSession::~UciSession()
{
    if (ctx_ == nullptr)
        return;
    if (pkg_ != nullptr)
        uci_unload(ctx_, pkg_);
    if (hiddenDeltaDir_ != nullptr)
        putBackDeltaDir(ctx_, hiddenDeltaDir_);
    uci_free_context(ctx_);
}

const char *UciSession::allocCallName() { return "uci_alloc_context"; }

bool UciSession::ready(const char *caller) const
{
    if (ctx_ == nullptr)
        log_error("[%s:%d]error %s", caller, __LINE__, allocCallName());
    return ctx_ != nullptr;
}

int UciSession::load(const char *package)
{
    const int rc = uci_load(ctx_, package, &pkg_);
    if (rc != UCI_OK)
        pkg_ = nullptr;
    else if (pkg_ != nullptr)
        name_ = pkg_->e.name;
    return rc;
}

int UciSession::open(const char *caller, const char *package)
{
    if (!ready(caller))
        return -1;
    if (load(package) != UCI_OK) {
        log_error("[%s:%d]can't load %s", caller, __LINE__, package);
        return -1;
    }
    if (pkg_ == nullptr) {
        log_error("[%s:%d]can't load(%s)", caller, __LINE__, package);
        return -1;
    }
    return 0;
}

void UciSession::adopt(uci_package *pkg)
{
    pkg_ = pkg;
    if (pkg_ != nullptr)
        name_ = pkg_->e.name;
}

int UciSession::edit(UciEdit edit, const UciAddress &at)
{
    uci_package *loaded = nullptr;
    const int rc = uciEdit(ctx_, edit, at, &loaded);
    if (rc == UCI_OK)
        adopt(loaded);
    return rc;
}

uci_section *UciSession::firstSection(const char *type) const
{
    if (pkg_ == nullptr)
        return nullptr;
    uci_element *e;
    uci_foreach_element(&pkg_->sections, e) {
        uci_section *candidate = uci_to_section(e);
        if (candidate->type != nullptr && std::strcmp(candidate->type, type) == 0)
            return candidate;
    }
    return nullptr;
}

int UciSession::save()
{
    return pkg_ != nullptr ? uci_save(ctx_, pkg_) : UCI_ERR_INVAL;
}

int UciSession::commit()
{
    return uci_commit(ctx_, &pkg_, false);
}

UciWriteResult UciSession::inOrder(UciWriteResult::Step first, UciWriteResult::Step second)
{
    UciWriteResult r;
    for (const UciWriteResult::Step step : {first, second}) {
        r.rc = step == UciWriteResult::Step::Commit ? commit() : save();
        if (r.rc != UCI_OK) {
            r.failed = step;
            break;
        }
    }
    return r;
}

UciWriteResult UciSession::saveThenCommit()
{
    return inOrder(UciWriteResult::Step::Save, UciWriteResult::Step::Commit);
}

UciWriteResult UciSession::commitThenSave()
{
    return inOrder(UciWriteResult::Step::Commit, UciWriteResult::Step::Save);
}

int UciSession::revert(const char *section)
{
    if (pkg_ == nullptr)
        return -1;
    if (uciRevertLoaded(ctx_, &pkg_, section) != 0) {
        pkg_ = nullptr;
        return -1;
    }
    return 0;
}

void UciSession::revertOption(const char *section, const char *option)
{
    uci_ptr undo{};
    undo.package = name_.c_str();
    undo.section = section;
    undo.option = option;
    uci_revert(ctx_, &undo);
    // libuci reloaded (or dropped) the package: what is still loaded goes with the context.
    pkg_ = nullptr;
}

int uciEdit(uci_context *ctx, UciEdit edit, const UciAddress &at, uci_package **loaded)
{
    const bool sectionOnly = edit == UciEdit::DeleteSection;
    if (!ctx || !at.package || !at.section || (!sectionOnly && (!at.option || !at.value)))
        return UCI_ERR_INVAL;
    const std::string section(at.section);
    uci_ptr ptr{};
    ptr.p = at.pkg;
    ptr.package = at.package;
    ptr.section = section.c_str();
    ptr.option = at.option;
    ptr.value = at.value;
    // libuci's call for each edit, in the order of UciEdit.
    static int (*const kCalls[])(uci_context *, uci_ptr *) = {uci_set, uci_add_list, uci_del_list, uci_delete};
    const int rc = kCalls[static_cast<int>(edit)](ctx, &ptr);
    if (rc == UCI_OK && loaded)
        *loaded = ptr.p;
    return rc;
}

int uciRevertLoaded(uci_context *ctx, uci_package **pkg, const char *section)
{
    if (!ctx || !pkg || !*pkg)
        return -1;
    // The revert unloads the package, so its name is kept apart for the lookup.
    const std::string name((*pkg)->e.name ? (*pkg)->e.name : "");
    uci_ptr ptr{};
    ptr.p = *pkg;
    ptr.package = name.c_str();
    ptr.section = section;
    if (uci_revert(ctx, &ptr) != UCI_OK || !ptr.p)
        return -1;
    *pkg = ptr.p;
    return 0;
}

}  // namespace routeutils
