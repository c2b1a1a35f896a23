// Contexts, directories, error reporting and the small exported helpers.
#include "internal.h"

#include <cstdlib>
#include <cstring>

using namespace uci_impl;

extern "C" {
char const uci_command_char[] = {'+', '-', 0, '@', '^', '|', '~'};
}

namespace uci_impl {

void clear_parse_error(uci_context *ctx)
{
	delete ctx->pctx;
	ctx->pctx = nullptr;
}

void parse_error(uci_context *ctx, const char *reason, int line, int byte)
{
	if (!ctx->pctx)
		ctx->pctx = new uci_parse_context;
	ctx->pctx->reason = reason;
	ctx->pctx->line = line;
	ctx->pctx->byte = byte;
	fail(UCI_ERR_PARSE);
}

std::string parse_error_detail(uci_context *ctx)
{
	if (!ctx->pctx)
		return {};
	std::string r = " (";
	r += ctx->pctx->reason;
	r += ") at line " + std::to_string(ctx->pctx->line) + ", byte " + std::to_string(ctx->pctx->byte);
	return r;
}

}  // namespace uci_impl

static const char *const error_texts[] = {
	"Success", "Out of memory", "Invalid argument", "Entry not found",
	"I/O error", "Parse error", "Duplicate entry", "Unknown error",
};

static std::string error_text(uci_context *ctx, const char *prefix)
{
	std::string r;
	if (prefix) {
		r = prefix;
		r += ": ";
	}
	int err = ctx->err;
	r += (err >= 0 && err < UCI_ERR_LAST) ? error_texts[err] : error_texts[UCI_ERR_UNKNOWN];
	if (err == UCI_ERR_PARSE)
		r += parse_error_detail(ctx);
	return r;
}

static void free_context(uci_context *ctx)
{
	uci_element *e, *tmp;
	uci_foreach_element_safe(&ctx->root, tmp, e)
		package_free(uci_to_package(e));
	uci_foreach_element_safe(&ctx->delta_path, tmp, e)
		path_free(e);
	uci_foreach_element_safe(&ctx->backends, tmp, e) {
		list_del(&e->list);
		uci_backend *b = uci_to_backend(e);
		free(b->e.name);
		free(b);
	}
	clear_parse_error(ctx);
	free(ctx->confdir);
	free(ctx->savedir);
	free(ctx->conf2dir);
	free_argument_state(ctx);
	free(ctx);
}

extern "C" {

struct uci_context *uci_alloc_context(void)
{
	uci_context *ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
	if (!ctx)
		return nullptr;
	list_init(&ctx->root);
	list_init(&ctx->backends);
	list_init(&ctx->delta_path);
	ctx->flags = static_cast<uci_flags>(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
	try {
		ctx->confdir = dup_string(UCI_CONFDIR);
		ctx->savedir = dup_string(UCI_SAVEDIR);
		ctx->conf2dir = dup_string(UCI_CONF2DIR);
		list_add_tail(&ctx->delta_path, &path_new(UCI_SAVEDIR)->list);
		uci_backend *b = static_cast<uci_backend *>(calloc(1, sizeof(uci_backend)));
		if (!b)
			fail(UCI_ERR_MEM);
		b->e.type = UCI_TYPE_BACKEND;
		b->e.name = strdup("file");
		list_add_tail(&ctx->backends, &b->e.list);
		if (!b->e.name)
			fail(UCI_ERR_MEM);
		ctx->backend = b;
	} catch (...) {
		free_context(ctx);
		return nullptr;
	}
	return ctx;
}

void uci_free_context(struct uci_context *ctx)
{
	if (ctx)
		free_context(ctx);
}

void uci_perror(struct uci_context *ctx, const char *str)
{
	if (!ctx)
		return;
	std::string text = error_text(ctx, str);
	fprintf(stderr, "%s\n", text.c_str());
}

void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *str)
{
	if (!ctx)
		return;
	if (!dest) {
		uci_perror(ctx, str);
		return;
	}
	*dest = strdup(error_text(ctx, str).c_str());
}

int uci_set_confdir(struct uci_context *ctx, const char *dir)
{
	return guarded(ctx, [&] {
		if (!dir)
			fail(UCI_ERR_INVAL);
		char *d = dup_string(dir);
		free(ctx->confdir);
		ctx->confdir = d;
	});
}

int uci_set_conf2dir(struct uci_context *ctx, const char *dir)
{
	return guarded(ctx, [&] {
		char *d = (dir && *dir) ? dup_string(dir) : nullptr;
		free(ctx->conf2dir);
		ctx->conf2dir = d;
	});
}

int uci_set_savedir(struct uci_context *ctx, const char *dir)
{
	return guarded(ctx, [&] {
		if (!dir)
			fail(UCI_ERR_INVAL);
		uci_element *found = nullptr, *e;
		uci_foreach_element(&ctx->delta_path, e)
			if (strcmp(e->name, dir) == 0)
				found = e;
		char *d = dup_string(dir);
		if (found) {
			list_del(&found->list);
		} else {
			try {
				found = path_new(dir);
			} catch (...) {
				free(d);
				throw;
			}
		}
		list_add_tail(&ctx->delta_path, &found->list);
		free(ctx->savedir);
		ctx->savedir = d;
	});
}

int uci_add_delta_path(struct uci_context *ctx, const char *dir)
{
	return guarded(ctx, [&] {
		if (!dir)
			fail(UCI_ERR_INVAL);
		uci_element *e;
		uci_foreach_element(&ctx->delta_path, e)
			if (strcmp(e->name, dir) == 0)
				fail(UCI_ERR_DUPLICATE);
		uci_element *n = path_new(dir);
		if (uci_list_empty(&ctx->delta_path))
			list_add_tail(&ctx->delta_path, &n->list);
		else
			list_insert_before(ctx->delta_path.prev, &n->list);
	});
}

int uci_set_backend(struct uci_context *ctx, const char *name)
{
	return guarded(ctx, [&] {
		if (!name)
			fail(UCI_ERR_INVAL);
		uci_element *e;
		uci_foreach_element(&ctx->backends, e) {
			if (strcmp(e->name, name) == 0) {
				ctx->backend = uci_to_backend(e);
				return;
			}
		}
		fail(UCI_ERR_NOTFOUND);
	});
}

bool uci_validate_text(const char *str)
{
	return str && valid_text(str);
}

int uci_lookup_next(struct uci_context *ctx, struct uci_element **e, struct uci_list *list, const char *name)
{
	return guarded(ctx, [&] {
		if (!e || !list || !name)
			fail(UCI_ERR_INVAL);
		*e = nullptr;
		uci_element *it;
		uci_foreach_element(list, it) {
			if (it->name && strcmp(it->name, name) == 0) {
				*e = it;
				return;
			}
		}
		fail(UCI_ERR_NOTFOUND);
	});
}

void uci_parse_section(struct uci_section *s, const struct uci_parse_option *opts, int n_opts,
	struct uci_option **tb)
{
	if (n_opts <= 0)
		return;
	memset(tb, 0, sizeof(*tb) * n_opts);
	if (!s)
		return;
	uci_element *e;
	uci_foreach_element(&s->options, e) {
		uci_option *o = uci_to_option(e);
		for (int i = 0; i < n_opts; i++) {
			if (tb[i] || !opts[i].name || strcmp(opts[i].name, o->e.name) != 0)
				continue;
			if (opts[i].type != o->type)
				continue;
			tb[i] = o;
			break;
		}
	}
}

}  // extern "C"

// MurmurHash2 in its endian-neutral form, fed piecewise: the running hash is the seed of every piece and
// no length is mixed in.
static uint32_t murmur_feed(uint32_t h, const void *data, size_t len)
{
	const uint32_t m = 0x5bd1e995;
	const unsigned char *b = static_cast<const unsigned char *>(data);
	while (len >= 4) {
		uint32_t k = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
		k *= m;
		k ^= k >> 24;
		k *= m;
		h *= m;
		h ^= k;
		b += 4;
		len -= 4;
	}
	switch (len) {
	case 3:
		h ^= uint32_t(b[2]) << 16;
		[[fallthrough]];
	case 2:
		h ^= uint32_t(b[1]) << 8;
		[[fallthrough]];
	case 1:
		h ^= uint32_t(b[0]);
		h *= m;
	}
	h ^= h >> 13;
	h *= m;
	h ^= h >> 15;
	return h;
}

extern "C" uint32_t uci_hash_options(struct uci_option **tb, int n_opts)
{
	uint32_t h = 0xdeadc0de;
	for (int i = 0; i < n_opts; i++) {
		uci_option *o = tb[i];
		if (!o)
			continue;
		h = murmur_feed(h, o->e.name, strlen(o->e.name) + 1);
		h = murmur_feed(h, &o->type, sizeof(o->type));
		if (o->type == UCI_TYPE_STRING) {
			h = murmur_feed(h, o->v.string, strlen(o->v.string) + 1);
		} else {
			uci_element *e;
			uci_foreach_element(&o->v.list, e)
				h = murmur_feed(h, e->name, strlen(e->name) + 1);
		}
	}
	return h;
}
