// The in-memory tree: packages, sections, options, list items and deltas, their lists and names.
#include "internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace uci_impl {

static bool is_alnum(unsigned char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool valid_name(std::string_view s)
{
	if (s.empty())
		return false;
	for (unsigned char c : s)
		if (!is_alnum(c) && c != '_')
			return false;
	return true;
}

bool valid_package_name(std::string_view s)
{
	if (s.empty())
		return false;
	for (unsigned char c : s)
		if (!is_alnum(c) && c != '_' && c != '-')
			return false;
	return true;
}

bool valid_package_ref(std::string_view s)
{
	if (s.empty())
		return false;
	for (unsigned char c : s)
		if (c < 33 || c > 126 || c == '.')
			return false;
	return true;
}

bool valid_type(std::string_view s)
{
	if (s.empty())
		return false;
	for (unsigned char c : s)
		if (c < 33 || c > 126)
			return false;
	return true;
}

bool valid_text(std::string_view s)
{
	for (unsigned char c : s)
		if (c < 32 && c != '\t' && c != '\n' && c != '\r')
			return false;
	return true;
}

char *dup_string(std::string_view s)
{
	char *r = static_cast<char *>(malloc(s.size() + 1));
	if (!r)
		fail(UCI_ERR_MEM);
	memcpy(r, s.data(), s.size());
	r[s.size()] = 0;
	return r;
}

template <class T>
static T *alloc_zeroed()
{
	T *r = static_cast<T *>(calloc(1, sizeof(T)));
	if (!r)
		fail(UCI_ERR_MEM);
	return r;
}

void list_init(uci_list *l) { l->next = l->prev = l; }

void list_insert_before(uci_list *pos, uci_list *item)
{
	item->prev = pos->prev;
	item->next = pos;
	pos->prev->next = item;
	pos->prev = item;
}

void list_add_tail(uci_list *head, uci_list *item) { list_insert_before(head, item); }

void list_del(uci_list *item)
{
	item->prev->next = item->next;
	item->next->prev = item->prev;
	list_init(item);
}

// ---- allocation ----
// The objects of a package (sections, options, list items and their strings) come from its arena while
// the parser builds it, and from the heap one by one afterwards. Giving back an arena object does nothing:
// the arena goes with the package.

template <class T>
static T *object_new(uci_package *p)
{
	PackageState *st = state_of(p);
	if (st->filling) {
		void *r = st->arena->alloc(sizeof(T), alignof(T));
		memset(r, 0, sizeof(T));
		return static_cast<T *>(r);
	}
	T *r = alloc_zeroed<T>();
	st->heap_objects++;
	return r;
}

static char *string_new(uci_package *p, std::string_view s)
{
	PackageState *st = state_of(p);
	if (st->filling)
		return st->arena->dup(s);
	char *r = dup_string(s);
	st->heap_objects++;
	return r;
}

static void give_back(uci_package *p, void *mem)
{
	if (!mem)
		return;
	PackageState *st = state_of(p);
	if (st->arena && st->arena->owns(mem))
		return;
	free(mem);
	st->heap_objects--;
}

static void section_release(uci_section *s);

// ---- packages ----

uci_package *package_new(uci_context *ctx, std::string_view name, bool bulk, size_t hint)
{
	uci_package *p = alloc_zeroed<uci_package>();
	p->e.type = UCI_TYPE_PACKAGE;
	list_init(&p->e.list);
	list_init(&p->sections);
	list_init(&p->delta);
	list_init(&p->saved_delta);
	p->ctx = ctx;
	p->backend = ctx->backend;
	try {
		p->e.name = dup_string(name);
		auto st = std::make_unique<PackageState>();
		if (bulk) {
			st->arena = std::make_unique<Arena>(hint);
			st->filling = true;
		}
		p->priv = st.release();
	} catch (...) {
		free(p->e.name);
		free(p);
		throw;
	}
	return p;
}

void package_seal(uci_package *p) { state_of(p)->filling = false; }

void package_free(uci_package *p)
{
	if (!p)
		return;
	list_del(&p->e.list);
	// Only objects allocated one by one need a walk; the arena and the index go at once.
	if (state_of(p)->heap_objects) {
		uci_element *e, *tmp;
		uci_foreach_element_safe(&p->sections, tmp, e)
			section_release(uci_to_section(e));
	}
	delta_list_free(&p->delta);
	delta_list_free(&p->saved_delta);
	delete state_of(p);
	free(p->path);
	free(p->e.name);
	free(p);
}

// ---- sections ----

// DJB hash of the type, as the anonymous names use it.
static uint32_t type_hash(std::string_view type)
{
	uint32_t h = 5381;
	for (char c : type)
		h = h * 33 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
	return h & 0x7fffffff;
}

uci_section *section_new(uci_package *p, std::string_view type, std::string_view name)
{
	SectionIndex &index = state_of(p)->index;
	index.reserve_one();
	uci_section *s = object_new<uci_section>(p);
	s->e.type = UCI_TYPE_SECTION;
	list_init(&s->e.list);
	list_init(&s->options);
	s->package = p;
	p->n_section++;
	try {
		s->type = string_new(p, type);
		if (name.empty()) {
			char buf[32];
			snprintf(buf, sizeof buf, "cfg%02x%04x", static_cast<unsigned>(p->n_section),
				static_cast<unsigned>(type_hash(type) % 0x10000));
			s->anonymous = true;
			s->e.name = string_new(p, buf);
		} else {
			s->e.name = string_new(p, name);
		}
	} catch (...) {
		give_back(p, s->type);
		give_back(p, s);
		throw;
	}
	index.insert(s);
	list_add_tail(&p->sections, &s->e.list);
	return s;
}

// Frees s and what it holds, without unlinking it.
static void section_release(uci_section *s)
{
	uci_package *p = s->package;
	uci_element *e, *tmp;
	uci_foreach_element_safe(&s->options, tmp, e)
		option_free(uci_to_option(e));
	give_back(p, s->type);
	give_back(p, s->e.name);
	give_back(p, s);
}

void section_free(uci_section *s)
{
	state_of(s->package)->index.remove(s);
	list_del(&s->e.list);
	section_release(s);
}

void section_set_type(uci_section *s, std::string_view type)
{
	char *t = string_new(s->package, type);
	give_back(s->package, s->type);
	s->type = t;
}

void section_rename(uci_section *s, std::string_view name)
{
	if (name == s->e.name)
		return;
	uci_package *p = s->package;
	SectionIndex &index = state_of(p)->index;
	char *n = string_new(p, name);
	try {
		index.reserve_one();
	} catch (...) {
		give_back(p, n);
		throw;
	}
	index.remove(s);
	give_back(p, s->e.name);
	s->e.name = n;
	index.insert(s);
}

// The index holds every section of the package, so a miss is final.
uci_section *find_section(uci_package *p, std::string_view name)
{
	bool several = false;
	uci_section *s = state_of(p)->index.find(name, &several);
	if (!several)
		return s;
	// Several sections carry that name (written so by another tool): the first in file order wins.
	uci_element *e;
	uci_foreach_element(&p->sections, e)
		if (name == e->name)
			return uci_to_section(e);
	return nullptr;
}

// ---- options ----

static uci_option *option_alloc(uci_section *s, std::string_view name)
{
	uci_package *p = s->package;
	uci_option *o = object_new<uci_option>(p);
	o->e.type = UCI_TYPE_OPTION;
	list_init(&o->e.list);
	o->section = s;
	try {
		o->e.name = string_new(p, name);
	} catch (...) {
		give_back(p, o);
		throw;
	}
	return o;
}

uci_option *option_new_string(uci_section *s, std::string_view name, std::string_view value)
{
	uci_option *o = option_alloc(s, name);
	o->type = UCI_TYPE_STRING;
	try {
		o->v.string = string_new(s->package, value);
	} catch (...) {
		give_back(s->package, o->e.name);
		give_back(s->package, o);
		throw;
	}
	list_add_tail(&s->options, &o->e.list);
	return o;
}

uci_option *option_new_list(uci_section *s, std::string_view name)
{
	uci_option *o = option_alloc(s, name);
	o->type = UCI_TYPE_LIST;
	list_init(&o->v.list);
	list_add_tail(&s->options, &o->e.list);
	return o;
}

void item_free(uci_option *o, uci_element *item)
{
	uci_package *p = o->section->package;
	list_del(&item->list);
	give_back(p, item->name);
	give_back(p, item);
}

static void free_items(uci_option *o)
{
	uci_element *e, *tmp;
	uci_foreach_element_safe(&o->v.list, tmp, e)
		item_free(o, e);
}

void option_free(uci_option *o)
{
	uci_package *p = o->section->package;
	list_del(&o->e.list);
	if (o->type == UCI_TYPE_STRING)
		give_back(p, o->v.string);
	else
		free_items(o);
	give_back(p, o->e.name);
	give_back(p, o);
}

void option_set_string(uci_option *o, std::string_view value)
{
	uci_package *p = o->section->package;
	char *v = string_new(p, value);
	if (o->type == UCI_TYPE_STRING)
		give_back(p, o->v.string);
	else
		free_items(o);
	o->type = UCI_TYPE_STRING;
	o->v.string = v;
}

static uci_element *item_new(uci_package *p, std::string_view value)
{
	uci_element *e = object_new<uci_element>(p);
	e->type = UCI_TYPE_ITEM;
	list_init(&e->list);
	try {
		e->name = string_new(p, value);
	} catch (...) {
		give_back(p, e);
		throw;
	}
	return e;
}

void option_make_list(uci_option *o)
{
	if (o->type == UCI_TYPE_LIST)
		return;
	uci_package *p = o->section->package;
	uci_element *item = item_new(p, o->v.string);
	give_back(p, o->v.string);
	o->type = UCI_TYPE_LIST;
	list_init(&o->v.list);
	list_add_tail(&o->v.list, &item->list);
}

void option_append_item(uci_option *o, std::string_view value)
{
	uci_element *item = item_new(o->section->package, value);
	list_add_tail(&o->v.list, &item->list);
}

void option_rename(uci_option *o, std::string_view name)
{
	uci_package *p = o->section->package;
	char *n = string_new(p, name);
	give_back(p, o->e.name);
	o->e.name = n;
}

uci_option *find_option(uci_section *s, std::string_view name)
{
	uci_element *e;
	uci_foreach_element(&s->options, e)
		if (name == e->name)
			return uci_to_option(e);
	return nullptr;
}

// ---- deltas and paths ----

uci_delta *delta_new(uci_command cmd, const char *section, const char *option, const char *value)
{
	uci_delta *d = alloc_zeroed<uci_delta>();
	d->e.type = UCI_TYPE_DELTA;
	list_init(&d->e.list);
	d->cmd = cmd;
	try {
		d->section = section ? dup_string(section) : nullptr;
		d->e.name = option ? dup_string(option) : nullptr;
		d->value = value ? dup_string(value) : nullptr;
	} catch (...) {
		delta_free(d);
		throw;
	}
	return d;
}

void delta_free(uci_delta *d)
{
	list_del(&d->e.list);
	free(d->section);
	free(d->e.name);
	free(d->value);
	free(d);
}

void delta_list_free(uci_list *list)
{
	uci_element *e, *tmp;
	uci_foreach_element_safe(list, tmp, e)
		delta_free(uci_to_delta(e));
}

uci_element *path_new(std::string_view dir)
{
	uci_element *e = alloc_zeroed<uci_element>();
	e->type = UCI_TYPE_PATH;
	list_init(&e->list);
	try {
		e->name = dup_string(dir);
	} catch (...) {
		free(e);
		throw;
	}
	return e;
}

void path_free(uci_element *e)
{
	list_del(&e->list);
	free(e->name);
	free(e);
}

}  // namespace uci_impl
