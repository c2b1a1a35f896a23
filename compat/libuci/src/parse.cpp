// The configuration parser, the shared shell-like tokenizer, import, the batch tokenizer and the reader of
// delta lines.
#include "internal.h"
#include "tokenizer.h"

#include <cstdlib>
#include <cstring>
#include <deque>

using namespace uci_impl;

namespace uci_impl {

// ---- LineSource / Tokenizer ----

LineSource::~LineSource() { free(chunk_); }

bool LineSource::read(std::string &buf)
{
	if (!f_)
		return false;
	ssize_t n = getline(&chunk_, &cap_, f_);
	if (n <= 0)
		return false;
	buf.append(chunk_, static_cast<size_t>(n));
	if (chunk_[n - 1] == '\n')
		line++;
	return true;
}

static bool is_space(char c)
{
	return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Characters that neither end nor quote nor escape anything in an unquoted word.
static bool is_plain(char c)
{
	switch (c) {
	case ' ': case '\t': case '\n': case '\r': case '\v': case '\f':
	case '#': case ';': case '\'': case '"': case '\\':
		return false;
	default:
		return true;
	}
}

// True when buf[i...] is exactly the end of the physical line ("\n" or "\r\n" closing the buffer).
bool Tokenizer::line_end_at(size_t i) const
{
	if (i < buf.size() && buf[i] == '\n' && i + 1 == buf.size())
		return true;
	return i + 1 < buf.size() && buf[i] == '\r' && buf[i + 1] == '\n' && i + 2 == buf.size();
}

void Tokenizer::skip_space()
{
	while (pos < buf.size() && is_space(buf[pos]))
		pos++;
}

bool Tokenizer::at_command_end()
{
	skip_space();
	return pos >= buf.size() || buf[pos] == '#' || buf[pos] == ';';
}

bool Tokenizer::next(std::string &out)
{
	skip_space();
	if (pos >= buf.size())
		return false;
	if (buf[pos] == '#') {
		pos = buf.size();
		return false;
	}
	if (buf[pos] == ';')
		return false;

	out.clear();
	enum { plain, single, dbl } state = plain;
	for (;;) {
		if (pos >= buf.size()) {
			if (state == plain)
				return true;
			// A quote continues on the next line, newline included.
			if (!src.read(buf))
				throw TokenError{state == single ? "EOF with unterminated '" : "EOF with unterminated \""};
			continue;
		}
		if (state == single) {
			// Everything up to the closing quote is taken as it is, newlines included.
			size_t close = buf.find('\'', pos);
			size_t stop = close == std::string::npos ? buf.size() : close;
			out.append(buf, pos, stop - pos);
			pos = stop;
			if (close != std::string::npos) {
				pos++;
				state = plain;
			}
			continue;
		}
		char c = buf[pos];
		if (state == dbl) {
			if (c != '"' && c != '\\') {
				size_t stop = buf.find_first_of("\"\\", pos);
				if (stop == std::string::npos)
					stop = buf.size();
				out.append(buf, pos, stop - pos);
				pos = stop;
				continue;
			}
			if (c == '"') {
				pos++;
				state = plain;
			} else if (c == '\\' && line_end_at(pos + 1)) {
				// Line continuation inside double quotes: both characters are dropped.
				pos = buf.size();
				if (!src.read(buf))
					throw TokenError{"EOF with unterminated \""};
			} else if (c == '\\' && pos + 1 < buf.size()) {
				out += buf[pos + 1];
				pos += 2;
			} else {
				out += c;
				pos++;
			}
			continue;
		}
		if (is_space(c)) {
			pos++;
			return true;
		}
		switch (c) {
		case '#':
			pos = buf.size();
			return true;
		case ';':
			return true;
		case '\'':
			state = single;
			pos++;
			break;
		case '"':
			state = dbl;
			pos++;
			break;
		case '\\':
			if (line_end_at(pos + 1)) {
				// Continuation: the next line is joined, its leading blanks are not skipped.
				pos = buf.size();
				if (!src.read(buf))
					return true;
			} else if (pos + 1 < buf.size()) {
				out += buf[pos + 1];
				pos += 2;
			} else {
				pos++;
			}
			break;
		default: {
			// A run of ordinary characters at once.
			size_t stop = pos + 1;
			while (stop < buf.size() && is_plain(buf[stop]))
				stop++;
			out.append(buf, pos, stop - pos);
			pos = stop;
		}
		}
	}
}

// ---- configuration parser ----

namespace {

// The tree of a configuration file takes up to about four times the size of the file (short names and
// values, where the fixed size of the elements dominates); longer values take less.
size_t arena_size(size_t file_size) { return file_size * 4; }

struct LineError {
	const char *reason;
	size_t byte;
};

class ConfigParser {
public:
	ConfigParser(uci_context *ctx, FILE *f, const char *name, ImportMode mode, uci_package *target,
		std::vector<uci_package *> &created, size_t size_hint)
		: ctx_(ctx), src_(f), tok_(src_, buf_, pos_), name_(name), mode_(mode), pkg_(target), created_(created),
		  size_hint_(size_hint)
	{
	}

	void run()
	{
		bool strict = ctx_->flags & UCI_FLAG_STRICT;
		if (mode_ != ImportMode::merge && name_)
			pkg_ = start_package(name_);
		for (;;) {
			buf_.clear();
			pos_ = 0;
			if (!src_.read(buf_))
				break;
			try {
				parse_line(strict);
			} catch (const LineError &e) {
				if (strict)
					parse_error(ctx_, e.reason, src_.line, static_cast<int>(e.byte));
				if (ctx_->flags & UCI_FLAG_PERROR)
					fprintf(stderr, "Parse error (%s) at line %d, byte %zu\n", e.reason, src_.line, e.byte);
			} catch (const TokenError &e) {
				if (strict)
					parse_error(ctx_, e.reason, src_.line, static_cast<int>(buf_.size()));
				if (ctx_->flags & UCI_FLAG_PERROR)
					fprintf(stderr, "Parse error (%s) at line %d, byte %zu\n", e.reason, src_.line,
						buf_.size());
			}
		}
		// Later edits allocate one by one, so that what they replace can be given back.
		for (uci_package *p : created_)
			package_seal(p);
	}

private:
	[[noreturn]] void error(const char *reason, size_t byte) { throw LineError{reason, byte}; }

	uci_package *start_package(const char *name)
	{
		// A load checks for a loaded package itself (a commit re-reads a package that is still loaded).
		uci_element *e;
		if (mode_ != ImportMode::load) {
			uci_foreach_element(&ctx_->root, e)
				if (strcmp(e->name, name) == 0)
					fail(UCI_ERR_DUPLICATE);
		}
		for (uci_package *p : created_)
			if (strcmp(p->e.name, name) == 0)
				fail(UCI_ERR_DUPLICATE);
		// What the parser builds goes to an arena; the first package of a file gets it sized to the file.
		uci_package *p = package_new(ctx_, name, true, created_.empty() ? arena_size(size_hint_) : 0);
		try {
			created_.push_back(p);
		} catch (...) {
			package_free(p);
			throw;
		}
		return p;
	}

	// The next argument; false when the command has no more.
	bool arg(std::string &out) { return tok_.next(out); }

	void required(std::string &out)
	{
		if (!arg(out))
			error("insufficient arguments", pos_);
	}

	void parse_line(bool strict)
	{
		for (;;) {
			tok_.skip_space();
			if (pos_ >= buf_.size() || buf_[pos_] == '#')
				return;
			if (buf_[pos_] == ';') {
				pos_++;
				continue;
			}
			size_t start = pos_;
			while (pos_ < buf_.size() && buf_[pos_] != ' ' && buf_[pos_] != '\t')
				pos_++;
			std::string_view kw(buf_.data() + start, pos_ - start);
			if (kw == "package" || kw == "p")
				cmd_package();
			else if (kw == "config" || kw == "c")
				cmd_config(strict);
			else if (kw == "option" || kw == "o")
				cmd_option(start, false);
			else if (kw == "list" || kw == "l")
				cmd_option(start, true);
			else
				error("invalid command", start);

			std::string extra;
			while (arg(extra)) {
				if (strict)
					error("too many arguments", pos_);
			}
			if (pos_ < buf_.size() && buf_[pos_] == ';') {
				pos_++;
				continue;
			}
			return;
		}
	}

	void cmd_package()
	{
		std::string name;
		required(name);
		if (name.empty())
			error("package without name", pos_);
		if (!valid_package_name(name))
			error("invalid character in name field", pos_);
		if (mode_ == ImportMode::multi) {
			pkg_ = start_package(name.c_str());
			sec_ = nullptr;
		}
	}

	void cmd_config(bool strict)
	{
		std::string type, name;
		required(type);
		if (type.empty())
			error("config without name", pos_);
		if (!valid_type(type))
			error("invalid character in type field", pos_);
		if (arg(name) && !name.empty() && !valid_name(name))
			error("invalid character in name field", pos_);
		if (!pkg_)
			error("attempting to import a file without a package name", pos_);

		if (mode_ == ImportMode::merge) {
			if (name.empty()) {
				sec_ = op_add_section(ctx_, pkg_, type, true);
				return;
			}
			uci_ptr ptr{};
			ptr.p = pkg_;
			ptr.package = pkg_->e.name;
			ptr.section = name.c_str();
			ptr.value = type.c_str();
			ptr.target = UCI_TYPE_SECTION;
			op_set(ctx_, &ptr, true);
			sec_ = ptr.s;
			return;
		}
		if (name.empty()) {
			sec_ = section_new(pkg_, type, {});
			return;
		}
		uci_section *s = find_section(pkg_, name);
		if (!s) {
			sec_ = section_new(pkg_, type, name);
			return;
		}
		if (type != s->type) {
			if (strict)
				error("section of different type overwrites prior section with same name", pos_);
			section_set_type(s, type);
		}
		sec_ = s;
	}

	void cmd_option(size_t start, bool list)
	{
		if (!sec_)
			error("option/list command found before the first section", start);
		std::string name, value;
		required(name);
		if (name.empty())
			error("option without name", pos_);
		if (!valid_name(name))
			error("invalid character in name field", pos_);
		arg(value);

		uci_ptr ptr{};
		ptr.flags = uci_ptr::UCI_LOOKUP_DONE;
		ptr.target = UCI_TYPE_OPTION;
		ptr.p = pkg_;
		ptr.s = sec_;
		ptr.o = find_option(sec_, name);
		ptr.package = pkg_->e.name;
		ptr.section = sec_->e.name;
		ptr.option = name.c_str();
		ptr.value = value.c_str();
		bool record = mode_ == ImportMode::merge;
		if (list)
			op_add_list(ctx_, &ptr, record);
		else
			op_set(ctx_, &ptr, record);
	}

	uci_context *ctx_;
	LineSource src_;
	std::string buf_;
	size_t pos_ = 0;
	Tokenizer tok_;
	const char *name_;
	ImportMode mode_;
	uci_package *pkg_;
	uci_section *sec_ = nullptr;
	std::vector<uci_package *> &created_;
	size_t size_hint_;
};

}  // namespace

void parse_config(uci_context *ctx, FILE *stream, const char *name, ImportMode mode, uci_package *target,
	std::vector<uci_package *> &created, size_t size_hint)
{
	ConfigParser parser(ctx, stream, name, mode, target, created, size_hint);
	parser.run();
}

// ---- delta lines ----

bool parse_delta_token(const std::string &token, std::string_view package, DeltaLine &out)
{
	const char *s = token.c_str();
	out.cmd = UCI_CMD_CHANGE;
	for (int c = 0; c <= __UCI_CMD_LAST; c++) {
		if (uci_command_char[c] && s[0] == uci_command_char[c]) {
			out.cmd = static_cast<uci_command>(c);
			s++;
			break;
		}
	}
	std::string copy(s);
	uci_ptr ptr{};
	try {
		parse_tuple(nullptr, &ptr, copy.data());
	} catch (const Failure &) {
		return false;
	}
	if (package != ptr.package)
		return false;
	if (!ptr.section || (ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED))
		return false;
	if (!ptr.value && out.cmd != UCI_CMD_REMOVE)
		return false;
	if (out.cmd == UCI_CMD_REORDER && ptr.option)
		return false;
	if (out.cmd == UCI_CMD_RENAME && !valid_name(ptr.value))
		return false;
	if ((out.cmd == UCI_CMD_LIST_ADD || out.cmd == UCI_CMD_LIST_DEL) && !ptr.option)
		return false;
	out.package = ptr.package;
	out.section = ptr.section;
	out.has_option = ptr.option != nullptr;
	out.option = ptr.option ? ptr.option : "";
	out.has_value = ptr.value != nullptr;
	out.value = ptr.value ? ptr.value : "";
	return true;
}

bool read_delta_lines(FILE *f, std::string_view package, const std::function<void(const DeltaLine &)> &sink)
{
	LineSource src(f);
	std::string buf;
	size_t pos = 0;
	Tokenizer tok(src, buf, pos);
	bool all_good = true;
	for (;;) {
		buf.clear();
		pos = 0;
		if (!src.read(buf))
			break;
		std::string token, extra;
		try {
			if (!tok.next(token)) {
				// An empty or comment line; a stray ';' makes the line malformed.
				if (pos < buf.size() && buf[pos] == ';')
					all_good = false;
				continue;
			}
			if (!tok.at_command_end() || tok.next(extra) || (pos < buf.size() && buf[pos] == ';')) {
				all_good = false;
				continue;
			}
		} catch (const TokenError &) {
			all_good = false;
			continue;
		}
		DeltaLine line;
		if (!parse_delta_token(token, package, line)) {
			all_good = false;
			continue;
		}
		sink(line);
	}
	return all_good;
}

}  // namespace uci_impl

// ---- public: import and the batch tokenizer ----

namespace {

// Storage behind uci_parse_argument, kept in the context's private buffer pointer: the current input line
// and the tokens handed out for it (a deque keeps earlier tokens in place while later ones are added).
struct ArgumentState {
	std::string line;
	std::deque<std::string> tokens;
	int lines_read = 0;
};

}  // namespace

namespace uci_impl {

void free_argument_state(uci_context *ctx)
{
	delete reinterpret_cast<ArgumentState *>(ctx->buf);
	ctx->buf = nullptr;
	ctx->bufsz = 0;
}

}  // namespace uci_impl

extern "C" {

int uci_import(struct uci_context *ctx, FILE *stream, const char *name, struct uci_package **package, bool single)
{
	return guarded(ctx, [&] {
		if (!stream)
			fail(UCI_ERR_INVAL);
		if (name && !valid_package_ref(name))
			fail(UCI_ERR_INVAL);
		if (package && *package && single) {
			std::vector<uci_package *> none;
			parse_config(ctx, stream, name, ImportMode::merge, *package, none);
			return;
		}
		std::vector<uci_package *> created;
		try {
			parse_config(ctx, stream, name, single ? ImportMode::single : ImportMode::multi, nullptr, created);
		} catch (...) {
			for (uci_package *p : created)
				package_free(p);
			throw;
		}
		for (uci_package *p : created)
			list_add_tail(&ctx->root, &p->e.list);
		if (package && !created.empty())
			*package = created.back();
	});
}

int uci_parse_argument(struct uci_context *ctx, FILE *stream, char **str, char **result)
{
	return guarded(ctx, [&] {
		if (!stream || !str || !result)
			fail(UCI_ERR_INVAL);
		if (!ctx->buf) {
			ctx->buf = reinterpret_cast<char *>(new ArgumentState);
			ctx->bufsz = -1;
		}
		ArgumentState &st = *reinterpret_cast<ArgumentState *>(ctx->buf);
		size_t pos = 0;
		LineSource src(stream);
		src.line = st.lines_read;
		if (!*str) {
			st.line.clear();
			st.tokens.clear();
			if (!src.read(st.line)) {
				st.tokens.emplace_back();
				*result = st.tokens.back().data();
				*str = st.line.data();
				st.lines_read = src.line;
				return;
			}
		} else {
			pos = static_cast<size_t>(*str - st.line.data());
			if (pos > st.line.size())
				pos = st.line.size();
		}
		Tokenizer tok(src, st.line, pos);
		std::string token;
		bool got;
		try {
			got = tok.next(token);
		} catch (const TokenError &e) {
			st.lines_read = src.line;
			*str = st.line.data() + st.line.size();
			parse_error(ctx, e.reason, src.line, static_cast<int>(st.line.size()));
		}
		st.lines_read = src.line;
		if (!got) {
			// End of the command: the rest of the line (a comment) is consumed.
			pos = st.line.size();
			token.clear();
		}
		st.tokens.push_back(std::move(token));
		*result = st.tokens.back().data();
		*str = st.line.data() + pos;
	});
}

}  // extern "C"
