// Internal declarations of libuci, shared by its source files. Nothing here is part of the public API.
#pragma once

#include <uci.h>

#include "storage.h"

#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <memory>
#include <string_view>
#include <vector>

struct stat;

namespace uci_impl {

class Fd;

// An error raised anywhere inside the library; the public entry points turn it into a return code.
struct Failure {
	int code;
};

[[noreturn]] inline void fail(int code) { throw Failure{code}; }

}  // namespace uci_impl

// The opaque parser context of the public header.
struct uci_parse_context {
	const char *reason = "";  // static text
	int line = 0;
	int byte = 0;
};

namespace uci_impl {

// ---- context (context.cpp) ----

// Drops the detail of the last parse error.
void clear_parse_error(uci_context *ctx);

// Runs body for a public entry point: resets ctx->err and the parse detail, maps failures to codes and
// stores the code in ctx->err.
template <class Body>
int guarded(uci_context *ctx, Body &&body)
{
	if (!ctx)
		return UCI_ERR_INVAL;
	ctx->err = 0;
	clear_parse_error(ctx);
	try {
		body();
	} catch (const Failure &f) {
		ctx->err = f.code;
	} catch (const std::bad_alloc &) {
		ctx->err = UCI_ERR_MEM;
	} catch (...) {
		ctx->err = UCI_ERR_UNKNOWN;
	}
	return ctx->err;
}

// Records a parse error and raises UCI_ERR_PARSE. Every parse error names its reason (a static text).
[[noreturn]] void parse_error(uci_context *ctx, const char *reason, int line, int byte);
// The detail " (reason) at line L, byte B" of the last parse error, or "" when there is none.
std::string parse_error_detail(uci_context *ctx);


// ---- names (tree.cpp) ----

bool valid_name(std::string_view s);           // section and option names: [A-Za-z0-9_]+
bool valid_package_name(std::string_view s);   // a package line: [A-Za-z0-9_-]+
bool valid_package_ref(std::string_view s);    // a package in a tuple or a load: printable, no '.'
bool valid_type(std::string_view s);           // section types: printable characters
bool valid_text(std::string_view s);           // values: no control characters but TAB, LF and CR

// ---- tree (tree.cpp) ----

char *dup_string(std::string_view s);  // malloc'd copy; raises UCI_ERR_MEM

void list_init(uci_list *l);
void list_add_tail(uci_list *head, uci_list *item);
void list_insert_before(uci_list *pos, uci_list *item);
void list_del(uci_list *item);

// A package; with bulk set, what is added to it goes to an arena (first block sized from hint) until
// package_seal. The parser builds packages that way.
uci_package *package_new(uci_context *ctx, std::string_view name, bool bulk = false, size_t hint = 0);
void package_seal(uci_package *p);
void package_free(uci_package *p);  // unlinks it from ctx->root if linked

// Appends a section; name empty means anonymous (the generated cfgNNHHHH name is given).
uci_section *section_new(uci_package *p, std::string_view type, std::string_view name);
void section_free(uci_section *s);
void section_set_type(uci_section *s, std::string_view type);
void section_rename(uci_section *s, std::string_view name);
uci_section *find_section(uci_package *p, std::string_view name);

uci_option *option_new_string(uci_section *s, std::string_view name, std::string_view value);
uci_option *option_new_list(uci_section *s, std::string_view name);
void option_free(uci_option *o);
void option_set_string(uci_option *o, std::string_view value);  // keeps the position; a list becomes a string
void option_make_list(uci_option *o);                             // a string becomes a list of that one item
void option_append_item(uci_option *o, std::string_view value);
void item_free(uci_option *o, uci_element *item);  // unlinks and frees one list item
void option_rename(uci_option *o, std::string_view name);
uci_option *find_option(uci_section *s, std::string_view name);

uci_delta *delta_new(uci_command cmd, const char *section, const char *option, const char *value);
void delta_free(uci_delta *d);
void delta_list_free(uci_list *list);

uci_element *path_new(std::string_view dir);
void path_free(uci_element *e);

// ---- edits (edit.cpp) ----
// The operations behind the public edit functions. `record` appends the matching delta to p->delta.

// Resolves ptr (loading the package if needed); raises on errors.
void lookup(uci_context *ctx, uci_ptr *ptr, bool extended);
// Runs the lookup when the caller did not.
void ensure_lookup(uci_context *ctx, uci_ptr *ptr);

int op_set(uci_context *ctx, uci_ptr *ptr, bool record);
int op_add_list(uci_context *ctx, uci_ptr *ptr, bool record);
int op_del_list(uci_context *ctx, uci_ptr *ptr, bool record);
int op_delete(uci_context *ctx, uci_ptr *ptr, bool record);
int op_rename(uci_context *ctx, uci_ptr *ptr, bool record, bool validate);
void op_reorder(uci_context *ctx, uci_section *s, int pos, bool record);
uci_section *op_add_section(uci_context *ctx, uci_package *p, std::string_view type, bool record);
void record_delta(uci_package *p, uci_command cmd, const char *section, const char *option, const char *value);

// ---- tuples (ptr.cpp) ----
void parse_tuple(uci_context *ctx, uci_ptr *ptr, char *str);

// ---- parser (parse.cpp) ----

enum class ImportMode {
	load,    // loading a file by name or path: package lines are checked and ignored
	single,  // import into one package: package lines are checked and ignored
	multi,   // import: every package line starts a new package
	merge,   // merge into an existing package, recording deltas
};

// Parses configuration syntax from stream. For load/single/multi the packages created are appended to
// `created` (not to ctx->root). For merge, `target` receives the changes. size_hint is the size of the
// input when known (0 otherwise).
void parse_config(uci_context *ctx, FILE *stream, const char *name, ImportMode mode, uci_package *target,
	std::vector<uci_package *> &created, size_t size_hint = 0);

// One line of a delta file, split into its parts.
struct DeltaLine {
	uci_command cmd = UCI_CMD_CHANGE;
	std::string package, section, option, value;
	bool has_option = false, has_value = false;
};
// Splits the single token of a delta line; false if the line is rejected.
bool parse_delta_token(const std::string &token, std::string_view package, DeltaLine &out);
// Calls sink for every accepted line of a delta stream; returns false if any line was malformed.
bool read_delta_lines(FILE *f, std::string_view package, const std::function<void(const DeltaLine &)> &sink);

// Frees the state of uci_parse_argument.
void free_argument_state(uci_context *ctx);

// ---- export (export.cpp) ----

// Where export text goes: collected in a buffer that is handed to the sink whenever it holds 64 KiB, so
// that a large package is never held as text in memory as a whole.
class Output {
public:
	explicit Output(std::function<void(const std::string &)> sink) : sink_(std::move(sink)) { buf_.reserve(kChunk + 4096); }
	std::string &text() { return buf_; }
	// Passes a full buffer on; call after each line.
	void line_done()
	{
		if (buf_.size() >= kChunk)
			flush();
	}
	void flush()
	{
		if (!buf_.empty())
			sink_(buf_);
		buf_.clear();
	}

private:
	static constexpr size_t kChunk = 65536;
	std::function<void(const std::string &)> sink_;
	std::string buf_;
};


// Writes p in the format of a committed file, with a "package NAME" line first when header is set.
void export_package(Output &output, uci_context *ctx, uci_package *p, bool header);
// The line a delta file holds for d (with its newline).
std::string delta_text(const uci_delta *d, const char *package);

// ---- the commit journal (journal.cpp) ----

// Bytes at the start of the delta file DIR/PKG (open as fd) that the commit which produced the config file whose
// status is *config already folded in (0 when none).
long committed_prefix(const std::string &dir, const char *pkg, const struct stat *config, int fd);
// Removes the temporary files of journalled commits that never replaced the config (*config).
void drop_unfinished_temps(const std::string &dir, const char *pkg, const struct stat *config);
// Removes temporary files of earlier commits of pkg that were cut off before their journal was written.
void drop_stale_temps(const std::string &dir, const char *pkg);
// Records, before the rename, that the temporary file temp (open as tfd) folds in the first `consumed` bytes of
// the delta file open as dfd, keeping the record in force for the current config. On failure the temporary file
// is removed.
void write_journal(const std::string &savedir, const char *pkg, const std::string &temp, int tfd, int dfd,
	size_t consumed, const struct stat &config);
// After the rename: empties the delta file and deletes the journal.
void finish_journal(const std::string &savedir, const char *pkg, const Fd &dfd);
void remove_journal(const std::string &savedir, const char *pkg);

// ---- files (file.cpp) ----

// Loads a package by name (config file plus deltas) or by path; it is appended to ctx->root.
uci_package *load_package(uci_context *ctx, const char *name, bool take_lock);

// The private state of a package (package->priv).
struct PackageState {
	SectionIndex index;
	std::unique_ptr<Arena> arena;  // what the parser built; nullptr for a package made by other means
	bool filling = false;          // new objects of the package go to the arena
	size_t heap_objects = 0;       // objects of the tree allocated one by one (outside the arena)
};
inline PackageState *state_of(uci_package *p) { return static_cast<PackageState *>(p->priv); }

}  // namespace uci_impl
