// Files: loading, the delta files of the save directory, save, commit, revert and listing.
//
// Locking. Every process that reads or writes a package through this library takes a flock on the
// directory that holds the config file (shared for a load, exclusive for a commit or a revert), because a
// commit replaces the config file by a rename and a lock on the file itself would then guard an inode that
// is no longer the config. Inside that, the same flocks as the original tools are taken (shared on the
// config while loading, exclusive on it while committing, shared or exclusive on delta files), so both
// kinds of tools exclude each other too.
//
// Crash safety of a commit. The new file is written to a temporary file in the config's directory, synced,
// and renamed over the config; the directory is synced. The delta file is emptied only after that, and the
// commit journal (journal.cpp) makes the step between the rename and the emptying safe.
#include "fsutil.h"
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
		Stream f(fd);
		if (fseek(f.get(), committed_prefix(dir, p->e.name, config, fd), SEEK_SET) != 0)
			fail(UCI_ERR_IO);
		read_delta_lines(f.get(), p->e.name, [&](const DeltaLine &line) {
			if (ctx->flags & UCI_FLAG_SAVED_DELTA) {
				uci_delta *d = delta_new(line.cmd, line.section.c_str(),
					line.has_option ? line.option.c_str() : nullptr,
					line.has_value ? line.value.c_str() : nullptr);
				list_add_tail(&p->saved_delta, &d->e.list);
			}
			if (apply_line(ctx, p, line))
				applied++;
		});
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
	Stream f(fd);
	struct stat st;
	size_t size = fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
	std::vector<uci_package *> created;
	try {
		parse_config(ctx, f.get(), src.name.c_str(), ImportMode::load, nullptr, created, size);
	} catch (...) {
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

// The exclusive locks of a writer of the config file at path: its directory's, then the file's (created when
// missing). st is the file's status once locked.
struct WriteLock {
	DirLock dir;
	Fd fd;
	struct stat st;

	explicit WriteLock(const std::string &path) : dir(dir_of(path), LOCK_EX)
	{
		fd.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, file_mode(path, UCI_FILEMODE)));
		if (fd.get() < 0)
			fail(UCI_ERR_IO);
		lock_fd(fd.get(), LOCK_EX);
		if (fstat(fd.get(), &st) < 0)
			fail(UCI_ERR_IO);
	}
	mode_t mode() const { return st.st_mode & 07777; }
};

// A package without deltas (loaded by path, or imported) is written as it is.
void write_tree(uci_context *ctx, uci_package *p, const std::string &path)
{
	WriteLock lock(path);
	std::string temp;
	Fd tfd(write_temp(path, ctx, p, lock.mode(), temp));
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

	WriteLock lock(path);
	if (!overwrite)
		save_deltas_impl(ctx, p);
	const struct stat &cst = lock.st;
	drop_unfinished_temps(ctx->savedir, pkg.c_str(), &cst);
	drop_stale_temps(dir_of(path), pkg.c_str());

	Fd dfd(open(join(ctx->savedir, pkg).c_str(), O_RDWR | O_CLOEXEC));
	if (dfd.get() >= 0)
		lock_fd(dfd.get(), LOCK_EX);
	struct stat dst{};
	if (dfd.get() >= 0 && fstat(dfd.get(), &dst) < 0)
		fail(UCI_ERR_IO);
	if (dfd.get() < 0)
		remove_journal(ctx->savedir, pkg.c_str());	// nothing left that a journal could describe

	uci_package *target = p;
	int applied;
	if (overwrite) {
		applied = apply_delta_files(ctx, p, &cst, dfd.get());
	} else {
		if (lseek(lock.fd.get(), 0, SEEK_SET) < 0)
			fail(UCI_ERR_IO);
		uci_package *np = parse_file(ctx, lock.fd.get(), src);
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
	Fd tfd(write_temp(path, ctx, target, lock.mode(), temp));

	if (dfd.get() >= 0)
		write_journal(ctx->savedir, pkg.c_str(), temp, tfd.get(), dfd.get(), static_cast<size_t>(dst.st_size), cst);
	tfd.reset();
	replace_config(temp, path);

	if (dfd.get() >= 0)
		finish_journal(ctx->savedir, pkg.c_str(), dfd);
}

// Rewrites the delta file open on fd without its first `skip` bytes and without the lines `drop` selects. A file
// holding a line this reader cannot parse is left alone (false).
bool drop_delta_lines(int fd, const std::string &pkg, long skip, const std::function<bool(const DeltaLine &)> &drop)
{
	std::string kept;
	bool well_formed;
	{
		Stream f(fd);
		if (fseek(f.get(), skip, SEEK_SET) != 0)
			fail(UCI_ERR_IO);
		well_formed = read_delta_lines(f.get(), pkg, [&](const DeltaLine &line) {
			if (drop(line))
				return;
			uci_delta d{};
			d.cmd = line.cmd;
			d.section = const_cast<char *>(line.section.c_str());
			d.e.name = line.has_option ? const_cast<char *>(line.option.c_str()) : nullptr;
			d.value = line.has_value ? const_cast<char *>(line.value.c_str()) : nullptr;
			kept += delta_text(&d, pkg.c_str());
		});
	}
	if (!well_formed)
		return false;
	rewrite(fd, kept);
	fdatasync(fd);
	return true;
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
			// The lines a finished commit folded in go together with the reverted ones.
			DirLock dir(dir_of(path), LOCK_EX);
			struct stat cst;
			const struct stat *config = stat(path.c_str(), &cst) == 0 ? &cst : nullptr;
			drop_unfinished_temps(ctx->savedir, pkg.c_str(), config);
			Fd dfd(open(join(ctx->savedir, pkg).c_str(), O_RDWR | O_CLOEXEC));
			bool rewritten = true;
			if (dfd.get() >= 0) {
				lock_fd(dfd.get(), LOCK_EX);
				long folded = committed_prefix(ctx->savedir, pkg.c_str(), config, dfd.get());
				rewritten = drop_delta_lines(dfd.get(), pkg, folded, [&](const DeltaLine &line) {
					return (!by_section || line.section == section) &&
						(!by_option || (line.has_option && line.option == option));
				});
			}
			if (rewritten)
				remove_journal(ctx->savedir, pkg.c_str());
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
