// libuci API: contexts, errors, tuples and lookups, the edit functions with the delta lines they save,
// anonymous names and the parser's error reports.
#include <gtest/gtest.h>

#include "support.h"

#include <cstring>

using namespace ct;

namespace {

std::vector<std::string> delta_path(uci_context *ctx)
{
	std::vector<std::string> r;
	uci_element *e;
	uci_foreach_element(&ctx->delta_path, e)
		r.push_back(e->name);
	return r;
}

std::string error_string(uci_context *ctx, const char *prefix)
{
	char *s = nullptr;
	uci_get_errorstr(ctx, &s, prefix);
	std::string r = s ? s : "(null)";
	free(s);
	return r;
}

TEST(UciContext, DefaultsAndDeltaPathOrder)
{
	uci_context *ctx = uci_alloc_context();
	ASSERT_NE(ctx, nullptr);
	EXPECT_EQ(ctx->flags, UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
	EXPECT_STREQ(ctx->confdir, "/etc/config");
	EXPECT_STREQ(ctx->savedir, "/tmp/.uci");
	EXPECT_STREQ(ctx->conf2dir, "/var/run/uci");
	EXPECT_EQ(delta_path(ctx), std::vector<std::string>{"/tmp/.uci"});

	// The old save directory stays searched; an added path goes just before the last entry.
	EXPECT_EQ(uci_set_savedir(ctx, "/x"), UCI_OK);
	EXPECT_EQ(uci_add_delta_path(ctx, "/y"), UCI_OK);
	EXPECT_EQ(delta_path(ctx), (std::vector<std::string>{"/tmp/.uci", "/y", "/x"}));
	EXPECT_EQ(uci_add_delta_path(ctx, "/y"), UCI_ERR_DUPLICATE);
	EXPECT_EQ(ctx->err, UCI_ERR_DUPLICATE);
	EXPECT_EQ(delta_path(ctx), (std::vector<std::string>{"/tmp/.uci", "/y", "/x"}));
	uci_free_context(ctx);

	ctx = uci_alloc_context();
	uci_add_delta_path(ctx, "/y");
	uci_set_savedir(ctx, "/x");
	EXPECT_EQ(delta_path(ctx), (std::vector<std::string>{"/y", "/tmp/.uci", "/x"}));
	EXPECT_STREQ(ctx->savedir, "/x");
	EXPECT_EQ(uci_set_confdir(ctx, nullptr), UCI_ERR_INVAL);
	EXPECT_EQ(uci_set_backend(ctx, "file"), UCI_OK);
	EXPECT_EQ(uci_set_backend(ctx, "db"), UCI_ERR_NOTFOUND);
	EXPECT_EQ(uci_set_conf2dir(ctx, ""), UCI_OK);
	EXPECT_EQ(ctx->conf2dir, nullptr);
	uci_free_context(ctx);
	EXPECT_EQ(uci_set_confdir(nullptr, "/x"), UCI_ERR_INVAL);
}

TEST(UciContext, ErrorTexts)
{
	UciTree t;
	Context ctx(t);
	const char *texts[] = {"Success", "Out of memory", "Invalid argument", "Entry not found", "I/O error",
		"Parse error", "Duplicate entry", "Unknown error", "Unknown error"};
	for (int code = 0; code <= UCI_ERR_LAST; code++) {
		ctx->err = code;
		EXPECT_EQ(error_string(ctx, "uci"), std::string("uci: ") + texts[code]) << code;
	}
	ctx->err = 42;
	EXPECT_EQ(error_string(ctx, nullptr), "Unknown error");

	// A tuple error has no parse detail; a file error has one, and the next call clears it.
	Tuple bad(ctx, "t.n.a-b");
	EXPECT_EQ(bad.rc, UCI_ERR_PARSE);
	EXPECT_EQ(error_string(ctx, "uci"), "uci: Parse error");
	write_file(t.config("t"), "config a\n\toption a-b c\n");
	EXPECT_EQ(uci_load(ctx, "t", nullptr), UCI_ERR_PARSE);
	EXPECT_EQ(error_string(ctx, "uci"), "uci: Parse error (invalid character in name field) at line 2, byte 12");
	EXPECT_EQ(uci_load(ctx, "missing", nullptr), UCI_ERR_NOTFOUND);
	EXPECT_EQ(error_string(ctx, "uci"), "uci: Entry not found");
}

// Parse errors: reason, line and byte, for files and for the non-strict mode.
TEST(UciParser, ErrorReasonsAndPositions)
{
	struct Row {
		const char *content;
		const char *message;
	} rows[] = {
		{"config a b c\n", "Parse error (too many arguments) at line 1, byte 13"},
		{"config 'a b'\n", "Parse error (invalid character in type field) at line 1, byte 13"},
		{"config a\n\toption a-b c\n", "Parse error (invalid character in name field) at line 2, byte 12"},
		{"config \n", "Parse error (insufficient arguments) at line 1, byte 8"},
		{"option a b", "Parse error (option/list command found before the first section) at line 0, byte 0"},
		{"config a\n\toption a 'unterminated\n", "Parse error (EOF with unterminated ') at line 2, byte 24"},
		{"config a\n\toption a \"open\n", "Parse error (EOF with unterminated \") at line 2, byte 16"},
		{"config a\nbogus x\n", "Parse error (invalid command) at line 2, byte 0"},
		{"config a\n\tbogus x\n", "Parse error (invalid command) at line 2, byte 1"},
		{"config\n", "Parse error (invalid command) at line 1, byte 0"},
		{"package\n", "Parse error (invalid command) at line 1, byte 0"},
		{"package a!b\n", "Parse error (invalid character in name field) at line 1, byte 12"},
		{"config a x\nconfig b x\n", "Parse error (section of different type overwrites prior section with same name) at line 2, byte 11"},
		{"config a b-c\n", "Parse error (invalid character in name field) at line 1, byte 13"},
		{"config a\n\tlist\n", "Parse error (invalid command) at line 2, byte 1"},
		{"config a\n\tlist \n", "Parse error (insufficient arguments) at line 2, byte 7"},
	};
	for (const Row &row : rows) {
		UciTree t;
		Context ctx(t);
		write_file(t.config("t"), row.content);
		uci_package *p = reinterpret_cast<uci_package *>(1);
		EXPECT_EQ(uci_load(ctx, "t", &p), UCI_ERR_PARSE) << row.content;
		EXPECT_EQ(p, nullptr);
		EXPECT_EQ(error_string(ctx, nullptr), row.message) << row.content;
		EXPECT_TRUE(uci_list_empty(&ctx->root));
	}
}

TEST(UciParser, NonStrictSkipsBadLines)
{
	UciTree t;
	Context ctx(t);
	ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_STRICT);
	write_file(t.config("t"), "config a x extra\n\toption ok 1\n\tbogus\n\toption a-b 2\nconfig b x\n\toption z 3\n");
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "t", &p), UCI_OK);
	Tuple x(ctx, "t.x");
	ASSERT_TRUE(x.ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE);
	EXPECT_STREQ(x.ptr.s->type, "b");  // no type-conflict check when lenient
	EXPECT_STREQ(uci_lookup_option_string(ctx, x.ptr.s, "ok"), "1");
	EXPECT_STREQ(uci_lookup_option_string(ctx, x.ptr.s, "z"), "3");
	EXPECT_EQ(uci_lookup_option(ctx, x.ptr.s, "a-b"), nullptr);
}

// The probe file of the lookup table: anonymous a (x=1), anonymous a (x=2), anonymous b, a named n (x=3).
class UciLookup : public ::testing::Test {
protected:
	void SetUp() override
	{
		write_file(t.config("t"), "config a\n\toption x 1\nconfig a\n\toption x 2\nconfig b\nconfig a n\n\toption x 3\n");
	}
	UciTree t;
	Context ctx{t};
};

TEST_F(UciLookup, TupleTable)
{
	struct Row {
		const char *tuple;
		int rc, flags;
		const char *s, *o;    // names found, nullptr when not
		uci_type last;        // UCI_TYPE_UNSPEC: last is NULL
		const char *section;  // ptr->section afterwards (nullptr: not checked)
	} rows[] = {
		{"t", 0, 3, nullptr, nullptr, UCI_TYPE_PACKAGE, nullptr},
		{"t.n.x", 0, 3, "n", "x", UCI_TYPE_OPTION, "n"},
		{"t.n.zz", 0, 1, "n", nullptr, UCI_TYPE_SECTION, "n"},
		{"t.zz.x", 0, 1, nullptr, nullptr, UCI_TYPE_PACKAGE, "zz"},
		{"t.@a[1].x", 0, 7, "cfg02b606", "x", UCI_TYPE_OPTION, "cfg02b606"},
		{"t.@a[9]", 0, 5, nullptr, nullptr, UCI_TYPE_PACKAGE, "@a[9]"},
		{"t.@a[-1]", 0, 7, "n", nullptr, UCI_TYPE_SECTION, "n"},
		{"t.@a[-3]", 0, 7, "cfg01b606", nullptr, UCI_TYPE_SECTION, "cfg01b606"},
		{"t.@a[-4]", 0, 5, nullptr, nullptr, UCI_TYPE_PACKAGE, nullptr},
		{"t.@[2]", 0, 7, "cfg03b607", nullptr, UCI_TYPE_SECTION, "cfg03b607"},
		{"t.@b[0]", 0, 7, "cfg03b607", nullptr, UCI_TYPE_SECTION, nullptr},
		{"t.@a[ 1]", 0, 7, "cfg02b606", nullptr, UCI_TYPE_SECTION, nullptr},
		{"t.@a[+1]", 0, 7, "cfg02b606", nullptr, UCI_TYPE_SECTION, nullptr},
		{"t.@a[01]", 0, 7, "cfg02b606", nullptr, UCI_TYPE_SECTION, nullptr},
		{"t.n.x=5", 0, 3, "n", "x", UCI_TYPE_OPTION, nullptr},
		{"nosuch.a.b", 3, 1, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.a-b", 2, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.@a", 2, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.@a[", 2, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.@a[0]x", 2, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.@a[1 ]", 2, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.@a[x]", 2, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t..x", 2, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.n.x.y", 5, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.n.a-b", 5, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.n.", 5, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"t.n.x=a\x01", 5, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
		{"a b.n", 5, 0, nullptr, nullptr, UCI_TYPE_UNSPEC, nullptr},
	};
	for (const Row &row : rows) {
		Tuple tp(ctx, row.tuple);
		const uci_ptr &p = tp.ptr;
		SCOPED_TRACE(row.tuple);
		EXPECT_EQ(tp.rc, row.rc);
		EXPECT_EQ(ctx->err, row.rc);
		EXPECT_EQ(static_cast<int>(p.flags), row.flags);
		EXPECT_EQ(p.s ? std::string(p.s->e.name) : "-", row.s ? row.s : "-");
		EXPECT_EQ(p.o ? std::string(p.o->e.name) : "-", row.o ? row.o : "-");
		if (row.last == UCI_TYPE_UNSPEC) {
			EXPECT_EQ(p.last, nullptr);
		} else if (p.last) {
			EXPECT_EQ(p.last->type, row.last);
		} else {
			ADD_FAILURE() << "last is NULL";
		}
		if (row.section) {
			EXPECT_STREQ(p.section, row.section);
		}
		if (row.rc == UCI_ERR_PARSE || row.flags == 0) {
			EXPECT_EQ(p.package, nullptr);
		}
	}
}

TEST_F(UciLookup, SplittingAndNotExtended)
{
	Tuple v(ctx, "t.n.x=a=b.c");
	EXPECT_EQ(v.rc, UCI_OK);
	EXPECT_STREQ(v.ptr.value, "a=b.c");
	EXPECT_EQ(v.ptr.target, UCI_TYPE_OPTION);
	Tuple s(ctx, "t.n=");
	EXPECT_STREQ(s.ptr.value, "");
	EXPECT_EQ(s.ptr.target, UCI_TYPE_SECTION);

	Tuple ne(ctx, "t.@a[1].x", false);
	EXPECT_EQ(ne.rc, UCI_ERR_INVAL);
	EXPECT_EQ(static_cast<int>(ne.ptr.flags), 5);
	ASSERT_NE(ne.ptr.p, nullptr);
	EXPECT_EQ(ne.ptr.s, nullptr);

	// uci_parse_ptr splits without loading anything.
	uci_ptr p{};
	char text[] = "nosuch.s.o=v";
	EXPECT_EQ(uci_parse_ptr(ctx, &p, text), UCI_OK);
	EXPECT_STREQ(p.package, "nosuch");
	EXPECT_STREQ(p.value, "v");
	EXPECT_EQ(p.p, nullptr);

	// Without a string, "@..." in ptr->section is a literal name.
	uci_ptr q{};
	q.package = "t";
	q.section = "@a[0]";
	EXPECT_EQ(uci_lookup_ptr(ctx, &q, nullptr, true), UCI_OK);
	EXPECT_EQ(q.s, nullptr);
	EXPECT_FALSE(q.flags & uci_ptr::UCI_LOOKUP_COMPLETE);
}

TEST_F(UciLookup, HelpersAndAutoLoad)
{
	// The lookup loads the package once; a later uci_load of the same name is a duplicate.
	Tuple n(ctx, "t.n");
	ASSERT_EQ(n.rc, UCI_OK);
	EXPECT_EQ(uci_load(ctx, "t", nullptr), UCI_ERR_DUPLICATE);
	EXPECT_EQ(uci_lookup_package(ctx, "t"), n.ptr.p);
	EXPECT_EQ(uci_lookup_package(ctx, "other"), nullptr);
	EXPECT_EQ(ctx->err, UCI_ERR_NOTFOUND);
	EXPECT_EQ(uci_lookup_section(ctx, n.ptr.p, "n"), n.ptr.s);
	EXPECT_EQ(uci_lookup_section(ctx, n.ptr.p, "@a[0]"), nullptr);
	EXPECT_STREQ(uci_lookup_option_string(ctx, n.ptr.s, "x"), "3");

	char list_tuple[] = "t.n.l=v";
	uci_ptr l{};
	ASSERT_EQ(uci_lookup_ptr(ctx, &l, list_tuple, true), UCI_OK);
	ASSERT_EQ(uci_add_list(ctx, &l), UCI_OK);
	EXPECT_NE(uci_lookup_option(ctx, n.ptr.s, "l"), nullptr);
	EXPECT_EQ(uci_lookup_option_string(ctx, n.ptr.s, "l"), nullptr);

	uci_element *e = nullptr;
	EXPECT_EQ(uci_lookup_next(ctx, &e, &n.ptr.p->sections, "zz"), UCI_ERR_NOTFOUND);
	EXPECT_EQ(e, nullptr);
}

// A daemon may fill the strings of a ptr and call uci_set without a lookup. (What each edit does and the delta
// line it saves: data/uci/golden/edits.)
TEST(UciEdit, SetWithoutLookup)
{
	UciTree t;
	Context ctx(t);
	write_file(t.config("t"), "config a n\n\tlist l a\n");
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "t", &p), UCI_OK);
	uci_ptr ptr{};
	ptr.package = "t";
	ptr.section = "n";
	ptr.option = "x";
	ptr.value = "7";
	ASSERT_EQ(uci_set(ctx, &ptr), UCI_OK);
	ASSERT_NE(ptr.o, nullptr);
	EXPECT_STREQ(ptr.o->v.string, "7");
	uci_ptr sec{};
	sec.p = p;
	sec.section = "iptv";
	sec.value = "interface";
	ASSERT_EQ(uci_set(ctx, &sec), UCI_OK);
	ASSERT_NE(sec.s, nullptr);
	ASSERT_EQ(uci_save(ctx, p), UCI_OK);
	EXPECT_EQ(read_file(t.delta("t")), "t.n.x='7'\nt.iptv='interface'\n");
	Tuple bad(ctx, "t.n.l=abc");
	EXPECT_EQ(uci_delete(ctx, &bad.ptr), 1);	// not a number: 1, and no error code
	EXPECT_EQ(ctx->err, 0);
	EXPECT_EQ(uci_reorder_section(ctx, nullptr, 0), UCI_ERR_INVAL);
}

TEST(UciNames, AnonymousNames)
{
	UciTree t;
	Context ctx(t);
	write_file(t.config("t"), "");
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "t", &p), UCI_OK);
	const char *types[] = {"alias", "interface", "rule", "zone", "host", "a"};
	const char *names[] = {"cfg014d8f", "cfg026d96", "cfg0392bd", "cfg04dc81", "cfg05fe63", "cfg06b606"};
	for (int i = 0; i < 6; i++) {
		uci_section *s = nullptr;
		ASSERT_EQ(uci_add_section(ctx, p, types[i], &s), UCI_OK);
		EXPECT_STREQ(s->e.name, names[i]);
		EXPECT_TRUE(s->anonymous);
	}
	// Named and deleted sections still count.
	Tuple named(ctx, "t.x=alias");
	ASSERT_EQ(uci_set(ctx, &named.ptr), UCI_OK);
	Tuple gone(ctx, "t.cfg014d8f");
	ASSERT_EQ(uci_delete(ctx, &gone.ptr), UCI_OK);
	uci_section *s = nullptr;
	ASSERT_EQ(uci_add_section(ctx, p, "alias", &s), UCI_OK);
	EXPECT_STREQ(s->e.name, "cfg084d8f");
	for (int i = 0; i < 300; i++)
		ASSERT_EQ(uci_add_section(ctx, p, "a", &s), UCI_OK);
	EXPECT_STREQ(s->e.name, "cfg134b606");  // past 255 the counter takes more digits

	EXPECT_EQ(uci_add_section(ctx, p, "bad type", &s), UCI_ERR_INVAL);
	EXPECT_EQ(uci_add_section(ctx, p, "", &s), UCI_ERR_INVAL);
	EXPECT_EQ(uci_add_section(ctx, nullptr, "a", &s), UCI_ERR_INVAL);

	// The names the file parser gives mix with named sections the same way.
	write_file(t.config("u"), "config interface lan\nconfig alias\nconfig alias\nconfig zone\n");
	uci_package *u = nullptr;
	ASSERT_EQ(uci_load(ctx, "u", &u), UCI_OK);
	std::vector<std::string> got;
	uci_element *e;
	uci_foreach_element(&u->sections, e)
		got.push_back(e->name);
	EXPECT_EQ(got, (std::vector<std::string>{"lan", "cfg024d8f", "cfg034d8f", "cfg04dc81"}));
}

TEST(UciHelpers, HashAndParseSection)
{
	UciTree t;
	Context ctx(t);
	write_file(t.config("t"), "config i lan\n\toption ipaddr 192.168.1.1\n\tlist dns 1.1.1.1\n\tlist dns 8.8.8.8\n");
	Tuple lan(ctx, "t.lan");
	ASSERT_EQ(lan.rc, UCI_OK);
	const uci_parse_option opts[] = {{"ipaddr", UCI_TYPE_STRING}, {"dns", UCI_TYPE_LIST}};
	uci_option *tb[2];
	uci_parse_section(lan.ptr.s, opts, 2, tb);
	ASSERT_NE(tb[0], nullptr);
	ASSERT_NE(tb[1], nullptr);
	EXPECT_EQ(uci_hash_options(tb, 2), 0x9a6aab59u);

	// A list does not fill a string slot.
	const uci_parse_option wrong[] = {{"dns", UCI_TYPE_STRING}, {"ipaddr", UCI_TYPE_STRING}};
	uci_parse_section(lan.ptr.s, wrong, 2, tb);
	EXPECT_EQ(tb[0], nullptr);
	EXPECT_NE(tb[1], nullptr);

	EXPECT_TRUE(uci_validate_text("tab\tcr\rlf\n"));
	EXPECT_FALSE(uci_validate_text("bell\a"));
	EXPECT_STREQ(std::string(uci_command_char, 7).c_str(), "+-");
	EXPECT_EQ(std::string(uci_command_char + 3, 4), "@^|~");
}

}  // namespace
