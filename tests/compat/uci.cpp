// libuci where the tool does not show it: commits cut off at each step and finished by the next one (the journal
// a commit writes before its rename), and the section index under thousands of edits.
#include "support.h"

#include <uci.h>

#include <functional>
#include <random>
#include <sys/stat.h>

using namespace ct;

namespace {

struct Tree : TempDir {	// conf/ and save/ in a fresh folder, and a context on them
	std::string conf = path + "/conf", save = path + "/save";
	Tree() { std::filesystem::create_directory(conf), std::filesystem::create_directory(save); }
	uci_context *context() const
	{
		uci_context *ctx = uci_alloc_context();
		uci_set_confdir(ctx, conf.c_str());
		uci_set_savedir(ctx, save.c_str());
		uci_set_conf2dir(ctx, nullptr);
		return ctx;
	}
};

struct Tuple {	// a lookup whose text lives as long as the ptr
	Tuple(uci_context *ctx, const std::string &text) : buf(text) { rc = uci_lookup_ptr(ctx, &ptr, buf.data(), true); }
	std::string buf;
	uci_ptr ptr{};
	int rc;
};

std::string items(uci_context *ctx, const std::string &option)	// the items of a list option, "-" when it is missing
{
	Tuple l(ctx, option);
	if (l.rc || !l.ptr.o)
		return "-";
	std::string r;
	uci_element *e;
	uci_foreach_element(&l.ptr.o->v.list, e)
		r += std::string(r.empty() ? "" : " ") + e->name;
	return r;
}

std::string exported(uci_context *ctx, uci_package *p)
{
	char *buf = nullptr;
	size_t size = 0;
	FILE *f = open_memstream(&buf, &size);
	EXPECT_EQ(uci_export(ctx, f, p, false), UCI_OK);
	fclose(f);
	std::string r(buf, size);
	free(buf);
	return r;
}

// The journal line: the produced file's inode, size and modification time, the number of delta bytes folded in,
// the temporary file, and the FNV-1a (64 bits) of those bytes in hex.
std::string journal(const std::string &config, const std::string &folded, const std::string &temp)
{
	struct stat st{};
	EXPECT_EQ(stat(config.c_str(), &st), 0);
	uint64_t h = 14695981039346656037ULL;
	for (unsigned char c : folded)
		h = (h ^ c) * 1099511628211ULL;
	char fp[17];
	snprintf(fp, sizeof fp, "%016llx", static_cast<unsigned long long>(h));
	return std::to_string(st.st_ino) + " " + std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) + " " +
	       std::to_string(st.st_mtim.tv_nsec) + " " + std::to_string(folded.size()) + " " + temp + " " + fp + "\n";
}

// Each case starts from a config holding item 1, a delta file and the journal a cut-off commit left: a load sees
// items 1 and 2, once each, and the next commit writes exactly that and cleans up.
TEST(UciCommit, InterruptedCommitsAreFinished)
{
	const std::string one = "|t.n.l='1'\n", two = "|t.n.l='2'\n";
	const struct {
		const char *what;
		std::string delta;
		std::function<std::string(const Tree &)> journal;
	} cases[] = {
		{"cut between the rename and the emptying of the delta file: 1 is not applied twice", one + two,
		 [&](const Tree &t) { return journal(t.conf + "/t", one, t.conf + "/.t.uci-gone"); }},
		{"cut before the rename: the journal describes another file", two,
		 [](const Tree &t) { return "1 2 3 4 11 " + t.conf + "/.t.uci-left 0123456789abcdef\n"; }},
		{"cut after the emptying: 2, saved since and as long as the folded line, is kept", two,
		 [&](const Tree &t) { return journal(t.conf + "/t", one, t.conf + "/.t.uci-gone"); }},
		{"cut before the rename, the commit in force as the second line", one + two, [&](const Tree &t) {
			 return "1 2 3 4 22 " + t.conf + "/.t.uci-left 0123456789abcdef\n" + journal(t.conf + "/t", one, t.conf + "/.t.uci-gone");
		 }},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		Tree t;
		write_file(t.conf + "/t", "\nconfig a 'n'\n\tlist l '1'\n\n");
		write_file(t.save + "/t", c.delta);
		write_file(t.save + "/.t.uci-commit", c.journal(t));
		if (c.journal(t).find(".t.uci-left") != std::string::npos)
			write_file(t.conf + "/.t.uci-left", "partial");	// the journal's temporary file, not yet renamed
		write_file(t.conf + "/.t.uci-Ab12Cd", "stale");	// a temporary file a commit left without a journal
		uci_context *ctx = t.context();
		EXPECT_EQ(items(ctx, "t.n.l"), "1 2");
		uci_package *p = uci_lookup_package(ctx, "t");
		ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
		uci_free_context(ctx);
		EXPECT_EQ(read_file(t.conf + "/t"), "\nconfig a 'n'\n\tlist l '1'\n\tlist l '2'\n\n");
		EXPECT_EQ(read_file(t.save + "/t"), "");
		EXPECT_FALSE(std::filesystem::exists(t.save + "/.t.uci-commit"));
		EXPECT_FALSE(std::filesystem::exists(t.conf + "/.t.uci-left") || std::filesystem::exists(t.conf + "/.t.uci-Ab12Cd"));
	}
}

// 3,000 sections, then 3,000 random deletes, renames, additions and value changes: every live name is found with
// its value, every dead one not at all, and the commit writes exactly the model.
TEST(UciStorage, IndexFollowsEditsOfALargePackage)
{
	struct Section {
		std::string type, name, value;
	};
	std::vector<Section> m;
	auto text = [&] {
		std::string r;
		for (auto &s : m)
			r += "\nconfig " + s.type + (s.name.empty() ? "" : " '" + s.name + "'") + "\n\toption v '" + s.value + "'\n";
		return r + "\n";
	};
	for (int i = 0; i < 3000; i++)
		m.push_back({i % 3 ? "rule" : "zone", i % 5 == 4 ? "" : "s" + std::to_string(i), std::to_string(i)});
	Tree t;
	write_file(t.conf + "/big", text());
	uci_context *ctx = t.context();
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "big", &p), UCI_OK);
	std::mt19937 rng(4);
	std::vector<std::string> dead;
	int fresh = 0;
	auto edit = [&](const std::string &tuple, int (*op)(uci_context *, uci_ptr *)) {
		Tuple tu(ctx, "big." + tuple);
		ASSERT_EQ(tu.rc, UCI_OK) << tuple;
		ASSERT_EQ(op(ctx, &tu.ptr), UCI_OK) << tuple;
	};
	for (int step = 0; step < 3000; step++) {
		Section *s = &m[rng() % m.size()];
		while (s->name.empty())
			s = &m[rng() % m.size()];
		switch (rng() % 4) {
		case 0:
			edit(s->name, uci_delete);
			dead.push_back(s->name);
			m.erase(m.begin() + (s - m.data()));
			break;
		case 1:
			dead.push_back(s->name);
			edit(s->name + "=r" + std::to_string(fresh), uci_rename);
			s->name = "r" + std::to_string(fresh++);
			break;
		case 2:
			s = &m.emplace_back(Section{"zone", "n" + std::to_string(fresh++), ""});
			edit(s->name + "=zone", uci_set);
			s->value = s->name;
			edit(s->name + ".v=" + s->value, uci_set);
			break;
		default:	// a list first, then a string again
			edit(s->name + ".v=x", uci_add_list);
			s->value = "w" + std::to_string(step);
			edit(s->name + ".v=" + s->value, uci_set);
		}
	}
	for (auto &s : m) {
		if (s.name.empty())
			continue;
		Tuple tu(ctx, "big." + s.name + ".v");
		EXPECT_TRUE(tu.ptr.o && s.value == tu.ptr.o->v.string) << s.name;
	}
	for (auto &name : dead)
		EXPECT_EQ(Tuple(ctx, "big." + name).ptr.s, nullptr) << name;
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	EXPECT_EQ(read_file(t.conf + "/big"), text());
	EXPECT_EQ(exported(ctx, p), text());

	// Two sections may share a name (a saved rename says so; the reader does not check): the first in file order
	// is found, and once it is deleted the other one.
	write_file(t.conf + "/d", "config x 'a'\n\toption k '1'\nconfig y 'b'\nconfig z 'c'\n\toption k '3'\n");
	write_file(t.save + "/d", "@d.c='a'\n");
	Tuple first(ctx, "d.a");
	ASSERT_TRUE(first.ptr.s);
	EXPECT_STREQ(first.ptr.s->type, "x");
	ASSERT_EQ(uci_delete(ctx, &first.ptr), UCI_OK);
	Tuple second(ctx, "d.a");
	ASSERT_TRUE(second.ptr.s);
	EXPECT_STREQ(second.ptr.s->type, "z");
	uci_free_context(ctx);
}

// What daemons use on a loaded section: its options by name and type into a table, a hash of them (to see that a
// section changed), the next element of a name; and the error text of the last call.
TEST(UciHelpers, ParseSectionHashAndErrors)
{
	Tree t;
	write_file(t.conf + "/t", "config i lan\n\toption ipaddr 192.168.1.1\n\tlist dns 1.1.1.1\n\tlist dns 8.8.8.8\n");
	uci_context *ctx = t.context();
	Tuple lan(ctx, "t.lan");
	const uci_parse_option opts[] = {{"ipaddr", UCI_TYPE_STRING}, {"dns", UCI_TYPE_STRING}, {"dns", UCI_TYPE_LIST}};
	uci_option *tb[3];
	uci_parse_section(lan.ptr.s, opts, 3, tb);
	EXPECT_TRUE(tb[0] && !tb[1] && tb[2]) << "a list does not fill a string slot";
	EXPECT_EQ(uci_hash_options(tb, 3), 0x9a6aab59u);
	uci_element *e;
	EXPECT_EQ(uci_lookup_next(ctx, &e, &lan.ptr.s->options, "dns"), UCI_OK);
	EXPECT_EQ(uci_lookup_next(ctx, &e, &lan.ptr.s->options, "zz"), UCI_ERR_NOTFOUND);
	char *text = nullptr;
	uci_get_errorstr(ctx, &text, "uci");
	EXPECT_STREQ(text, "uci: Entry not found");
	free(text);
	EXPECT_EQ(uci_set_backend(ctx, "file") | (uci_set_backend(ctx, "db") ^ UCI_ERR_NOTFOUND), 0);
	EXPECT_TRUE(uci_validate_text("tab\tcr\rlf\n") && !uci_validate_text("bell\a"));
	uci_free_context(ctx);
}

} // namespace
