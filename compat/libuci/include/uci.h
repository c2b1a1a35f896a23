/*
 * libuci - the configuration library of the gateway.
 *
 * Configurations are "packages" (one file each in the config directory) holding named or anonymous
 * "sections" of a type, which hold "options": a string or a list of strings. Edits are recorded as
 * delta lines in the save directory and folded into the package file by a commit.
 */
#ifndef __LIBUCI_H
#define __LIBUCI_H

#include "uci_config.h"

#include <stdbool.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdint.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define UCI_CONFDIR "/etc/config"
#define UCI_SAVEDIR "/tmp/.uci"
#define UCI_CONF2DIR "/var/run/uci"
#define UCI_DIRMODE 0700
#define UCI_FILEMODE 0600

enum
{
	UCI_OK = 0,
	UCI_ERR_MEM,
	UCI_ERR_INVAL,
	UCI_ERR_NOTFOUND,
	UCI_ERR_IO,
	UCI_ERR_PARSE,
	UCI_ERR_DUPLICATE,
	UCI_ERR_UNKNOWN,
	UCI_ERR_LAST
};

struct uci_list;
struct uci_list
{
	struct uci_list *next;
	struct uci_list *prev;
};

struct uci_ptr;
struct uci_element;
struct uci_package;
struct uci_section;
struct uci_option;
struct uci_delta;
struct uci_context;
struct uci_backend;
struct uci_parse_option;
struct uci_parse_context;

/* Allocates a context with the default directories; NULL when out of memory. */
extern struct uci_context *uci_alloc_context(void);

/* Unloads every package (unsaved changes are dropped) and frees the context. */
extern void uci_free_context(struct uci_context *ctx);

/* Prints "prefix: " (if prefix is not NULL), the text of the last error and a newline to stderr. */
extern void uci_perror(struct uci_context *ctx, const char *str);

/* Same text as uci_perror without the newline, in a malloc'd string stored in *dest (printed when dest is NULL). */
extern void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *str);

/* Parses configuration syntax from stream into new packages, or merges it into *package. */
extern int uci_import(struct uci_context *ctx, FILE *stream, const char *name, struct uci_package **package, bool single);

/* Writes package (every loaded package when NULL) in configuration syntax. */
extern int uci_export(struct uci_context *ctx, FILE *stream, struct uci_package *package, bool header);

/* Loads a package by name (from the config directory, with its deltas) or by path ("/..." or "./..."). */
extern int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);

/* Removes a package from the context and frees it. */
extern int uci_unload(struct uci_context *ctx, struct uci_package *p);

/* Splits "pkg[.section[.option]][=value]" in place (str is modified) and looks the parts up. */
extern int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended);

/* Appends an anonymous section of the given type to p. */
extern int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type, struct uci_section **res);

/* Sets an option value or a section type (an empty value deletes). */
extern int uci_set(struct uci_context *ctx, struct uci_ptr *ptr);

/* Appends ptr->value to a list option (a string option becomes a list). */
extern int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr);

/* Removes every item equal to ptr->value from a list option. */
extern int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr);

/* Moves a section to an absolute position among all sections of its package. */
extern int uci_reorder_section(struct uci_context *ctx, struct uci_section *s, int pos);

/* Renames a section or an option to ptr->value. */
extern int uci_rename(struct uci_context *ctx, struct uci_ptr *ptr);

/* Deletes a section, an option or (with a numeric value) one item of a list. */
extern int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr);

/* Appends the unsaved changes of p to its delta file in the save directory. */
extern int uci_save(struct uci_context *ctx, struct uci_package *p);

/* Folds the saved changes into the package file; *p is replaced by the reloaded package. */
extern int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite);

/* Lists the package names of the config directory (one allocation: free(*list) releases it). */
extern int uci_list_configs(struct uci_context *ctx, char ***list);

/* Sets the directory where deltas are saved; it is also moved to the end of the delta search path. */
extern int uci_set_savedir(struct uci_context *ctx, const char *dir);

/* Sets the config directory. */
extern int uci_set_confdir(struct uci_context *ctx, const char *dir);

/* Sets the override config directory; NULL or "" disables it. */
extern int uci_set_conf2dir(struct uci_context *ctx, const char *dir);

/* Adds a directory to search for delta files, just before the save directory. */
extern int uci_add_delta_path(struct uci_context *ctx, const char *dir);

/* Drops the saved changes that match ptr and reloads the package into ptr->p. */
extern int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr);

/* Batch tokenizer: the next shell-style token of the current line (reads a new line when *str is NULL). */
extern int uci_parse_argument(struct uci_context *ctx, FILE *stream, char **str, char **result);

/* Selects the storage backend; only "file" exists. */
extern int uci_set_backend(struct uci_context *ctx, const char *name);

/* True when str holds no control character other than TAB, LF and CR. */
extern bool uci_validate_text(const char *str);

/* Splits a tuple like uci_lookup_ptr without looking anything up. */
extern int uci_parse_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str);

/* Finds the first element named name in list. */
extern int uci_lookup_next(struct uci_context *ctx, struct uci_element **e, struct uci_list *list, const char *name);

/* Fills tb[i] with the option of s named opts[i].name and of type opts[i].type. */
extern void uci_parse_section(struct uci_section *s, const struct uci_parse_option *opts, int n_opts,
	struct uci_option **tb);

/* Hash over the non-NULL options of tb. */
extern uint32_t uci_hash_options(struct uci_option **tb, int n_opts);

/* UCI data structures */
enum uci_type {
	UCI_TYPE_UNSPEC = 0,
	UCI_TYPE_DELTA = 1,
	UCI_TYPE_PACKAGE = 2,
	UCI_TYPE_SECTION = 3,
	UCI_TYPE_OPTION = 4,
	UCI_TYPE_PATH = 5,
	UCI_TYPE_BACKEND = 6,
	UCI_TYPE_ITEM = 7,
	UCI_TYPE_HOOK = 8
};

enum uci_option_type {
	UCI_TYPE_STRING = 0,
	UCI_TYPE_LIST = 1
};

enum uci_flags {
	UCI_FLAG_STRICT = (1 << 0),       /* the parser stops at the first error */
	UCI_FLAG_PERROR = (1 << 1),       /* the parser prints its own errors */
	UCI_FLAG_EXPORT_NAME = (1 << 2),  /* export and commit write the names of anonymous sections */
	UCI_FLAG_SAVED_DELTA = (1 << 3)   /* keep the delta lines read while loading */
};

struct uci_element
{
	struct uci_list list;
	enum uci_type type;
	char *name;
};

struct uci_backend
{
	struct uci_element e;
	char **(*list_configs)(struct uci_context *ctx);
	struct uci_package *(*load)(struct uci_context *ctx, const char *name);
	void (*commit)(struct uci_context *ctx, struct uci_package **p, bool overwrite);

	/* private: */
	const void *ptr;
	void *priv;
};

struct uci_context
{
	/* list of config packages */
	struct uci_list root;

	/* parser context, kept after a parse error for the error message */
	struct uci_parse_context *pctx;

	/* backend for import and export */
	struct uci_backend *backend;
	struct uci_list backends;

	/* uci runtime flags */
	enum uci_flags flags;

	char *confdir;
	char *savedir;
	char *conf2dir;

	/* search path for delta files */
	struct uci_list delta_path;

	/* private: */
	int err;
	const char *func;
	jmp_buf trap;
	bool internal, nested;
	char *buf;
	int bufsz;
};

struct uci_package
{
	struct uci_element e;
	struct uci_list sections;
	struct uci_context *ctx;
	bool has_delta;
	bool uses_conf2;
	char *path;

	/* private: */
	struct uci_backend *backend;
	void *priv;
	int n_section;
	struct uci_list delta;
	struct uci_list saved_delta;
};

struct uci_section
{
	struct uci_element e;
	struct uci_list options;
	struct uci_package *package;
	bool anonymous;
	char *type;
};

struct uci_option
{
	struct uci_element e;
	struct uci_section *section;
	enum uci_option_type type;
	union {
		struct uci_list list;
		char *string;
	} v;
};

/*
 * The kind of a delta, and the character that starts its line in a delta file
 * (uci_command_char, same order; a change has none of its own).
 */
enum uci_command {
	UCI_CMD_ADD,
	UCI_CMD_REMOVE,
	UCI_CMD_CHANGE,
	UCI_CMD_RENAME,
	UCI_CMD_REORDER,
	UCI_CMD_LIST_ADD,
	UCI_CMD_LIST_DEL,
	__UCI_CMD_MAX,
	__UCI_CMD_LAST = __UCI_CMD_MAX - 1
};
extern char const uci_command_char[];

struct uci_delta
{
	struct uci_element e;
	enum uci_command cmd;
	char *section;
	char *value;
};

struct uci_ptr
{
	enum uci_type target;
	enum {
		UCI_LOOKUP_DONE =     (1 << 0),
		UCI_LOOKUP_COMPLETE = (1 << 1),
		UCI_LOOKUP_EXTENDED = (1 << 2)
	} flags;

	struct uci_package *p;
	struct uci_section *s;
	struct uci_option *o;
	struct uci_element *last;

	const char *package;
	const char *section;
	const char *option;
	const char *value;
};

struct uci_parse_option {
	const char *name;
	enum uci_option_type type;
};


/* linked list handling */
#ifndef container_of
#define container_of(ptr, type, member) \
	((type *) ((char *)(ptr) - offsetof(type, member)))
#endif

/* Cast a list link to the element that contains it. */
#define list_to_element(ptr) \
	container_of(ptr, struct uci_element, list)

/* Walk every element of a list head: for (e = first; e != head; e = next). */
#define uci_foreach_element(_list, _ptr) \
	for(_ptr = list_to_element((_list)->next); \
		&_ptr->list != (_list); \
		_ptr = list_to_element(_ptr->list.next))

/* Same walk, but the next element is fetched before the body runs, so the body may free _ptr. */
#define uci_foreach_element_safe(_list, _tmp, _ptr) \
	for(_ptr = list_to_element((_list)->next), \
		_tmp = list_to_element(_ptr->list.next); \
		&_ptr->list != (_list); \
		_ptr = _tmp, _tmp = list_to_element(_ptr->list.next))

#define uci_list_empty(list) ((list)->next == (list))

/* element typecasting */
#define uci_type_backend UCI_TYPE_BACKEND
#define uci_type_delta UCI_TYPE_DELTA
#define uci_type_package UCI_TYPE_PACKAGE
#define uci_type_section UCI_TYPE_SECTION
#define uci_type_option UCI_TYPE_OPTION

#ifdef UCI_DEBUG_TYPECAST
/* Checked casts: a wrong element type is reported on stderr (C only). */
static inline struct uci_element *uci_checked_element(struct uci_element *e, enum uci_type want)
{
	if (e->type != want)
		fprintf(stderr, "uci: element of type %d used as type %d\n", (int)e->type, (int)want);
	return e;
}

static inline struct uci_backend *uci_to_backend(struct uci_element *e)
{
	return (struct uci_backend *) uci_checked_element(e, uci_type_backend);
}

static inline struct uci_delta *uci_to_delta(struct uci_element *e)
{
	return (struct uci_delta *) uci_checked_element(e, uci_type_delta);
}

static inline struct uci_package *uci_to_package(struct uci_element *e)
{
	return (struct uci_package *) uci_checked_element(e, uci_type_package);
}

static inline struct uci_section *uci_to_section(struct uci_element *e)
{
	return (struct uci_section *) uci_checked_element(e, uci_type_section);
}

static inline struct uci_option *uci_to_option(struct uci_element *e)
{
	return (struct uci_option *) uci_checked_element(e, uci_type_option);
}

#else
#define uci_to_backend(ptr) container_of(ptr, struct uci_backend, e)
#define uci_to_delta(ptr) container_of(ptr, struct uci_delta, e)
#define uci_to_package(ptr) container_of(ptr, struct uci_package, e)
#define uci_to_section(ptr) container_of(ptr, struct uci_section, e)
#define uci_to_option(ptr)  container_of(ptr, struct uci_option, e)
#endif

/* The address just past *ptr, where the library keeps the strings of an element. */
#define uci_dataptr(ptr) \
	(((char *) ptr) + sizeof(*ptr))

/* A loaded package by name (never loads); NULL if there is none. */
static inline struct uci_package *
uci_lookup_package(struct uci_context *ctx, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &ctx->root, name) == 0)
		return uci_to_package(e);
	else
		return NULL;
}

/* A section by its exact name (no @type[n] syntax); NULL if there is none. */
static inline struct uci_section *
uci_lookup_section(struct uci_context *ctx, struct uci_package *p, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &p->sections, name) == 0)
		return uci_to_section(e);
	else
		return NULL;
}

/* An option by name; NULL if there is none. */
static inline struct uci_option *
uci_lookup_option(struct uci_context *ctx, struct uci_section *s, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &s->options, name) == 0)
		return uci_to_option(e);
	else
		return NULL;
}

/* The value of a string option; NULL if the option is missing or is a list. */
static inline const char *
uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s, const char *name)
{
	struct uci_option *o;

	o = uci_lookup_option(ctx, s, name);
	if (!o || o->type != UCI_TYPE_STRING)
		return NULL;

	return o->v.string;
}

#ifndef BITS_PER_LONG
#define BITS_PER_LONG (8 * sizeof(unsigned long))
#endif

static inline void uci_bitfield_set(unsigned long *bits, int bit)
{
	bits[bit / BITS_PER_LONG] |= (1UL << (bit % BITS_PER_LONG));
}

#ifdef __cplusplus
}
#endif

#endif /* __LIBUCI_H */
