// Tuples "pkg[.section[.option]][=value]": splitting, validation and lookup, including @type[index].
#include "internal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

using namespace uci_impl;

namespace uci_impl {

void parse_tuple(uci_context *, uci_ptr *ptr, char *str)
{
	memset(ptr, 0, sizeof *ptr);
	if (!str)
		fail(UCI_ERR_INVAL);

	char *eq = strchr(str, '=');
	if (eq) {
		*eq = 0;
		ptr->value = eq + 1;
	}

	char *parts[3] = {str, nullptr, nullptr};
	int n = 1;
	for (char *c = str; *c; c++) {
		if (*c != '.')
			continue;
		if (n == 3) {
			memset(ptr, 0, sizeof *ptr);
			fail(UCI_ERR_PARSE);
		}
		*c = 0;
		parts[n++] = c + 1;
	}

	ptr->package = parts[0];
	ptr->section = parts[1];
	ptr->option = parts[2];
	ptr->target = n == 1 ? UCI_TYPE_PACKAGE : n == 2 ? UCI_TYPE_SECTION : UCI_TYPE_OPTION;

	bool ok = valid_package_ref(ptr->package);
	if (ok && ptr->option && !valid_name(ptr->option))
		ok = false;
	if (ok && ptr->value && !valid_text(ptr->value))
		ok = false;
	if (!ok) {
		memset(ptr, 0, sizeof *ptr);
		fail(UCI_ERR_PARSE);
	}
	if (ptr->section && !valid_name(ptr->section))
		ptr->flags = static_cast<decltype(ptr->flags)>(ptr->flags | uci_ptr::UCI_LOOKUP_EXTENDED);
}

static void add_flag(uci_ptr *ptr, int flag)
{
	ptr->flags = static_cast<decltype(ptr->flags)>(ptr->flags | flag);
}

// Parses "@type[index]"; false if the text does not have that form.
static bool parse_extended(const char *text, std::string &type, long &index)
{
	if (text[0] != '@')
		return false;
	const char *open = strchr(text + 1, '[');
	if (!open)
		return false;
	type.assign(text + 1, open);
	if (type.find(']') != std::string::npos)
		return false;
	char *end = nullptr;
	errno = 0;
	index = strtol(open + 1, &end, 10);
	if (end == open + 1 || errno == ERANGE)
		return false;
	return end[0] == ']' && end[1] == 0;
}

static uci_section *resolve_extended(uci_package *p, const std::string &type, long index)
{
	auto matches = [&](uci_section *s) { return type.empty() || type == s->type; };
	uci_list *head = &p->sections;
	if (index < 0) {
		// Counted from the end: walk backwards, so that @type[-1] does not visit the whole package.
		for (uci_list *l = head->prev; l != head; l = l->prev) {
			uci_section *s = uci_to_section(list_to_element(l));
			if (matches(s) && ++index == 0)
				return s;
		}
		return nullptr;
	}
	for (uci_list *l = head->next; l != head; l = l->next) {
		uci_section *s = uci_to_section(list_to_element(l));
		if (matches(s) && index-- == 0)
			return s;
	}
	return nullptr;
}

static uci_package *find_or_load(uci_context *ctx, const char *name)
{
	uci_element *e;
	uci_foreach_element(&ctx->root, e)
		if (strcmp(e->name, name) == 0)
			return uci_to_package(e);
	return load_package(ctx, name, true);
}

void lookup(uci_context *ctx, uci_ptr *ptr, bool extended)
{
	ptr->flags = static_cast<decltype(ptr->flags)>(ptr->flags & ~uci_ptr::UCI_LOOKUP_COMPLETE);
	add_flag(ptr, uci_ptr::UCI_LOOKUP_DONE);
	ptr->last = nullptr;

	if (!ptr->p) {
		if (!ptr->package)
			fail(UCI_ERR_INVAL);
		ptr->p = find_or_load(ctx, ptr->package);
	}
	ptr->last = &ptr->p->e;

	if (!ptr->s && ptr->section) {
		if (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED) {
			if (!extended)
				fail(UCI_ERR_INVAL);
			std::string type;
			long index = 0;
			if (!parse_extended(ptr->section, type, index)) {
				memset(ptr, 0, sizeof *ptr);
				fail(UCI_ERR_INVAL);
			}
			ptr->s = resolve_extended(ptr->p, type, index);
			if (ptr->s)
				ptr->section = ptr->s->e.name;
		} else {
			ptr->s = find_section(ptr->p, ptr->section);
		}
	}
	if (ptr->s) {
		ptr->last = &ptr->s->e;
		if (!ptr->o && ptr->option)
			ptr->o = find_option(ptr->s, ptr->option);
		if (ptr->o)
			ptr->last = &ptr->o->e;
	}

	bool complete = true;
	if ((ptr->section || ptr->s) && !ptr->s)
		complete = false;
	if ((ptr->option || ptr->o) && !ptr->o)
		complete = false;
	if (complete)
		add_flag(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
}

void ensure_lookup(uci_context *ctx, uci_ptr *ptr)
{
	if (!(ptr->flags & uci_ptr::UCI_LOOKUP_DONE)) {
		if (ptr->target == UCI_TYPE_UNSPEC)
			ptr->target = ptr->option ? UCI_TYPE_OPTION : (ptr->section || ptr->s) ? UCI_TYPE_SECTION
										      : UCI_TYPE_PACKAGE;
		lookup(ctx, ptr, true);
	}
}

}  // namespace uci_impl

extern "C" {

int uci_parse_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str)
{
	return guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		parse_tuple(ctx, ptr, str);
	});
}

int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended)
{
	return guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		if (str)
			parse_tuple(ctx, ptr, str);
		else if (ptr->target == UCI_TYPE_UNSPEC)
			ptr->target = ptr->option ? UCI_TYPE_OPTION : (ptr->section || ptr->s) ? UCI_TYPE_SECTION
										      : UCI_TYPE_PACKAGE;
		lookup(ctx, ptr, extended);
	});
}

}  // extern "C"
