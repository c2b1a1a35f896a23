// The edit operations: set, add_section, add_list, del_list, delete, rename, reorder.
// Each one changes the tree and, when asked to, records the matching delta for the next save.
#include "internal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace uci_impl;

namespace uci_impl {

void record_delta(uci_package *p, uci_command cmd, const char *section, const char *option, const char *value)
{
	if (!p->has_delta)
		return;
	uci_delta *d = delta_new(cmd, section, option, value);
	list_add_tail(&p->delta, &d->e.list);
}

static bool names_option(const uci_ptr *ptr) { return ptr->option || ptr->o; }
static bool names_section(const uci_ptr *ptr) { return ptr->section || ptr->s; }

int op_set(uci_context *ctx, uci_ptr *ptr, bool record)
{
	ensure_lookup(ctx, ptr);
	if (!ptr->value || !ptr->p)
		fail(UCI_ERR_INVAL);
	bool option_target = names_option(ptr);
	if (!ptr->s && (option_target || !ptr->section))
		fail(UCI_ERR_INVAL);
	if (!option_target && *ptr->value && !valid_type(ptr->value))
		fail(UCI_ERR_INVAL);

	if (!*ptr->value) {
		// An empty value deletes, and is a no-op when there is nothing to delete.
		if (option_target ? !ptr->o : !ptr->s)
			return 0;
		return op_delete(ctx, ptr, record);
	}

	if (option_target) {
		uci_section *s = ptr->s;
		if (!ptr->o) {
			ptr->o = option_new_string(s, ptr->option, ptr->value);
		} else if (ptr->o->type == UCI_TYPE_STRING && strcmp(ptr->o->v.string, ptr->value) == 0) {
			return 0;
		} else {
			option_set_string(ptr->o, ptr->value);
		}
		if (record)
			record_delta(ptr->p, UCI_CMD_CHANGE, s->e.name, ptr->o->e.name, ptr->value);
		return 0;
	}

	if (!ptr->s) {
		// A section created by name must carry a name that reads back from a file.
		if (!valid_name(ptr->section))
			fail(UCI_ERR_INVAL);
		ptr->s = section_new(ptr->p, ptr->value, ptr->section);
	} else if (strcmp(ptr->s->type, ptr->value) == 0) {
		return 0;
	} else {
		section_set_type(ptr->s, ptr->value);
	}
	if (record)
		record_delta(ptr->p, UCI_CMD_CHANGE, ptr->s->e.name, nullptr, ptr->value);
	return 0;
}

int op_add_list(uci_context *ctx, uci_ptr *ptr, bool record)
{
	ensure_lookup(ctx, ptr);
	if (!ptr->value || !ptr->s || !names_option(ptr))
		fail(UCI_ERR_INVAL);
	if (!ptr->o) {
		ptr->o = option_new_list(ptr->s, ptr->option);
	} else if (ptr->o->type == UCI_TYPE_STRING) {
		option_make_list(ptr->o);
	}
	option_append_item(ptr->o, ptr->value);
	if (record)
		record_delta(ptr->p, UCI_CMD_LIST_ADD, ptr->s->e.name, ptr->o->e.name, ptr->value);
	return 0;
}

int op_del_list(uci_context *ctx, uci_ptr *ptr, bool record)
{
	ensure_lookup(ctx, ptr);
	if (!ptr->value || !ptr->s || !names_option(ptr))
		fail(UCI_ERR_INVAL);
	if (!ptr->o || ptr->o->type != UCI_TYPE_LIST)
		return 0;
	uci_element *e, *tmp;
	uci_foreach_element_safe(&ptr->o->v.list, tmp, e) {
		if (strcmp(e->name, ptr->value) == 0)
			item_free(ptr->o, e);
	}
	// Removing an absent value is still recorded, so that replaying the change gives the same result.
	if (record)
		record_delta(ptr->p, UCI_CMD_LIST_DEL, ptr->s->e.name, ptr->o->e.name, ptr->value);
	return 0;
}

// Returns 1 (without an error code) for a list index that is not a number.
int op_delete(uci_context *ctx, uci_ptr *ptr, bool record)
{
	ensure_lookup(ctx, ptr);
	if (!ptr->p || !names_section(ptr))
		fail(UCI_ERR_INVAL);
	bool option_target = names_option(ptr);
	if (option_target ? !ptr->o : !ptr->s)
		fail(UCI_ERR_NOTFOUND);

	std::string section = ptr->s->e.name;
	if (option_target) {
		uci_option *o = ptr->o;
		std::string option = o->e.name;
		if (o->type == UCI_TYPE_LIST && ptr->value && *ptr->value) {
			char *end = nullptr;
			errno = 0;
			long index = strtol(ptr->value, &end, 10);
			if (end == ptr->value || *end || errno == ERANGE)
				return 1;
			if (index < 0)
				return 0;
			uci_element *e;
			uci_foreach_element(&o->v.list, e) {
				if (index-- == 0) {
					item_free(o, e);
					if (record)
						record_delta(ptr->p, UCI_CMD_REMOVE, section.c_str(), option.c_str(), ptr->value);
					return 0;
				}
			}
			return 0;
		}
		option_free(o);
		ptr->o = nullptr;
		ptr->last = &ptr->s->e;
		if (record)
			record_delta(ptr->p, UCI_CMD_REMOVE, section.c_str(), option.c_str(), nullptr);
		return 0;
	}
	// After an @type[n] lookup ptr->section points at the name that is about to be freed.
	bool name_from_tree = ptr->section == ptr->s->e.name;
	section_free(ptr->s);
	ptr->s = nullptr;
	ptr->o = nullptr;
	ptr->last = &ptr->p->e;
	if (name_from_tree)
		ptr->section = nullptr;
	if (record)
		record_delta(ptr->p, UCI_CMD_REMOVE, section.c_str(), nullptr, nullptr);
	return 0;
}

int op_rename(uci_context *ctx, uci_ptr *ptr, bool record, bool validate)
{
	ensure_lookup(ctx, ptr);
	if (!ptr->p || !names_section(ptr) || !ptr->value)
		fail(UCI_ERR_INVAL);
	bool option_target = names_option(ptr);
	if (option_target ? !ptr->o : !ptr->s)
		fail(UCI_ERR_NOTFOUND);

	std::string old_section = ptr->s->e.name;
	if (option_target) {
		if (validate) {
			uci_option *other = find_option(ptr->s, ptr->value);
			if (!valid_name(ptr->value) || (other && other != ptr->o))
				fail(UCI_ERR_INVAL);
		}
		std::string old_option = ptr->o->e.name;
		option_rename(ptr->o, ptr->value);
		ptr->option = ptr->o->e.name;
		if (record)
			record_delta(ptr->p, UCI_CMD_RENAME, old_section.c_str(), old_option.c_str(), ptr->value);
		return 0;
	}
	if (validate) {
		uci_section *other = find_section(ptr->p, ptr->value);
		if (!valid_name(ptr->value) || (other && other != ptr->s))
			fail(UCI_ERR_INVAL);
	}
	section_rename(ptr->s, ptr->value);
	ptr->s->anonymous = false;
	ptr->section = ptr->s->e.name;
	if (record)
		record_delta(ptr->p, UCI_CMD_RENAME, old_section.c_str(), nullptr, ptr->value);
	return 0;
}

void op_reorder(uci_context *, uci_section *s, int pos, bool record)
{
	uci_package *p = s->package;
	int count = 0, current = -1;
	uci_element *e;
	uci_foreach_element(&p->sections, e) {
		if (e == &s->e)
			current = count;
		count++;
	}
	int target = pos < 0 ? 0 : pos >= count ? count - 1 : pos;
	if (target == current)
		return;
	list_del(&s->e.list);
	uci_list *before = &p->sections;
	int i = 0;
	uci_foreach_element(&p->sections, e) {
		if (i++ == target) {
			before = &e->list;
			break;
		}
	}
	list_insert_before(before, &s->e.list);
	if (record)
		record_delta(p, UCI_CMD_REORDER, s->e.name, nullptr, std::to_string(pos).c_str());
}

uci_section *op_add_section(uci_context *, uci_package *p, std::string_view type, bool record)
{
	uci_section *s = section_new(p, type, {});
	if (record)
		record_delta(p, UCI_CMD_ADD, s->e.name, nullptr, s->type);
	return s;
}

}  // namespace uci_impl

extern "C" {

int uci_set(struct uci_context *ctx, struct uci_ptr *ptr)
{
	return guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		op_set(ctx, ptr, true);
	});
}

int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr)
{
	return guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		op_add_list(ctx, ptr, true);
	});
}

int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr)
{
	return guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		op_del_list(ctx, ptr, true);
	});
}

int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr)
{
	int quirk = 0;
	int rc = guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		quirk = op_delete(ctx, ptr, true);
	});
	// A list index that is not a number gives 1 and leaves ctx->err alone, like the original library.
	return rc ? rc : quirk;
}

int uci_rename(struct uci_context *ctx, struct uci_ptr *ptr)
{
	return guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		op_rename(ctx, ptr, true, true);
	});
}

int uci_reorder_section(struct uci_context *ctx, struct uci_section *s, int pos)
{
	return guarded(ctx, [&] {
		if (!s)
			fail(UCI_ERR_INVAL);
		op_reorder(ctx, s, pos, true);
	});
}

int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type, struct uci_section **res)
{
	return guarded(ctx, [&] {
		if (res)
			*res = nullptr;
		// The type must read back from a file, unlike the original library, which writes any text.
		if (!p || !type || !valid_type(type))
			fail(UCI_ERR_INVAL);
		uci_section *s = op_add_section(ctx, p, type, true);
		if (res)
			*res = s;
	});
}

}  // extern "C"
