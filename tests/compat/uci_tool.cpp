// The uci tool: transcripts (data/uci/golden/<case>/transcript, with conf/ and save/ copied into a fresh tree) and
// its exit codes and messages as one table.
#include "support.h"

#include <algorithm>

namespace fs = std::filesystem;
using namespace ct;

namespace {

const std::string golden_root = std::string(GWCONF_TEST_DATA) + "/uci/golden";

// "$ uci ARGS" runs the tool on the tree (-c, -t and -C '' first unless ARGS set the save directory themselves;
// '...' quotes, \\ escapes a character; $T stands for the tree's folder); "$ cat conf/F" shows a file of the tree.
std::string perform(const UciTree &t, const std::string &cmd, const std::string &input)
{
	std::vector<std::string> args;
	std::string word;
	bool quoted = false, any = false, escaped = false;
	std::string line = cmd + " ";
	for (size_t at; (at = line.find("$T")) != std::string::npos;)
		line.replace(at, 2, t.path);
	for (char c : line) {
		if (escaped) {
			word += c;
			escaped = false;
		} else if (c == '\\' && !quoted) {
			escaped = true;
		} else if (c == '\'') {
			quoted = !quoted;
			any = true;
		} else if (c == ' ' && !quoted) {
			if (any || !word.empty())
				args.push_back(word);
			word.clear();
			any = false;
		} else {
			word += c;
		}
	}
	if (args[0] == "cat")
		return read_file(t.path + "/" + args[1]);
	args.erase(args.begin());
	if (std::find(args.begin(), args.end(), "-P") != args.end())
		args.insert(args.begin(), {bin("uci"), "-c", t.conf, "-C", ""});
	else
		args.insert(args.begin(), {bin("uci"), "-c", t.conf, "-t", t.save, "-C", ""});
	return shown(run(args, input));
}

class Golden : public ::testing::TestWithParam<std::string> {};

TEST_P(Golden, Transcript)
{
	fs::path dir = fs::path(golden_root) / GetParam();
	UciTree t;
	for (const char *sub : {"conf", "save"})
		if (fs::exists(dir / sub))
			for (auto &e : fs::directory_iterator(dir / sub))
				fs::copy_file(e.path(), t.path + "/" + sub + "/" + e.path().filename().string());
	check_transcript((dir / "transcript").string(),
			 [&](const std::string &cmd, const std::string &input) { return perform(t, cmd, input); });
}

std::vector<std::string> golden_cases()
{
	std::vector<std::string> names;
	for (auto &e : fs::directory_iterator(golden_root))
		names.push_back(e.path().filename().string());
	std::sort(names.begin(), names.end());
	return names;
}

INSTANTIATE_TEST_SUITE_P(Uci, Golden, ::testing::ValuesIn(golden_cases()),
	[](const ::testing::TestParamInfo<std::string> &info) { return info.param; });

TEST(UciTool, ExitCodesAndMessages)
{
	UciTree t;
	write_file(t.config("t"), "config a n\n\toption x 1\n\tlist l 'a b'\n\tlist l ''\n\tlist l c\nconfig a\n");
	write_file(t.config("broken"), "config a b c\n");
	const std::string notfound = "uci: Entry not found\n", inval = "uci: Invalid argument\n";
	struct Row {
		std::vector<std::string> args;
		int code;
		std::string err;
	} rows[] = {
		{{"get", "nosuch.n.x"}, 1, notfound}, {{"show", "nosuch"}, 1, notfound}, {{"set", "nosuch.n.x=1"}, 1, notfound},
		{{"delete", "nosuch.n"}, 1, notfound}, {{"rename", "nosuch.n=m"}, 1, notfound},
		{{"revert", "nosuch"}, 1, notfound}, {{"reorder", "nosuch.n=1"}, 1, notfound},
		{{"add_list", "nosuch.n.l=1"}, 1, notfound}, {{"del_list", "nosuch.n.l=1"}, 1, notfound},
		{{"changes", "nosuch"}, 1, notfound}, {{"export", "nosuch"}, 1, notfound}, {{"commit", "nosuch"}, 1, notfound},
		{{"get", "t.zz"}, 1, notfound}, {{"get", "t.n.zz"}, 1, notfound}, {{"show", "t.n.zz"}, 1, notfound},
		{{"delete", "t.zz"}, 1, notfound}, {{"rename", "t.n.zz=k"}, 1, notfound}, {{"reorder", "t.zz=1"}, 1, notfound},
		{{"reorder", "t.n"}, 1, notfound}, {{"add", "nosuch", "a"}, 3, notfound},
		{{"set", "t.zz.x=1"}, 1, inval}, {{"add_list", "t.zz.l=1"}, 1, inval}, {{"del_list", "t.zz.l=1"}, 1, inval},
		{{"set", "t.n.x"}, 1, inval}, {{"add_list", "t.n.l"}, 1, inval}, {{"delete", "t"}, 1, inval},
		{{"rename", "t=k"}, 1, inval}, {{"set", "t.n=bad type"}, 1, inval}, {{"get", "t.@a"}, 1, inval},
		{{"get", "t.a-b"}, 1, inval}, {{"rename", "t.n=a-b"}, 1, inval}, {{"add", "t", "bad type"}, 2, inval},
		{{"get", "t.n.x.y"}, 1, "uci: Parse error\n"}, {{"set", "t.n.a-b=1"}, 1, "uci: Parse error\n"},
		{{"set", "t.n.x=a\x01"}, 1, "uci: Parse error\n"},
		{{"show", "broken"}, 1, "uci: Parse error (too many arguments) at line 1, byte 13\n"},
		{{"get", "t.n.x=5"}, 1, ""}, {{"revert", "t.n=5"}, 1, ""}, {{"delete", "t.n.l=abc"}, 1, ""},
		{{"-q", "get", "t.zz"}, 1, ""}, {{"set", "t.zz="}, 0, ""}, {{"revert", "t.zz"}, 0, ""},
		{{"del_list", "t.n.x=1"}, 0, ""}, {{"get", "t"}, 0, ""}, {{"-Z"}, 0, "usage"}, {{"help"}, 0, "usage"},
		{{}, 0, "usage"}, {{"bogus"}, 255, "usage"}, {{"get"}, 255, "usage"}, {{"get", "a", "b"}, 255, "usage"},
		{{"add", "t"}, 255, "usage"}, {{"-m", "import"}, 255, "usage"},
	};
	for (const Row &row : rows) {
		Result r = t.uci(row.args);
		std::string what = row.args.empty() ? "(none)" : row.args[0] + " " + row.args.back();
		EXPECT_EQ(r.code, row.code) << what;
		EXPECT_EQ(r.out, "") << what;
		if (row.err == "usage")
			EXPECT_NE(r.err.find("Usage: uci [<options>] <command> [<arguments>]\n"), std::string::npos) << what;
		else
			EXPECT_EQ(r.err, row.err) << what;
	}
	EXPECT_EQ(t.uci({"changes"}).out, "");	// none of these left a change behind
}

} // namespace
