// How a loaded package is held: the section index under many deletes, renames and additions, sections
// that share a name, edits of what the parser built, and export of a package larger than the export
// buffer.
#include "support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace ct;

namespace {

std::string export_text(uci_context *ctx, uci_package *p)
{
	char *buf = nullptr;
	size_t len = 0;
	FILE *f = open_memstream(&buf, &len);
	int rc = uci_export(ctx, f, p, false);
	fclose(f);
	std::string r(buf, len);
	free(buf);
	EXPECT_EQ(rc, UCI_OK);
	return r;
}

// The text a commit writes for sections given as (type, name or "" for anonymous, value of option v).
struct Model {
	struct Section {
		std::string type, name, value;
	};
	std::vector<Section> sections;

	std::string text() const
	{
		std::string r;
		for (auto &s : sections) {
			r += "\nconfig " + s.type;
			if (!s.name.empty())
				r += " '" + s.name + "'";
			r += "\n\toption v '" + s.value + "'\n";
		}
		return r + "\n";
	}
};

}  // namespace

// Thousands of named sections, then random deletes, renames, additions and value changes: every live
// name must still be found with its own value, every dead one not at all, and a commit must write
// exactly the model.
TEST(UciStorage, IndexFollowsEditsOfALargePackage)
{
	UciTree t;
	Model m;
	for (int i = 0; i < 3000; i++)
		m.sections.push_back({i % 3 ? "rule" : "zone", i % 5 == 4 ? "" : "s" + std::to_string(i), std::to_string(i)});
	write_file(t.config("big"), m.text());

	Context ctx(t);
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "big", &p), UCI_OK);
	ASSERT_EQ(export_text(ctx, p), m.text());

	std::mt19937 rng(4);
	std::vector<std::string> dead;
	int fresh = 0;
	auto named = [&]() -> Model::Section & {
		for (;;) {
			auto &s = m.sections[rng() % m.sections.size()];
			if (!s.name.empty())
				return s;
		}
	};
	for (int step = 0; step < 3000; step++) {
		switch (rng() % 4) {
		case 0: {  // delete a named section
			auto &s = named();
			Tuple tu(ctx, "big." + s.name);
			ASSERT_EQ(tu.rc, UCI_OK);
			ASSERT_EQ(uci_delete(ctx, &tu.ptr), UCI_OK) << s.name;
			dead.push_back(s.name);
			m.sections.erase(m.sections.begin() + (&s - m.sections.data()));
			break;
		}
		case 1: {  // rename one to a name never used before
			auto &s = named();
			std::string to = "r" + std::to_string(fresh++);
			Tuple tu(ctx, "big." + s.name + "=" + to);
			ASSERT_EQ(uci_rename(ctx, &tu.ptr), UCI_OK) << s.name;
			dead.push_back(s.name);
			s.name = to;
			break;
		}
		case 2: {  // add a named section at the end
			std::string name = "n" + std::to_string(fresh++);
			Tuple a(ctx, "big." + name + "=zone");
			ASSERT_EQ(uci_set(ctx, &a.ptr), UCI_OK);
			Tuple b(ctx, "big." + name + ".v=" + name);
			ASSERT_EQ(uci_set(ctx, &b.ptr), UCI_OK);
			m.sections.push_back({"zone", name, name});
			break;
		}
		default: {  // change a value (first a list, then a string again)
			auto &s = named();
			Tuple a(ctx, "big." + s.name + ".v=x");
			ASSERT_EQ(uci_add_list(ctx, &a.ptr), UCI_OK);
			s.value = "w" + std::to_string(step);
			Tuple b(ctx, "big." + s.name + ".v=" + s.value);
			ASSERT_EQ(uci_set(ctx, &b.ptr), UCI_OK);
		}
		}
	}

	for (auto &s : m.sections) {
		if (s.name.empty())
			continue;
		Tuple tu(ctx, "big." + s.name + ".v");
		ASSERT_EQ(tu.rc, UCI_OK);
		ASSERT_TRUE(tu.ptr.o) << s.name;
		EXPECT_STREQ(tu.ptr.s->e.name, s.name.c_str());
		EXPECT_STREQ(tu.ptr.o->v.string, s.value.c_str()) << s.name;
	}
	for (auto &name : dead) {
		Tuple tu(ctx, "big." + name);
		ASSERT_EQ(tu.rc, UCI_OK);
		EXPECT_EQ(tu.ptr.s, nullptr) << name;
	}

	ASSERT_EQ(uci_save(ctx, p), UCI_OK);
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	EXPECT_EQ(read_file(t.config("big")), m.text());
	EXPECT_EQ(read_file(t.delta("big")), "");
}

// Two sections can carry one name when a saved rename says so (the delta reader does not check): the
// first in file order is found, and once it is deleted the other one.
TEST(UciStorage, SharedNameResolvesInFileOrder)
{
	UciTree t;
	write_file(t.config("d"), "config x 'a'\n\toption k '1'\nconfig y 'b'\nconfig z 'c'\n\toption k '3'\n");
	write_file(t.delta("d"), "@d.c='a'\nd.b.k='2'\n");
	Context ctx(t);
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "d", &p), UCI_OK);

	Tuple first(ctx, "d.a.k");
	ASSERT_TRUE(first.ptr.o);
	EXPECT_STREQ(first.ptr.s->type, "x");
	EXPECT_STREQ(first.ptr.o->v.string, "1");
	Tuple b(ctx, "d.b.k");
	ASSERT_TRUE(b.ptr.o);
	EXPECT_STREQ(b.ptr.o->v.string, "2");

	Tuple del(ctx, "d.a");
	ASSERT_EQ(uci_delete(ctx, &del.ptr), UCI_OK);
	Tuple second(ctx, "d.a.k");
	ASSERT_TRUE(second.ptr.o);
	EXPECT_STREQ(second.ptr.s->type, "z");
	EXPECT_STREQ(second.ptr.o->v.string, "3");

	Tuple again(ctx, "d.a");
	ASSERT_EQ(uci_delete(ctx, &again.ptr), UCI_OK);
	Tuple none(ctx, "d.a");
	EXPECT_EQ(none.ptr.s, nullptr);
	EXPECT_EQ(export_text(ctx, p), "\nconfig y 'b'\n\toption k '2'\n\n");
}

// What the parser built is changed, converted and removed piece by piece; each read back must show the
// latest state (a freed or stale string would show up here, and under the sanitizers).
TEST(UciStorage, EditsOfParsedOptionsAndLists)
{
	UciTree t;
	write_file(t.config("e"), "config s 'n'\n\toption o 'one'\n\tlist l 'a'\n\tlist l 'b'\n\tlist l 'a'\n\toption gone 'x'\n");
	Context ctx(t);
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "e", &p), UCI_OK);

	Tuple dl(ctx, "e.n.l=a");
	ASSERT_EQ(uci_del_list(ctx, &dl.ptr), UCI_OK);
	Tuple idx(ctx, "e.n.l=0");
	ASSERT_EQ(uci_delete(ctx, &idx.ptr), UCI_OK);  // "b", the only item left
	Tuple al(ctx, "e.n.o=two");
	ASSERT_EQ(uci_add_list(ctx, &al.ptr), UCI_OK);  // "one" becomes a list
	Tuple st(ctx, "e.n.l=back");
	ASSERT_EQ(uci_set(ctx, &st.ptr), UCI_OK);
	Tuple rn(ctx, "e.n.o=renamed");
	ASSERT_EQ(uci_rename(ctx, &rn.ptr), UCI_OK);
	Tuple go(ctx, "e.n.gone");
	ASSERT_EQ(uci_delete(ctx, &go.ptr), UCI_OK);
	Tuple sn(ctx, "e.n=other");
	ASSERT_EQ(uci_rename(ctx, &sn.ptr), UCI_OK);
	Tuple ty(ctx, "e.other=t2");
	ASSERT_EQ(uci_set(ctx, &ty.ptr), UCI_OK);

	const char *edited = "\nconfig t2 'other'\n\tlist renamed 'one'\n\tlist renamed 'two'\n\toption l 'back'\n\n";
	EXPECT_EQ(export_text(ctx, p), edited);
	// The saved changes replayed on a fresh parse give the same package.
	ASSERT_EQ(uci_save(ctx, p), UCI_OK);
	ASSERT_EQ(uci_unload(ctx, p), UCI_OK);
	ASSERT_EQ(uci_load(ctx, "e", &p), UCI_OK);
	EXPECT_EQ(export_text(ctx, p), edited);
}

// An export far larger than the export buffer comes out whole and in order (through a commit too), and a
// stream that refuses the data gives an I/O error.
TEST(UciStorage, LargeExportIsWhole)
{
	UciTree t;
	std::string text;
	for (int i = 0; i < 4000; i++)
		text += "\nconfig redirect 'fwd" + std::to_string(i) + "'\n\toption name 'it'\\''s " + std::to_string(i) +
			"'\n\tlist port '" + std::to_string(i) + "'\n";
	text += "\n";
	ASSERT_GT(text.size(), 4u * 65536);
	write_file(t.config("fw"), text);
	Context ctx(t);
	uci_package *p = nullptr;
	ASSERT_EQ(uci_load(ctx, "fw", &p), UCI_OK);
	EXPECT_EQ(export_text(ctx, p), text);

	Tuple tu(ctx, "fw.fwd3999.port=last");
	ASSERT_EQ(uci_add_list(ctx, &tu.ptr), UCI_OK);
	ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
	std::string expect = text.substr(0, text.size() - 1) + "\tlist port 'last'\n\n";
	EXPECT_EQ(read_file(t.config("fw")), expect);

	FILE *full = fopen("/dev/full", "w");
	ASSERT_TRUE(full);
	EXPECT_EQ(uci_export(ctx, full, p, true), UCI_ERR_IO);
	fclose(full);
}
