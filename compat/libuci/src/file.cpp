// Files: loading, the delta files of the save directory, export, save, commit, revert and listing.
//
// Locking. Every process that reads or writes a package through this library takes a flock on the
// directory that holds the config file (shared for a load, exclusive for a commit or a revert), because a
// commit replaces the config file by a rename and a lock on the file itself would then guard an inode that
// is no longer the config. Inside that, the same flocks as the original tools are taken (shared on the
// config while loading, exclusive on it while committing, shared or exclusive on delta files), so both
// kinds of tools exclude each other too.
//
// Crash safety of a commit. The new file is written to a temporary file in the config's directory, synced,
// and renamed over the config; the directory is synced. The delta file is emptied only after that. To make
// the step between the rename and the emptying safe, a small journal (".PKG.uci-commit" in the save
// directory) records, before the rename, which file the commit produced, how many bytes of the delta file it
// consumed and a fingerprint of those bytes. A later load that finds the journal, the produced file in place and
// the delta file still starting with those bytes skips them; the next commit or revert removes them for good and
// deletes the journal. The fingerprint covers a crash after the emptying but before the journal is deleted: the
// delta file then holds only changes saved since, which must not be skipped.
#include "internal.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>

using namespace uci_impl;

namespace {

class Fd {
public:
	Fd() = default;
	explicit Fd(int fd) : fd_(fd) {}
	~Fd() { reset(); }
	Fd(const Fd &) = delete;
	Fd &operator=(const Fd &) = delete;
	int get() const { return fd_; }
	void reset(int fd = -1)
	{
		if (fd_ >= 0)
			close(fd_);
		fd_ = fd;
	}

private:
	int fd_ = -1;
};

void lock_fd(int fd, int op)
{
	while (flock(fd, op) < 0) {
		if (errno == EINTR)
			continue;
		if (errno == ENOSYS)
			return;
		fail(UCI_ERR_IO);
	}
}

// A flock on a directory, held for the lifetime of the object. A directory that cannot be opened (missing,
// or not readable) is simply not locked.
class DirLock {
public:
	DirLock(const std::string &dir, int op)
	{
		int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
		if (fd < 0)
			return;
		fd_.reset(fd);
		lock_fd(fd, op);
	}

private:
	Fd fd_;
};

std::string join(const std::string &dir, const std::string &name) { return dir + "/" + name; }

std::string dir_of(const std::string &path)
{
	size_t slash = path.rfind('/');
	if (slash == std::string::npos)
		return ".";
	if (slash == 0)
		return "/";
	return path.substr(0, slash);
}

void write_all(int fd, const std::string &data)
{
	size_t done = 0;
	while (done < data.size()) {
		ssize_t n = write(fd, data.data() + done, data.size() - done);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			fail(UCI_ERR_IO);
		}
		done += static_cast<size_t>(n);
	}
}

std::string read_all(int fd)
{
	std::string r;
	char buf[65536];
	if (lseek(fd, 0, SEEK_SET) < 0)
		fail(UCI_ERR_IO);
	for (;;) {
		ssize_t n = read(fd, buf, sizeof buf);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			fail(UCI_ERR_IO);
		}
		if (n == 0)
			return r;
		r.append(buf, static_cast<size_t>(n));
	}
}

void sync_dir(const std::string &dir)
{
	int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (fd < 0)
		return;
	fsync(fd);
	close(fd);
}

// Appends v with every ' written as '\'' (the quote closes, an escaped quote, the quote reopens).
void append_escaped(std::string &out, std::string_view v)
{
	for (size_t at = 0;;) {
		size_t q = v.find('\'', at);
		out.append(v.substr(at, q == std::string_view::npos ? std::string_view::npos : q - at));
		if (q == std::string_view::npos)
			return;
		out += "'\\''";
		at = q + 1;
	}
}

void append_quoted(std::string &out, std::string_view v)
{
	out += '\'';
	append_escaped(out, v);
	out += '\'';
}

std::string quoted(std::string_view v)
{
	std::string r;
	append_quoted(r, v);
	return r;
}

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

void export_package(Output &output, uci_context *ctx, uci_package *p, bool header)
{
	std::string &out = output.text();
	if (header) {
		out += "package ";
		append_escaped(out, p->e.name);
		out += '\n';
	}
	uci_element *se;
	uci_foreach_element(&p->sections, se) {
		uci_section *s = uci_to_section(se);
		out += "\nconfig ";
		append_escaped(out, s->type);
		if (!s->anonymous || (ctx->flags & UCI_FLAG_EXPORT_NAME)) {
			out += ' ';
			append_quoted(out, s->e.name);
		}
		out += '\n';
		uci_element *oe;
		uci_foreach_element(&s->options, oe) {
			uci_option *o = uci_to_option(oe);
			if (o->type == UCI_TYPE_STRING) {
				out += "\toption ";
				append_escaped(out, o->e.name);
				out += ' ';
				append_quoted(out, o->v.string);
				out += '\n';
				output.line_done();
				continue;
			}
			uci_element *ie;
			uci_foreach_element(&o->v.list, ie) {
				out += "\tlist ";
				append_escaped(out, o->e.name);
				out += ' ';
				append_quoted(out, ie->name);
				out += '\n';
				output.line_done();
			}
		}
		output.line_done();
	}
	out += '\n';
}

std::string delta_text(const uci_delta *d, const char *package)
{
	std::string r;
	char prefix = uci_command_char[d->cmd];
	if (prefix)
		r += prefix;
	r += package;
	r += ".";
	r += d->section ? d->section : "";
	if (d->e.name) {
		r += ".";
		r += d->e.name;
	}
	if (d->cmd != UCI_CMD_REMOVE || d->value) {
		r += "=";
		r += quoted(d->value ? d->value : "");
	}
	r += "\n";
	return r;
}

// ---- the commit journal ----

struct Journal {
	unsigned long long ino = 0, size = 0, mtime_s = 0, mtime_ns = 0, consumed = 0, fingerprint = 0;
	std::string temp;
};

// FNV-1a, 64 bits, of the consumed part of a delta file.
unsigned long long fingerprint(std::string_view bytes)
{
	unsigned long long h = 14695981039346656037ULL;
	for (unsigned char c : bytes) {
		h ^= c;
		h *= 1099511628211ULL;
	}
	return h;
}

std::string hex(unsigned long long v)
{
	char text[17];
	snprintf(text, sizeof text, "%016llx", v);
	return text;
}

// The first n bytes of fd (fewer when it is shorter), read without moving its offset.
std::string read_prefix(int fd, size_t n)
{
	std::string r(n, '\0');
	size_t done = 0;
	while (done < n) {
		ssize_t got = pread(fd, r.data() + done, n - done, static_cast<off_t>(done));
		if (got < 0 && errno == EINTR)
			continue;
		if (got < 0)
			fail(UCI_ERR_IO);
		if (got == 0)
			break;
		done += static_cast<size_t>(got);
	}
	r.resize(done);
	return r;
}

// True when the delta file (its first bytes in `head`) still starts with what the journal's commit consumed.
bool still_holds_consumed(const Journal &j, std::string_view head)
{
	return head.size() >= j.consumed && fingerprint(head.substr(0, j.consumed)) == j.fingerprint;
}

std::string journal_path(const std::string &dir, const char *pkg) { return join(dir, std::string(".") + pkg + ".uci-commit"); }

bool read_journal(const std::string &dir, const char *pkg, Journal &j)
{
	FILE *f = fopen(journal_path(dir, pkg).c_str(), "re");
	if (!f)
		return false;
	char temp[PATH_MAX + 1] = "";
	int n = fscanf(f, "%llu %llu %llu %llu %llu %4096s %llx", &j.ino, &j.size, &j.mtime_s, &j.mtime_ns, &j.consumed,
		       temp, &j.fingerprint);
	fclose(f);
	if (n < 7)
		return false;
	j.temp = temp;
	return true;
}

// True when the journal describes the file in st: that commit's rename took place.
bool journal_done(const Journal &j, const struct stat &st)
{
	return static_cast<unsigned long long>(st.st_ino) == j.ino &&
		static_cast<unsigned long long>(st.st_size) == j.size &&
		static_cast<unsigned long long>(st.st_mtim.tv_sec) == j.mtime_s &&
		static_cast<unsigned long long>(st.st_mtim.tv_nsec) == j.mtime_ns;
}

// Bytes at the start of the delta file DIR/PKG (open as fd) that a finished commit already folded into the
// config file.
long committed_prefix(const std::string &dir, const char *pkg, const struct stat *config, int fd)
{
	Journal j;
	if (!config || !read_journal(dir, pkg, j) || !journal_done(j, *config) ||
	    !still_holds_consumed(j, read_prefix(fd, j.consumed)))
		return 0;
	return static_cast<long>(j.consumed);
}

// Finishes or discards an interrupted commit (exclusive locks held): drops the consumed part of the delta
// file if the rename happened, then removes the journal and any temporary file left behind.
void recover_journal(const std::string &dir, const char *pkg, const std::string &config_path)
{
	Journal j;
	if (!read_journal(dir, pkg, j)) {
		unlink(journal_path(dir, pkg).c_str());
		return;
	}
	struct stat st;
	if (stat(config_path.c_str(), &st) == 0 && journal_done(j, st)) {
		Fd d(open(join(dir, pkg).c_str(), O_RDWR | O_CLOEXEC));
		if (d.get() >= 0) {
			lock_fd(d.get(), LOCK_EX);
			std::string rest = read_all(d.get());
			if (still_holds_consumed(j, rest)) {
				rest.erase(0, j.consumed);
				if (ftruncate(d.get(), 0) < 0 || lseek(d.get(), 0, SEEK_SET) < 0)
					fail(UCI_ERR_IO);
				write_all(d.get(), rest);
				fsync(d.get());
			}
		}
	} else if (!j.temp.empty()) {
		unlink(j.temp.c_str());
	}
	unlink(journal_path(dir, pkg).c_str());
	sync_dir(dir);
}

// Removes the temporary files of earlier commits of pkg that were cut off before their journal was written (a
// crash or SIGKILL at that moment); without this each such crash would leave a file in the config folder for good.
// The caller holds the config's exclusive lock, which every writer of pkg takes before it makes a temporary file,
// so no such file is still being written.
void drop_stale_temps(const std::string &dir, const char *pkg)
{
	const std::string prefix = std::string(".") + pkg + ".uci-";
	DIR *d = opendir(dir.c_str());
	if (!d)
		return;
	std::vector<std::string> stale;
	while (dirent *de = readdir(d)) {
		std::string name = de->d_name;
		if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0 &&
		    name.compare(prefix.size(), 6, "commit") != 0)
			stale.push_back(join(dir, name));
	}
	closedir(d);
	for (const auto &path : stale)
		unlink(path.c_str());
}

// ---- applying delta files ----

bool apply_line(uci_context *ctx, uci_package *p, const DeltaLine &line)
{
	uci_ptr ptr{};
	ptr.p = p;
	ptr.package = p->e.name;
	ptr.section = line.section.c_str();
	ptr.option = line.has_option ? line.option.c_str() : nullptr;
	ptr.value = line.has_value ? line.value.c_str() : nullptr;
	ptr.target = line.has_option ? UCI_TYPE_OPTION : UCI_TYPE_SECTION;
	try {
		switch (line.cmd) {
		case UCI_CMD_ADD:
		case UCI_CMD_CHANGE:
			op_set(ctx, &ptr, false);
			if (line.cmd == UCI_CMD_ADD && ptr.s)
				ptr.s->anonymous = true;
			return true;
		case UCI_CMD_REMOVE:
			return op_delete(ctx, &ptr, false) == 0;
		case UCI_CMD_RENAME:
			return op_rename(ctx, &ptr, false, false) == 0;
		case UCI_CMD_REORDER: {
			uci_section *s = find_section(p, line.section);
			if (!s)
				return false;
			op_reorder(ctx, s, static_cast<int>(strtoul(line.value.c_str(), nullptr, 10)), false);
			return true;
		}
		case UCI_CMD_LIST_ADD:
			return op_add_list(ctx, &ptr, false) == 0;
		case UCI_CMD_LIST_DEL:
			return op_del_list(ctx, &ptr, false) == 0;
		default:
			return false;
		}
	} catch (const Failure &f) {
		if (f.code == UCI_ERR_MEM)
			throw;
		return false;
	}
}

// Applies DIR/PKG for every directory of the delta path; returns the number of lines applied. held_fd, when
// not -1, is the already locked delta file of the save directory.
int apply_delta_files(uci_context *ctx, uci_package *p, const struct stat *config, int held_fd)
{
	int applied = 0;
	uci_element *e;
	uci_foreach_element(&ctx->delta_path, e) {
		std::string dir = e->name;
		std::string path = join(dir, p->e.name);
		Fd own;
		int fd = -1;
		if (held_fd >= 0 && dir == ctx->savedir) {
			fd = held_fd;
		} else {
			struct stat st;
			if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
				continue;
			own.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
			if (own.get() < 0)
				continue;
			lock_fd(own.get(), LOCK_SH);
			fd = own.get();
		}
		int copy = dup(fd);
		if (copy < 0)
			fail(UCI_ERR_IO);
		FILE *f = fdopen(copy, "r");
		if (!f) {
			close(copy);
			fail(UCI_ERR_IO);
		}
		long skip = committed_prefix(dir, p->e.name, config, fd);
		if (fseek(f, skip, SEEK_SET) != 0) {
			fclose(f);
			fail(UCI_ERR_IO);
		}
		try {
			read_delta_lines(f, p->e.name, [&](const DeltaLine &line) {
				if (ctx->flags & UCI_FLAG_SAVED_DELTA) {
					uci_delta *d = delta_new(line.cmd, line.section.c_str(),
						line.has_option ? line.option.c_str() : nullptr,
						line.has_value ? line.value.c_str() : nullptr);
					list_add_tail(&p->saved_delta, &d->e.list);
				}
				if (apply_line(ctx, p, line))
					applied++;
			});
		} catch (...) {
			fclose(f);
			throw;
		}
		fclose(f);
	}
	return applied;
}

// ---- loading ----

struct Source {
	std::string path;
	std::string name;
	bool by_name = false;
	bool conf2 = false;
};

Source resolve(uci_context *ctx, const char *name)
{
	Source src;
	if (name[0] == '/' || (name[0] == '.' && name[1] == '/')) {
		src.path = name;
		const char *slash = strrchr(name, '/');
		src.name = slash + 1;
		if (!valid_package_ref(src.name))
			fail(UCI_ERR_INVAL);
		return src;
	}
	if (name[0] == '.')
		fail(UCI_ERR_NOTFOUND);
	if (!valid_package_ref(name))
		fail(UCI_ERR_INVAL);
	src.name = name;
	src.by_name = true;
	if (ctx->conf2dir && *ctx->conf2dir) {
		std::string p = join(ctx->conf2dir, name);
		struct stat st;
		if (stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
			src.path = p;
			src.conf2 = true;
			return src;
		}
	}
	src.path = join(ctx->confdir, name);
	return src;
}

bool is_loaded(uci_context *ctx, const std::string &name)
{
	uci_element *e;
	uci_foreach_element(&ctx->root, e)
		if (name == e->name)
			return true;
	return false;
}

// Parses the config file open on fd into a new package (not linked into ctx->root).
uci_package *parse_file(uci_context *ctx, int fd, const Source &src)
{
	int copy = dup(fd);
	if (copy < 0)
		fail(UCI_ERR_IO);
	FILE *f = fdopen(copy, "r");
	if (!f) {
		close(copy);
		fail(UCI_ERR_IO);
	}
	struct stat st;
	size_t size = fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
	std::vector<uci_package *> created;
	try {
		parse_config(ctx, f, src.name.c_str(), ImportMode::load, nullptr, created, size);
		fclose(f);
	} catch (...) {
		fclose(f);
		for (uci_package *p : created)
			package_free(p);
		throw;
	}
	uci_package *p = created.front();
	try {
		p->path = dup_string(src.path);
	} catch (...) {
		package_free(p);
		throw;
	}
	p->has_delta = src.by_name;
	p->uses_conf2 = src.conf2;
	return p;
}

mode_t file_mode(const std::string &path, mode_t fallback)
{
	struct stat st;
	if (stat(path.c_str(), &st) == 0)
		return st.st_mode & 07777;
	return fallback;
}

// ---- saving ----

void save_deltas_impl(uci_context *ctx, uci_package *p);
void write_tree(uci_context *ctx, uci_package *p, const std::string &path);

void ensure_savedir(uci_context *ctx)
{
	struct stat st;
	if (stat(ctx->savedir, &st) == 0) {
		if (!S_ISDIR(st.st_mode))
			fail(UCI_ERR_IO);
		return;
	}
	if (errno != ENOENT)
		fail(UCI_ERR_IO);
	mode_t mode = UCI_DIRMODE;
	if (stat(ctx->confdir, &st) == 0 && S_ISDIR(st.st_mode))
		mode = st.st_mode & 07777;
	if (mkdir(ctx->savedir, mode) < 0 && errno != EEXIST)
		fail(UCI_ERR_IO);
}

void save_deltas_impl(uci_context *ctx, uci_package *p)
{
	if (!p->has_delta) {
		write_tree(ctx, p, p->path ? p->path : join(ctx->confdir, p->e.name));
		return;
	}
	if (uci_list_empty(&p->delta))
		return;
	ensure_savedir(ctx);
	std::string text;
	uci_element *e;
	uci_foreach_element(&p->delta, e)
		text += delta_text(uci_to_delta(e), p->e.name);
	mode_t mode = file_mode(p->path ? p->path : join(ctx->confdir, p->e.name), UCI_FILEMODE);
	Fd fd(open(join(ctx->savedir, p->e.name).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, mode));
	if (fd.get() < 0)
		fail(UCI_ERR_IO);
	lock_fd(fd.get(), LOCK_EX);
	write_all(fd.get(), text);
	fdatasync(fd.get());
	delta_list_free(&p->delta);
}

// Writes p (exported) to a temporary file beside path, syncs it and gives it the mode of the config file.
// Returns the open temporary file; temp receives its name.
int write_temp(const std::string &path, uci_context *ctx, uci_package *p, mode_t mode, std::string &temp)
{
	const char *pkg = p->e.name;
	std::string tmpl = join(dir_of(path), std::string(".") + pkg + ".uci-XXXXXX");
	std::vector<char> name(tmpl.begin(), tmpl.end());
	name.push_back(0);
	int fd = mkostemp(name.data(), O_CLOEXEC);
	if (fd < 0)
		fail(UCI_ERR_IO);
	temp = name.data();
	try {
		lock_fd(fd, LOCK_EX);
		Output out([fd](const std::string &text) { write_all(fd, text); });
		export_package(out, ctx, p, false);
		out.flush();
		if (fsync(fd) < 0 || fchmod(fd, mode) < 0)
			fail(UCI_ERR_IO);
	} catch (...) {
		close(fd);
		unlink(temp.c_str());
		throw;
	}
	return fd;
}

// Renames the temporary file over the config (over the target of a symlinked config) and syncs the
// directories involved.
void replace_config(const std::string &temp, const std::string &path)
{
	char resolved[PATH_MAX];
	std::string target = realpath(path.c_str(), resolved) ? std::string(resolved) : path;
	if (rename(temp.c_str(), target.c_str()) < 0) {
		unlink(temp.c_str());
		fail(UCI_ERR_IO);
	}
	sync_dir(dir_of(temp));
	if (dir_of(target) != dir_of(temp))
		sync_dir(dir_of(target));
}

// A package without deltas (loaded by path, or imported) is written as it is.
void write_tree(uci_context *ctx, uci_package *p, const std::string &path)
{
	DirLock dir(dir_of(path), LOCK_EX);
	mode_t mode = file_mode(path, UCI_FILEMODE);
	Fd cfd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode));
	if (cfd.get() < 0)
		fail(UCI_ERR_IO);
	lock_fd(cfd.get(), LOCK_EX);
	struct stat st;
	if (fstat(cfd.get(), &st) == 0)
		mode = st.st_mode & 07777;
	std::string temp;
	Fd tfd(write_temp(path, ctx, p, mode, temp));
	tfd.reset();
	replace_config(temp, path);
}

// Puts np where op was in ctx->root and frees op.
void replace_package(uci_package *op, uci_package *np)
{
	list_insert_before(&op->e.list, &np->e.list);
	package_free(op);
}

void commit_with_deltas(uci_context *ctx, uci_package **pp, bool overwrite)
{
	uci_package *p = *pp;
	std::string path = p->path ? p->path : join(ctx->confdir, p->e.name);
	std::string pkg = p->e.name;
	Source src;
	src.path = path;
	src.name = pkg;
	src.by_name = true;
	src.conf2 = p->uses_conf2;

	DirLock dir(dir_of(path), LOCK_EX);
	mode_t mode = file_mode(path, UCI_FILEMODE);
	Fd cfd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode));
	if (cfd.get() < 0)
		fail(UCI_ERR_IO);
	lock_fd(cfd.get(), LOCK_EX);

	if (!overwrite)
		save_deltas_impl(ctx, p);
	recover_journal(ctx->savedir, pkg.c_str(), path);
	drop_stale_temps(dir_of(path), pkg.c_str());

	Fd dfd(open(join(ctx->savedir, pkg).c_str(), O_RDWR | O_CLOEXEC));
	if (dfd.get() >= 0)
		lock_fd(dfd.get(), LOCK_EX);
	struct stat dst{};
	if (dfd.get() >= 0 && fstat(dfd.get(), &dst) < 0)
		fail(UCI_ERR_IO);

	struct stat cst;
	if (fstat(cfd.get(), &cst) < 0)
		fail(UCI_ERR_IO);
	mode = cst.st_mode & 07777;

	uci_package *target = p;
	int applied;
	if (overwrite) {
		applied = apply_delta_files(ctx, p, &cst, dfd.get());
	} else {
		if (lseek(cfd.get(), 0, SEEK_SET) < 0)
			fail(UCI_ERR_IO);
		uci_package *np = parse_file(ctx, cfd.get(), src);
		try {
			applied = apply_delta_files(ctx, np, &cst, dfd.get());
		} catch (...) {
			package_free(np);
			throw;
		}
		replace_package(p, np);
		*pp = np;
		target = np;
	}
	if (applied == 0)
		return;

	std::string temp;
	Fd tfd(write_temp(path, ctx, target, mode, temp));

	if (dfd.get() >= 0) {
		// Record what this commit produces before the rename (see the top of this file).
		struct stat tst;
		if (fstat(tfd.get(), &tst) < 0) {
			unlink(temp.c_str());
			fail(UCI_ERR_IO);
		}
		std::string j = std::to_string(tst.st_ino) + " " + std::to_string(tst.st_size) + " " +
			std::to_string(tst.st_mtim.tv_sec) + " " + std::to_string(tst.st_mtim.tv_nsec) + " " +
			std::to_string(dst.st_size) + " " + temp + " " +
			hex(fingerprint(read_prefix(dfd.get(), static_cast<size_t>(dst.st_size)))) + "\n";
		std::string jpath = journal_path(ctx->savedir, pkg.c_str());
		Fd jfd(open(jpath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
		if (jfd.get() < 0) {
			unlink(temp.c_str());
			fail(UCI_ERR_IO);
		}
		write_all(jfd.get(), j);
		fsync(jfd.get());
		sync_dir(ctx->savedir);
	}
	tfd.reset();
	replace_config(temp, path);

	if (dfd.get() >= 0) {
		// Nothing could be appended meanwhile: the delta file stayed locked since it was read.
		if (ftruncate(dfd.get(), 0) < 0)
			fail(UCI_ERR_IO);
		fsync(dfd.get());
		unlink(journal_path(ctx->savedir, pkg.c_str()).c_str());
	}
}

}  // namespace

namespace uci_impl {

uci_package *load_package(uci_context *ctx, const char *name, bool take_lock)
{
	if (!name)
		fail(UCI_ERR_INVAL);
	Source src = resolve(ctx, name);
	if (is_loaded(ctx, src.name))
		fail(UCI_ERR_DUPLICATE);
	struct stat st;
	if (stat(src.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
		fail(UCI_ERR_NOTFOUND);

	std::unique_ptr<DirLock> dir;
	if (take_lock)
		dir = std::make_unique<DirLock>(dir_of(src.path), LOCK_SH);
	Fd fd(open(src.path.c_str(), O_RDONLY | O_CLOEXEC));
	if (fd.get() < 0)
		fail(errno == ENOENT ? UCI_ERR_NOTFOUND : UCI_ERR_IO);
	lock_fd(fd.get(), LOCK_SH);
	if (fstat(fd.get(), &st) < 0)
		fail(UCI_ERR_IO);

	uci_package *p = parse_file(ctx, fd.get(), src);
	try {
		if (p->has_delta)
			apply_delta_files(ctx, p, &st, -1);
	} catch (...) {
		package_free(p);
		throw;
	}
	list_add_tail(&ctx->root, &p->e.list);
	return p;
}

}  // namespace uci_impl

extern "C" {

int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package)
{
	if (package)
		*package = nullptr;
	return guarded(ctx, [&] {
		uci_package *p = load_package(ctx, name, true);
		if (package)
			*package = p;
	});
}

int uci_unload(struct uci_context *ctx, struct uci_package *p)
{
	return guarded(ctx, [&] {
		if (!p)
			fail(UCI_ERR_INVAL);
		package_free(p);
	});
}

int uci_export(struct uci_context *ctx, FILE *stream, struct uci_package *package, bool header)
{
	return guarded(ctx, [&] {
		if (!stream)
			fail(UCI_ERR_INVAL);
		Output out([stream](const std::string &text) {
			if (fwrite(text.data(), 1, text.size(), stream) != text.size())
				fail(UCI_ERR_IO);
		});
		if (package) {
			export_package(out, ctx, package, header);
		} else {
			uci_element *e;
			uci_foreach_element(&ctx->root, e)
				export_package(out, ctx, uci_to_package(e), header);
		}
		out.flush();
	});
}

int uci_save(struct uci_context *ctx, struct uci_package *p)
{
	return guarded(ctx, [&] {
		if (!p)
			fail(UCI_ERR_INVAL);
		save_deltas_impl(ctx, p);
	});
}

int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite)
{
	return guarded(ctx, [&] {
		if (!p || !*p)
			fail(UCI_ERR_INVAL);
		uci_package *pkg = *p;
		if (pkg->has_delta) {
			commit_with_deltas(ctx, p, overwrite);
			return;
		}
		if (!pkg->path) {
			if (!overwrite)
				fail(UCI_ERR_INVAL);
			pkg->path = dup_string(join(ctx->confdir, pkg->e.name));
		}
		write_tree(ctx, pkg, pkg->path);
	});
}

int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr)
{
	return guarded(ctx, [&] {
		if (!ptr)
			fail(UCI_ERR_INVAL);
		ensure_lookup(ctx, ptr);
		uci_package *p = ptr->p;
		if (!p)
			fail(UCI_ERR_NOTFOUND);
		if (!p->has_delta)
			fail(UCI_ERR_INVAL);
		save_deltas_impl(ctx, p);

		std::string pkg = p->e.name;
		std::string path = p->path ? p->path : join(ctx->confdir, pkg);
		bool by_section = ptr->section || ptr->s;
		bool by_option = ptr->option || ptr->o;
		std::string section = ptr->s ? ptr->s->e.name : ptr->section ? ptr->section : "";
		std::string option = ptr->o ? ptr->o->e.name : ptr->option ? ptr->option : "";
		package_free(p);
		ptr->p = nullptr;
		ptr->s = nullptr;
		ptr->o = nullptr;
		ptr->last = nullptr;
		ptr->package = nullptr;
		ptr->section = nullptr;
		ptr->option = nullptr;

		{
			DirLock dir(dir_of(path), LOCK_EX);
			recover_journal(ctx->savedir, pkg.c_str(), path);
			Fd dfd(open(join(ctx->savedir, pkg).c_str(), O_RDWR | O_CLOEXEC));
			if (dfd.get() >= 0) {
				lock_fd(dfd.get(), LOCK_EX);
				std::string kept;
				int copy = dup(dfd.get());
				FILE *f = copy >= 0 ? fdopen(copy, "r") : nullptr;
				if (!f) {
					if (copy >= 0)
						close(copy);
					fail(UCI_ERR_IO);
				}
				bool well_formed = read_delta_lines(f, pkg, [&](const DeltaLine &line) {
					bool match = (!by_section || line.section == section) &&
						(!by_option || (line.has_option && line.option == option));
					if (match)
						return;
					uci_delta d{};
					d.cmd = line.cmd;
					d.section = const_cast<char *>(line.section.c_str());
					d.e.name = line.has_option ? const_cast<char *>(line.option.c_str()) : nullptr;
					d.value = line.has_value ? const_cast<char *>(line.value.c_str()) : nullptr;
					kept += delta_text(&d, pkg.c_str());
				});
				fclose(f);
				// A delta file with a line this reader cannot parse is left alone.
				if (well_formed) {
					if (ftruncate(dfd.get(), 0) < 0 || lseek(dfd.get(), 0, SEEK_SET) < 0)
						fail(UCI_ERR_IO);
					write_all(dfd.get(), kept);
					fdatasync(dfd.get());
				}
			}
		}
		ptr->p = load_package(ctx, pkg.c_str(), true);
		ptr->package = ptr->p->e.name;
		ptr->last = &ptr->p->e;
	});
}

int uci_list_configs(struct uci_context *ctx, char ***list)
{
	return guarded(ctx, [&] {
		if (!list)
			fail(UCI_ERR_INVAL);
		*list = nullptr;
		DIR *d = opendir(ctx->confdir);
		if (!d)
			fail(UCI_ERR_NOTFOUND);
		std::vector<std::string> names;
		while (dirent *de = readdir(d)) {
			std::string name = de->d_name;
			if (name.empty() || name[0] == '.' || name.find('.') != std::string::npos || !valid_package_ref(name))
				continue;
			struct stat st;
			if (stat(join(ctx->confdir, name).c_str(), &st) != 0 || S_ISDIR(st.st_mode))
				continue;
			names.push_back(name);
		}
		closedir(d);
		if (names.empty())
			fail(UCI_ERR_NOTFOUND);
		std::sort(names.begin(), names.end());
		size_t size = (names.size() + 1) * sizeof(char *);
		for (auto &n : names)
			size += n.size() + 1;
		char **out = static_cast<char **>(malloc(size));
		if (!out)
			fail(UCI_ERR_MEM);
		char *text = reinterpret_cast<char *>(out + names.size() + 1);
		for (size_t i = 0; i < names.size(); i++) {
			out[i] = text;
			memcpy(text, names[i].c_str(), names[i].size() + 1);
			text += names[i].size() + 1;
		}
		out[names.size()] = nullptr;
		*list = out;
	});
}

}  // extern "C"
