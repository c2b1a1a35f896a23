// The uci tool: exit codes and messages, batch mode, import, and the options that change where files go.
#include <gtest/gtest.h>

#include "uci_testutil.h"

using namespace ucitest;

namespace {

const std::string usage_line = "Usage: uci [<options>] <command> [<arguments>]\n";

class UciCli : public ::testing::Test {
protected:
	void SetUp() override
	{
		write_file(t.config("t"), "config a n\n\toption x 1\n\tlist l 'a b'\n\tlist l ''\n\tlist l c\nconfig a\n");
		write_file(t.config("broken"), "config a b c\n");
	}
	TempTree t;
};

TEST_F(UciCli, ExitCodesAndMessages)
{
	struct Row {
		std::vector<std::string> args;
		int status;
		std::string out, err;
	} rows[] = {
		// a missing package
		{{"get", "nosuch.n.x"}, 1, "", "uci: Entry not found\n"},
		{{"show", "nosuch"}, 1, "", "uci: Entry not found\n"},
		{{"set", "nosuch.n.x=1"}, 1, "", "uci: Entry not found\n"},
		{{"delete", "nosuch.n"}, 1, "", "uci: Entry not found\n"},
		{{"rename", "nosuch.n=m"}, 1, "", "uci: Entry not found\n"},
		{{"revert", "nosuch"}, 1, "", "uci: Entry not found\n"},
		{{"reorder", "nosuch.n=1"}, 1, "", "uci: Entry not found\n"},
		{{"add_list", "nosuch.n.l=1"}, 1, "", "uci: Entry not found\n"},
		{{"del_list", "nosuch.n.l=1"}, 1, "", "uci: Entry not found\n"},
		{{"changes", "nosuch"}, 1, "", "uci: Entry not found\n"},
		{{"export", "nosuch"}, 1, "", "uci: Entry not found\n"},
		{{"commit", "nosuch"}, 1, "", "uci: Entry not found\n"},
		// missing sections and options
		{{"get", "t.zz"}, 1, "", "uci: Entry not found\n"},
		{{"get", "t.n.zz"}, 1, "", "uci: Entry not found\n"},
		{{"show", "t.n.zz"}, 1, "", "uci: Entry not found\n"},
		{{"delete", "t.zz"}, 1, "", "uci: Entry not found\n"},
		{{"rename", "t.n.zz=k"}, 1, "", "uci: Entry not found\n"},
		{{"reorder", "t.zz=1"}, 1, "", "uci: Entry not found\n"},
		{{"reorder", "t.n"}, 1, "", "uci: Entry not found\n"},
		// invalid arguments
		{{"set", "t.zz.x=1"}, 1, "", "uci: Invalid argument\n"},
		{{"add_list", "t.zz.l=1"}, 1, "", "uci: Invalid argument\n"},
		{{"del_list", "t.zz.l=1"}, 1, "", "uci: Invalid argument\n"},
		{{"set", "t.n.x"}, 1, "", "uci: Invalid argument\n"},
		{{"add_list", "t.n.l"}, 1, "", "uci: Invalid argument\n"},
		{{"delete", "t"}, 1, "", "uci: Invalid argument\n"},
		{{"rename", "t=k"}, 1, "", "uci: Invalid argument\n"},
		{{"set", "t.n=bad type"}, 1, "", "uci: Invalid argument\n"},
		{{"get", "t.@a"}, 1, "", "uci: Invalid argument\n"},
		{{"get", "t.a-b"}, 1, "", "uci: Invalid argument\n"},
		{{"rename", "t.n=a-b"}, 1, "", "uci: Invalid argument\n"},
		{{"add", "t", "bad type"}, 2, "", "uci: Invalid argument\n"},
		{{"add", "nosuch", "a"}, 3, "", "uci: Entry not found\n"},
		// bad tuples and broken files
		{{"get", "t.n.x.y"}, 1, "", "uci: Parse error\n"},
		{{"set", "t.n.a-b=1"}, 1, "", "uci: Parse error\n"},
		{{"set", "t.n.x=a\x01"}, 1, "", "uci: Parse error\n"},
		{{"show", "broken"}, 1, "", "uci: Parse error (too many arguments) at line 1, byte 13\n"},
		// refused silently
		{{"get", "t.n.x=5"}, 1, "", ""},
		{{"revert", "t.n=5"}, 1, "", ""},
		{{"delete", "t.n.l=abc"}, 1, "", ""},
		// nothing to do
		{{"set", "t.zz="}, 0, "", ""},
		{{"revert", "t.zz"}, 0, "", ""},
		{{"del_list", "t.n.l=zz"}, 0, "", ""},
		{{"del_list", "t.n.x=1"}, 0, "", ""},
		{{"-q", "get", "t.zz"}, 1, "", ""},
		// output formats
		{{"GET", "t.n.x"}, 0, "1\n", ""},
		{{"get", "t.n.l"}, 0, "'a b'  c\n", ""},
		{{"-d", ",", "get", "t.n.l"}, 0, "'a b',,c\n", ""},
		{{"show", "t.n.l"}, 0, "t.n.l='a b' '' 'c'\n", ""},
		{{"show", "t.@a[-1]"}, 0, "t.cfg02b606=a\n", ""},
		{{"get", "t"}, 0, "", ""},
	};
	for (const Row &row : rows) {
		std::vector<std::string> args = {"-c", t.conf, "-t", t.save, "-C", ""};
		args.insert(args.end(), row.args.begin(), row.args.end());
		RunResult r = run_uci(args);
		std::string what;
		for (auto &a : row.args)
			what += a + " ";
		EXPECT_EQ(r.status, row.status) << what;
		EXPECT_EQ(r.out, row.out) << what;
		EXPECT_EQ(r.err, row.err) << what;
	}
	// Of all these, only the del_list of an absent item left a change behind: it is recorded even so.
	EXPECT_EQ(uci(t, {"changes"}).out, "t.n.l-='zz'\n");
}

TEST_F(UciCli, UsageAndCommandNames)
{
	for (auto args : {std::vector<std::string>{"bogus"}, {"get"}, {"get", "a", "b"}, {"add", "t"}, {"-m", "import"}}) {
		std::vector<std::string> all = {"-c", t.conf, "-t", t.save};
		all.insert(all.end(), args.begin(), args.end());
		RunResult r = run_uci(all);
		EXPECT_EQ(r.status, 255) << args[0];
		EXPECT_EQ(r.err.rfind(usage_line, 0), 0u) << r.err;
	}
	for (auto args : {std::vector<std::string>{}, {"help"}, {"-Z"}}) {
		RunResult r = run_uci(args);
		EXPECT_EQ(r.status, 0);
		EXPECT_NE(r.err.find(usage_line), std::string::npos) << r.err;
		EXPECT_EQ(r.out, "");
	}

	EXPECT_EQ(uci(t, {"ren", "t.n=m"}).status, 0);
	EXPECT_EQ(uci(t, {"DEL", "t.m.x"}).status, 0);
	EXPECT_EQ(uci(t, {"Reorder", "t.m=5"}).status, 0);
	EXPECT_EQ(uci(t, {"changes"}).out, "t.n='m'\n-t.m.x\nt.m='5'\n");
	RunResult shown = uci(t, {"-X", "show", "t"});
	EXPECT_EQ(shown.out, "t.cfg02b606=a\nt.m=a\nt.m.l='a b' '' 'c'\n");
}

TEST_F(UciCli, WholeConfigDirectory)
{
	write_file(t.config("u"), "config b k\n");
	RunResult show = uci(t, {"show"});
	EXPECT_EQ(show.status, 0);
	EXPECT_EQ(show.out, "t.n=a\nt.n.x='1'\nt.n.l='a b' '' 'c'\nt.@a[1]=a\nu.k=b\n");
	EXPECT_EQ(show.err, "uci: Parse error (too many arguments) at line 1, byte 13\n");

	ASSERT_EQ(uci(t, {"set", "t.n.x=2"}).status, 0);
	ASSERT_EQ(uci(t, {"set", "u.k.y=3"}).status, 0);
	EXPECT_EQ(uci(t, {"changes"}).out, "t.n.x='2'\nu.k.y='3'\n");
	RunResult commit = uci(t, {"commit"});
	EXPECT_EQ(commit.status, 0);
	EXPECT_EQ(read_file(t.config("u")), "\nconfig b 'k'\n\toption y '3'\n\n");
	EXPECT_EQ(uci(t, {"get", "t.n.x"}).out, "2\n");
	EXPECT_EQ(uci(t, {"changes"}).out, "");

	std::vector<std::string> args = {"-c", t.root + "/missing", "show"};
	RunResult missing = run_uci(args);
	EXPECT_EQ(missing.status, 1);
	EXPECT_EQ(missing.err, "uci: Entry not found\n");
}

TEST_F(UciCli, Batch)
{
	const std::string input =
		"# a comment\n"
		"set t.n.z='multi word'\n"
		"\n"
		"add_list t.n.l2=\"x y\"\n"
		"set t.n.m='line one\n"
		"line two'\n"
		"get t.n.z\n"
		"get t.nosuch\n"
		"bogus\n"
		"batch\n"
		"set a b c d e\n"
		"show t.n.l2\n"
		"commit t\n"
		"exit\n"
		"get t.n.z\n";
	RunResult r = uci(t, {"batch"}, input);
	EXPECT_EQ(r.status, 0);
	EXPECT_EQ(r.out, "multi word\nt.n.l2='x y'\n");
	EXPECT_EQ(r.err, "uci: Entry not found\nUnknown command\nUnknown command\nToo many arguments\n");
	EXPECT_EQ(read_file(t.config("t")),
		"\nconfig a 'n'\n\toption x '1'\n\tlist l 'a b'\n\tlist l ''\n\tlist l 'c'\n\toption z 'multi word'\n"
		"\tlist l2 'x y'\n\toption m 'line one\nline two'\n\nconfig a\n\n");

	// From a file, and errors inside the batch do not change the exit code.
	write_file(t.root + "/cmds", "set t.nosuch.x=1\nget t.n.m\n");
	RunResult f = uci(t, {"-f", t.root + "/cmds", "batch"});
	EXPECT_EQ(f.status, 0);
	EXPECT_EQ(f.out, "line one\nline two\n");
	EXPECT_EQ(f.err, "uci: Invalid argument\n");
}

TEST_F(UciCli, InputFiles)
{
	RunResult twice = uci(t, {"-f", "/dev/null", "-f", "/dev/null", "import"});
	EXPECT_EQ(twice.status, 1);
	EXPECT_EQ(twice.err, "Too many input files.\n");
	RunResult missing = uci(t, {"-f", t.root + "/none", "import"});
	EXPECT_EQ(missing.status, 1);
	EXPECT_EQ(missing.err, "uci: No such file or directory");
}

TEST_F(UciCli, Import)
{
	ASSERT_EQ(uci(t, {"set", "t.n.x=9"}).status, 0);
	RunResult r = uci(t, {"import"}, "package t\nconfig a fresh\npackage other\nconfig b y\n\toption o 1\n");
	EXPECT_EQ(r.status, 0) << r.err;
	EXPECT_EQ(read_file(t.config("t")), "\nconfig a 'fresh'\n\n");
	EXPECT_EQ(read_file(t.config("other")), "\nconfig b 'y'\n\toption o '1'\n\n");
	EXPECT_EQ(read_file(t.delta("t")), "t.n.x='9'\n");  // pending changes are not touched

	RunResult unnamed = uci(t, {"import"}, "config a x\n");
	EXPECT_EQ(unnamed.status, 1);
	EXPECT_EQ(unnamed.err.rfind("uci: Parse error (attempting to import a file without a package name)", 0), 0u)
		<< unnamed.err;
	EXPECT_EQ(uci(t, {"import"}, "").status, 0);

	// With a name, package lines are ignored and the package is overwritten.
	ASSERT_EQ(uci(t, {"import", "other"}, "package zzz\nconfig c k\n").status, 0);
	EXPECT_EQ(read_file(t.config("other")), "\nconfig c 'k'\n\n");
	EXPECT_FALSE(exists(t.config("zzz")));

	// Merging saves changes without committing them.
	write_file(t.config("m"), "config a n\n\toption x 1\n");
	RunResult merged = uci(t, {"-m", "import", "m"}, "config a n\n\toption y 2\nconfig c\n\toption z 3\n");
	EXPECT_EQ(merged.status, 0) << merged.err;
	EXPECT_EQ(read_file(t.config("m")), "config a n\n\toption x 1\n");
	EXPECT_EQ(uci(t, {"changes", "m"}).out, "m.n.y='2'\nm.cfg02b608='c'\nm.cfg02b608.z='3'\n");
	// Merging into a package that does not exist creates it.
	ASSERT_EQ(uci(t, {"-m", "import", "new"}, "config a q\n").status, 0);
	EXPECT_EQ(read_file(t.config("new")), "\nconfig a 'q'\n\n");
}

TEST_F(UciCli, SaveDirectoriesAndNames)
{
	// -P: changes go to the given directory and commit does nothing.
	std::string staged = t.root + "/staged";
	std::vector<std::string> p_set = {"-c", t.conf, "-C", "", "-P", staged, "set", "t.n.x=5"};
	ASSERT_EQ(run_uci(p_set).status, 0);
	EXPECT_EQ(read_file(staged + "/t"), "t.n.x='5'\n");
	std::vector<std::string> p_commit = {"-c", t.conf, "-C", "", "-P", staged, "commit", "t"};
	EXPECT_EQ(run_uci(p_commit).status, 0);
	EXPECT_EQ(read_file(t.config("t")).substr(0, 11), "config a n\n");
	EXPECT_EQ(read_file(staged + "/t"), "t.n.x='5'\n");

	// -p: another directory of changes is read before the save directory.
	RunResult extra = uci(t, {"-p", staged, "changes", "t"});
	EXPECT_EQ(extra.out, "t.n.x='5'\n");
	EXPECT_EQ(uci(t, {"-p", staged, "-p", staged, "get", "t.n.x"}).out, "5\n");

	// -n names anonymous sections in export and commit; -N turns it off again.
	EXPECT_EQ(uci(t, {"-n", "-N", "export", "t"}).out.find("cfg02b606"), std::string::npos);
	EXPECT_NE(uci(t, {"-n", "export", "t"}).out.find("config a 'cfg02b606'\n"), std::string::npos);
	ASSERT_EQ(uci(t, {"set", "t.n.x=6"}).status, 0);
	ASSERT_EQ(uci(t, {"-n", "commit", "t"}).status, 0);
	EXPECT_NE(read_file(t.config("t")).find("config a 'cfg02b606'\n"), std::string::npos);

	// -S: a bad line is reported by the parser (no prefix, even with -q) and skipped.
	write_file(t.config("lenient"), "config a k\nbogus\n\toption y 1\n");
	RunResult lenient = uci(t, {"-S", "-q", "show", "lenient"});
	EXPECT_EQ(lenient.status, 0);
	EXPECT_EQ(lenient.out, "lenient.k=a\nlenient.k.y='1'\n");
	EXPECT_EQ(lenient.err, "Parse error (invalid command) at line 2, byte 0\n");
}

TEST_F(UciCli, PathPackages)
{
	std::string path = t.root + "/direct";
	write_file(path, "config a n\n");
	RunResult shown = uci(t, {"show", path});
	EXPECT_EQ(shown.out, "direct.n=a\n");
	ASSERT_EQ(uci(t, {"set", path + ".n.x=1"}).status, 0);
	EXPECT_EQ(read_file(path), "\nconfig a 'n'\n\toption x '1'\n\n");
	EXPECT_FALSE(exists(t.delta("direct")));
}

}  // namespace
