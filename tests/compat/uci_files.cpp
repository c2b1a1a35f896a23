// libuci and files: load, save, commit (rewrites, modes, the delta file, two writers, interrupted commits),
// revert, import, export and the config listing.
#include <gtest/gtest.h>

#include "support.h"

#include <sys/stat.h>

#include <cstring>

using namespace ct;

namespace {

ino_t inode_of(const std::string &path)
{
	struct stat st {};
	stat(path.c_str(), &st);
	return st.st_ino;
}

mode_t mode_of(const std::string &path)
{
	struct stat st {};
	stat(path.c_str(), &st);
	return st.st_mode & 07777;
}

int set(uci_context *ctx, const std::string &tuple)
{
	Tuple tp(ctx, tuple);
	if (tp.rc)
		return tp.rc;
	int rc = uci_set(ctx, &tp.ptr);
	if (rc)
		return rc;
	return uci_save(ctx, tp.ptr.p);
}

std::string exported(uci_context *ctx, uci_package *p, bool header)
{
	char *buf = nullptr;
	size_t size = 0;
	FILE *f = open_memstream(&buf, &size);
	EXPECT_EQ(uci_export(ctx, f, p, header), UCI_OK);
	fclose(f);
	std::string r(buf, size);
	free(buf);
	return r;
}

TEST(UciLoad, ResultsByKindOfName)
{
	UciTree t;
	Context ctx(t);
	write_file(t.config("t"), "config a n\n");
	write_file(t.config("empty"), "");
	std::filesystem::create_directory(t.config("dir"));
	uci_package *p = nullptr;
	EXPECT_EQ(uci_load(ctx, "missing", &p), UCI_ERR_NOTFOUND);
	EXPECT_EQ(uci_load(ctx, "dir", &p), UCI_ERR_NOTFOUND);
	EXPECT_EQ(uci_load(ctx, ".hidden", &p), UCI_ERR_NOTFOUND);
	EXPECT_EQ(uci_load(ctx, nullptr, &p), UCI_ERR_INVAL);

	ASSERT_EQ(uci_load(ctx, "empty", &p), UCI_OK);
	EXPECT_TRUE(uci_list_empty(&p->sections));
	EXPECT_EQ(exported(ctx, p, true), "package empty\n\n");

	ASSERT_EQ(uci_load(ctx, "t", &p), UCI_OK);
	EXPECT_TRUE(p->has_delta);
	EXPECT_EQ(std::string(p->path), t.config("t"));
	uci_package *again = reinterpret_cast<uci_package *>(1);
	EXPECT_EQ(uci_load(ctx, "t", &again), UCI_ERR_DUPLICATE);
	EXPECT_EQ(again, nullptr);
	ASSERT_EQ(uci_unload(ctx, p), UCI_OK);
	EXPECT_EQ(uci_unload(ctx, nullptr), UCI_ERR_INVAL);

	// By path: named after the file, no deltas, and a save rewrites the file at once.
	std::string other = t.path + "/elsewhere";
	write_file(other, "config a n\n\toption x 1\n");
	Tuple tp(ctx, other + ".n.x=2");
	ASSERT_EQ(tp.rc, UCI_OK);
	EXPECT_STREQ(tp.ptr.p->e.name, "elsewhere");
	EXPECT_FALSE(tp.ptr.p->has_delta);
	ASSERT_EQ(uci_set(ctx, &tp.ptr), UCI_OK);
	ASSERT_EQ(uci_save(ctx, tp.ptr.p), UCI_OK);
	EXPECT_EQ(read_file(other), "\nconfig a 'n'\n\toption x '2'\n\n");
	EXPECT_FALSE(exists(t.delta("elsewhere")));
}

TEST(UciLoad, OverrideDirectory)
{
	UciTree t;
	Context ctx(t);
	std::string over = t.path + "/over";
	std::filesystem::create_directory(over);
	uci_set_conf2dir(ctx, over.c_str());
	write_file(t.config("t"), "config a base\n");
	write_file(over + "/t", "config a over\n");
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "t", &p), UCI_OK);
	EXPECT_TRUE(p->uses_conf2);
	ASSERT_EQ(set(ctx, "t.over.x=1"), UCI_OK);
	p = uci_lookup_package(ctx, "t");
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	EXPECT_EQ(read_file(over + "/t"), "\nconfig a 'over'\n\toption x '1'\n\n");
	EXPECT_EQ(read_file(t.config("t")), "config a base\n");
}

TEST(UciSave, FilesDirectoriesAndModes)
{
	UciTree t;
	std::filesystem::remove(t.save);
	Context ctx(t);
	write_file(t.config("t"), "config a n\n");
	chmod(t.config("t").c_str(), 0640);
	chmod(t.conf.c_str(), 0750);
	mode_t old_umask = umask(022);

	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "t", &p), UCI_OK);
	ASSERT_EQ(uci_save(ctx, p), UCI_OK);
	EXPECT_FALSE(exists(t.save));  // nothing to save: nothing created

	ASSERT_EQ(set(ctx, "t.n.x=1"), UCI_OK);
	EXPECT_EQ(mode_of(t.save), 0750u);
	EXPECT_EQ(mode_of(t.delta("t")), 0640u);
	ASSERT_EQ(set(ctx, "t.n.y=2"), UCI_OK);
	EXPECT_EQ(read_file(t.delta("t")), "t.n.x='1'\nt.n.y='2'\n");
	EXPECT_TRUE(uci_list_empty(&p->saved_delta));  // saving does not add to the loaded changes
	umask(old_umask);

	// A save directory whose parent is missing, or that is a file, is an I/O error.
	uci_set_savedir(ctx, (t.path + "/no/such").c_str());
	Tuple a(ctx, "t.n.z=3");
	ASSERT_EQ(uci_set(ctx, &a.ptr), UCI_OK);
	EXPECT_EQ(uci_save(ctx, p), UCI_ERR_IO);
	write_file(t.path + "/file", "");
	uci_set_savedir(ctx, (t.path + "/file").c_str());
	EXPECT_EQ(uci_save(ctx, p), UCI_ERR_IO);
	EXPECT_EQ(uci_save(ctx, nullptr), UCI_ERR_INVAL);
}

TEST(UciCommit, RewritesOnlyWithChanges)
{
	UciTree t;
	Context ctx(t);
	const std::string original = "# keep me\nconfig a n # and me\n\toption x \"1\"\n";
	write_file(t.config("t"), original);
	chmod(t.config("t").c_str(), 0640);
	ino_t before = inode_of(t.config("t"));

	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "t", &p), UCI_OK);
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	EXPECT_EQ(inode_of(t.config("t")), before);
	EXPECT_EQ(read_file(t.config("t")), original);

	// In-memory edits and overwrite=true: nothing is written.
	Tuple x(ctx, "t.n.x=2");
	ASSERT_EQ(uci_set(ctx, &x.ptr), UCI_OK);
	ASSERT_EQ(uci_commit(ctx, &p, true), UCI_OK);
	EXPECT_EQ(read_file(t.config("t")), original);

	// A normal commit saves them first, reloads and rewrites in canonical form, keeping the mode.
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	ASSERT_NE(p, nullptr);
	EXPECT_EQ(uci_lookup_package(ctx, "t"), p);
	EXPECT_EQ(read_file(t.config("t")), "\nconfig a 'n'\n\toption x '2'\n\n");
	EXPECT_NE(inode_of(t.config("t")), before);
	EXPECT_EQ(mode_of(t.config("t")), 0640u);
	ASSERT_TRUE(exists(t.delta("t")));
	EXPECT_EQ(read_file(t.delta("t")), "");
	ASSERT_FALSE(uci_list_empty(&p->saved_delta));  // the reloaded package lists what was committed
	uci_delta *d = uci_to_delta(p->saved_delta.next);
	EXPECT_EQ(d->cmd, UCI_CMD_CHANGE);
	EXPECT_STREQ(d->section, "n");
	EXPECT_STREQ(d->e.name, "x");
	EXPECT_STREQ(d->value, "2");

	// Names of anonymous sections are written when asked for.
	ASSERT_EQ(uci_add_section(ctx, p, "a", nullptr), UCI_OK);
	ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_EXPORT_NAME);
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	EXPECT_EQ(read_file(t.config("t")), "\nconfig a 'n'\n\toption x '2'\n\nconfig a 'cfg02b606'\n\n");
	// An empty package commits as one newline.
	Tuple n(ctx, "t.n");
	ASSERT_EQ(uci_delete(ctx, &n.ptr), UCI_OK);
	Tuple c(ctx, "t.cfg02b606");
	ASSERT_EQ(uci_delete(ctx, &c.ptr), UCI_OK);
	p = c.ptr.p;
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	EXPECT_EQ(read_file(t.config("t")), "\n");
	EXPECT_EQ(uci_commit(ctx, nullptr, false), UCI_ERR_INVAL);
}

TEST(UciCommit, SymlinkedConfigKeepsTheLink)
{
	UciTree t;
	Context ctx(t);
	std::string real = t.conf + "/real-file";
	write_file(real, "config a n\n");
	ASSERT_EQ(symlink("real-file", t.config("t").c_str()), 0);
	ASSERT_EQ(set(ctx, "t.n.x=1"), UCI_OK);
	uci_package *p = uci_lookup_package(ctx, "t");
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	struct stat st {};
	ASSERT_EQ(lstat(t.config("t").c_str(), &st), 0);
	EXPECT_TRUE(S_ISLNK(st.st_mode));
	EXPECT_EQ(read_file(real), "\nconfig a 'n'\n\toption x '1'\n\n");
}

// Two contexts stand for two processes: neither loses what the other saved or committed.
TEST(UciCommit, TwoWritersCombine)
{
	UciTree t;
	write_file(t.config("t"), "config a n\n");
	Context a(t), b(t);
	ASSERT_EQ(set(a, "t.n.x=1"), UCI_OK);
	ASSERT_EQ(set(b, "t.n.y=2"), UCI_OK);
	uci_package *pa = uci_lookup_package(a, "t");
	ASSERT_EQ(uci_commit(a, &pa, false), UCI_OK);
	EXPECT_EQ(read_file(t.config("t")), "\nconfig a 'n'\n\toption x '1'\n\toption y '2'\n\n");

	// b still holds its old tree; its commit starts from the file on disk.
	Tuple z(b, "t.n.z=3");
	ASSERT_EQ(uci_set(b, &z.ptr), UCI_OK);
	uci_package *pb = uci_lookup_package(b, "t");
	ASSERT_EQ(uci_commit(b, &pb, false), UCI_OK);
	EXPECT_EQ(read_file(t.config("t")), "\nconfig a 'n'\n\toption x '1'\n\toption y '2'\n\toption z '3'\n\n");
}

TEST(UciCommit, OtherDeltaDirectoriesAreAppliedButKept)
{
	UciTree t;
	std::string extra = t.path + "/extra";
	std::filesystem::create_directory(extra);
	write_file(t.config("t"), "config a n\n");
	write_file(extra + "/t", "t.n.e='1'\n");
	Context ctx(t);
	ASSERT_EQ(uci_add_delta_path(ctx, extra.c_str()), UCI_OK);
	ASSERT_EQ(set(ctx, "t.n.x=1"), UCI_OK);
	uci_package *p = uci_lookup_package(ctx, "t");
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	EXPECT_EQ(read_file(t.config("t")), "\nconfig a 'n'\n\toption e '1'\n\toption x '1'\n\n");
	EXPECT_EQ(read_file(extra + "/t"), "t.n.e='1'\n");
	EXPECT_EQ(read_file(t.delta("t")), "");
}

// The journal a commit writes before its rename: the produced file's inode, size and modification time, the
// number of delta bytes it folded in, its temporary file, and the FNV-1a (64 bits) of those bytes in hex.
std::string journalFor(const std::string &config, const std::string &folded, const std::string &temp)
{
	struct stat st {};
	EXPECT_EQ(stat(config.c_str(), &st), 0);
	unsigned long long h = 14695981039346656037ULL;
	for (unsigned char c : folded) {
		h ^= c;
		h *= 1099511628211ULL;
	}
	char fp[17];
	snprintf(fp, sizeof fp, "%016llx", h);
	return std::to_string(st.st_ino) + " " + std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) +
		" " + std::to_string(st.st_mtim.tv_nsec) + " " + std::to_string(folded.size()) + " " + temp + " " + fp + "\n";
}

std::vector<std::string> listItems(Context &ctx, const char *path)
{
	Tuple l(ctx, path);
	std::vector<std::string> items;
	if (l.rc != UCI_OK || l.ptr.o == nullptr)
		return items;
	uci_element *e;
	uci_foreach_element(&l.ptr.o->v.list, e)
		items.push_back(e->name);
	return items;
}

// Commits cut off at each step, as their journal (SAVEDIR/.t.uci-commit) and the files show it: what a load then
// sees, and what the next commit writes. Every case starts from a config holding item 1.
TEST(UciCommit, InterruptedCommitsAreFinished)
{
	const std::string one = "|t.n.l='1'\n", two = "|t.n.l='2'\n";
	struct Case {
		const char *what;
		std::string delta;
		std::function<std::string(const UciTree &)> journal;
	} cases[] = {
		{"stopped between the rename and the emptying of the delta file: 1 is not applied twice", one + two,
		 [&](const UciTree &t) { return journalFor(t.config("t"), one, t.conf + "/.t.uci-gone"); }},
		{"stopped before its rename: the journal describes another file", two,
		 [](const UciTree &t) { return "1 2 3 4 11 " + t.conf + "/.t.uci-left 0123456789abcdef\n"; }},
		{"stopped after the emptying: 2 was saved since, as long as the folded line, and is kept", two,
		 [&](const UciTree &t) { return journalFor(t.config("t"), one, t.conf + "/.t.uci-gone"); }},
		{"stopped before its rename, with the commit in force as the journal's second line", one + two,
		 [&](const UciTree &t) {
			 return "1 2 3 4 22 " + t.conf + "/.t.uci-left 0123456789abcdef\n" +
				journalFor(t.config("t"), one, t.conf + "/.t.uci-gone");
		 }},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.what);
		UciTree t;
		write_file(t.config("t"), "\nconfig a 'n'\n\tlist l '1'\n\n");
		write_file(t.delta("t"), c.delta);
		write_file(t.save + "/.t.uci-commit", c.journal(t));
		if (c.journal(t).find(".t.uci-left") != std::string::npos)
			write_file(t.conf + "/.t.uci-left", "partial");	// the temporary file of the cut-off commit
		Context ctx(t);
		EXPECT_EQ(listItems(ctx, "t.n.l"), (std::vector<std::string>{"1", "2"}));
		Tuple l(ctx, "t.n.l");
		uci_package *p = l.ptr.p;
		ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
		EXPECT_EQ(read_file(t.config("t")), "\nconfig a 'n'\n\tlist l '1'\n\tlist l '2'\n\n");
		EXPECT_EQ(read_file(t.delta("t")), "");
		EXPECT_FALSE(exists(t.save + "/.t.uci-commit"));
		EXPECT_FALSE(exists(t.conf + "/.t.uci-left"));
	}
}

class UciRevert : public ::testing::Test {
protected:
	void SetUp() override
	{
		write_file(t.config("t"), "config a n\n\toption x 1\nconfig a m\nconfig a\n");
		write_file(t.delta("t"),
			"t.n.x='2'\n-t.n.x\n|t.n.x='3'\nt.n.y=\"4\"\nt.m.x='5'\n@t.m='k'\nt.k.z='6'\nt.cfg03b606.w='7'\n");
	}
	int revert(const std::string &tuple)
	{
		Tuple tp(ctx, tuple);
		if (tp.rc)
			return tp.rc;
		int rc = uci_revert(ctx, &tp.ptr);
		if (rc == UCI_OK) {
			EXPECT_NE(tp.ptr.p, nullptr);
		}
		return rc;
	}
	UciTree t;
	Context ctx{t};
};

TEST_F(UciRevert, MatchesByNamesWrittenInTheLines)
{
	ASSERT_EQ(revert("t.n.x"), UCI_OK);
	EXPECT_EQ(read_file(t.delta("t")), "t.n.y='4'\nt.m.x='5'\n@t.m='k'\nt.k.z='6'\nt.cfg03b606.w='7'\n");
	ASSERT_EQ(revert("t.k"), UCI_OK);  // the rename line names m, not k
	EXPECT_EQ(read_file(t.delta("t")), "t.n.y='4'\nt.m.x='5'\n@t.m='k'\nt.cfg03b606.w='7'\n");
	ASSERT_EQ(revert("t.@a[2]"), UCI_OK);
	EXPECT_EQ(read_file(t.delta("t")), "t.n.y='4'\nt.m.x='5'\n@t.m='k'\n");
	ASSERT_EQ(revert("t.nosuch.x"), UCI_OK);
	ASSERT_EQ(revert("t"), UCI_OK);
	EXPECT_EQ(read_file(t.delta("t")), "");
	EXPECT_EQ(revert("nosuch"), UCI_ERR_NOTFOUND);
}

TEST_F(UciRevert, UnsavedEditsAndMalformedFiles)
{
	// Unsaved edits are saved first, then filtered like the rest.
	Tuple a(ctx, "t.n.q=1");
	ASSERT_EQ(uci_set(ctx, &a.ptr), UCI_OK);
	ASSERT_EQ(revert("t.n"), UCI_OK);
	EXPECT_EQ(read_file(t.delta("t")), "t.m.x='5'\n@t.m='k'\nt.k.z='6'\nt.cfg03b606.w='7'\n");

	// One line this reader cannot parse: the revert leaves the file alone.
	std::string broken = read_file(t.delta("t")) + "t.n.v='a' junk\n";
	write_file(t.delta("t"), broken);
	ASSERT_EQ(revert("t"), UCI_OK);
	EXPECT_EQ(read_file(t.delta("t")), broken);

	// A package loaded by path has no deltas to revert.
	std::string path = t.path + "/bypath";
	write_file(path, "config a n\n");
	EXPECT_EQ(revert(path), UCI_ERR_INVAL);
}

TEST(UciImport, PackagesNamesAndMerge)
{
	UciTree t;
	Context ctx(t);
	auto import = [&](const std::string &text, const char *name, uci_package **p, bool single) {
		FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
		int rc = uci_import(ctx, f, name, p, single);
		fclose(f);
		return rc;
	};
	uci_package *p = nullptr;
	ASSERT_EQ(import("package one\nconfig a x\npackage two\nconfig b y\n\toption o 1\n", nullptr, &p, false), UCI_OK);
	ASSERT_NE(p, nullptr);
	EXPECT_STREQ(p->e.name, "two");
	EXPECT_FALSE(p->has_delta);
	EXPECT_EQ(p->path, nullptr);
	EXPECT_NE(uci_lookup_package(ctx, "one"), nullptr);
	EXPECT_EQ(exported(ctx, nullptr, true), "package one\n\nconfig a 'x'\n\npackage two\n\nconfig b 'y'\n\toption o '1'\n\n");
	EXPECT_EQ(exported(ctx, p, false), "\nconfig b 'y'\n\toption o '1'\n\n");
	EXPECT_EQ(uci_export(ctx, nullptr, p, true), UCI_ERR_INVAL);

	// A commit of an imported package needs overwrite and writes confdir/NAME.
	EXPECT_EQ(uci_commit(ctx, &p, false), UCI_ERR_INVAL);
	ASSERT_EQ(uci_commit(ctx, &p, true), UCI_OK);
	EXPECT_EQ(read_file(t.config("two")), "\nconfig b 'y'\n\toption o '1'\n\n");

	uci_package *q = nullptr;
	EXPECT_EQ(import("config a x\n", nullptr, &q, false), UCI_ERR_PARSE);
	char *msg = nullptr;
	uci_get_errorstr(ctx, &msg, nullptr);
	EXPECT_EQ(std::string(msg).rfind("Parse error (attempting to import a file without a package name) at line 1", 0), 0u)
		<< msg;
	free(msg);
	EXPECT_EQ(import("package one\n", nullptr, &q, false), UCI_ERR_DUPLICATE);
	EXPECT_EQ(import("config a x\n", "bad name", &q, true), UCI_ERR_INVAL);
	// With a name, package lines are checked and ignored.
	ASSERT_EQ(import("package zzz\nconfig a x\n", "three", &q, true), UCI_OK);
	EXPECT_STREQ(q->e.name, "three");
	EXPECT_EQ(uci_lookup_package(ctx, "zzz"), nullptr);

	// Merging into a loaded package records every change as a delta.
	write_file(t.config("m"), "config a n\n\toption x 1\n");
	uci_package *m = nullptr;
	ASSERT_EQ(uci_load(ctx, "m", &m), UCI_OK);
	ASSERT_EQ(import("config a n\n\toption y 2\nconfig c\n\toption z 3\n", "m", &m, true), UCI_OK);
	ASSERT_EQ(uci_save(ctx, m), UCI_OK);
	EXPECT_EQ(read_file(t.delta("m")), "m.n.y='2'\n+m.cfg02b608='c'\nm.cfg02b608.z='3'\n");
}

TEST(UciListConfigs, SortedFilteredOneAllocation)
{
	UciTree t;
	Context ctx(t);
	char **list = nullptr;
	EXPECT_EQ(uci_list_configs(ctx, &list), UCI_ERR_NOTFOUND);
	for (const char *name : {"wireless", "dhcp", "network", ".hidden", "with.dot", "firewall"})
		write_file(t.config(name), "");
	std::filesystem::create_directory(t.config("subdir"));
	ASSERT_EQ(symlink("subdir", t.config("linkdir").c_str()), 0);
	ASSERT_EQ(uci_list_configs(ctx, &list), UCI_OK);
	std::vector<std::string> names;
	for (char **c = list; *c; c++)
		names.push_back(*c);
	free(list);  // one allocation holds the array and the strings
	EXPECT_EQ(names, (std::vector<std::string>{"dhcp", "firewall", "network", "wireless"}));
	uci_set_confdir(ctx, (t.path + "/missing").c_str());
	EXPECT_EQ(uci_list_configs(ctx, &list), UCI_ERR_NOTFOUND);
}

}  // namespace
