// Transcripts of the uci tool, one folder per case in data/uci/golden: conf/ and save/ (optional) are copied into
// a fresh config and save directory, and `transcript` is the session, in the form of a cram file:
//   $ ARGS        a uci run (-c, -t and -C '' are added; ARGS split on blanks), or `$ cat conf/F` / `$ cat save/F`
//   > LINE        a line of its standard input
//   then its standard output, "! " before each line of standard error, "[exit N]" when the exit code is not 0.
// The test runs every command and compares the session it gets with the file as a whole. With
// GWCONF_UPDATE_GOLDEN=1 in the environment it writes the session it got back into the file.
#include <gtest/gtest.h>

#include "uci_testutil.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;
using namespace ucitest;

namespace {

const std::string golden_root = std::string(GWCONF_TEST_DATA) + "/uci/golden";

std::vector<std::string> golden_cases()
{
	std::vector<std::string> names;
	for (auto &e : fs::directory_iterator(golden_root))
		if (e.is_directory())
			names.push_back(e.path().filename().string());
	std::sort(names.begin(), names.end());
	return names;
}

void copy_dir(const fs::path &from, const std::string &to)
{
	if (fs::exists(from))
		for (auto &e : fs::directory_iterator(from))
			fs::copy_file(e.path(), fs::path(to) / e.path().filename(), fs::copy_options::overwrite_existing);
}

struct Command {
	std::string line, input;
};

// The commands of a transcript with their input; the expected output lines are skipped.
std::vector<Command> commands_of(const std::string &transcript)
{
	std::vector<Command> cmds;
	std::istringstream in(transcript);
	std::string line;
	while (std::getline(in, line)) {
		if (line.rfind("$ ", 0) == 0)
			cmds.push_back({line.substr(2), ""});
		else if (line.rfind("> ", 0) == 0 && !cmds.empty())
			cmds.back().input += line.substr(2) + "\n";
	}
	return cmds;
}

std::string session(const std::vector<Command> &cmds, const TempTree &t)
{
	std::string out;
	for (const Command &c : cmds) {
		out += "$ " + c.line + "\n";
		std::istringstream input(c.input);
		for (std::string l; std::getline(input, l);)
			out += "> " + l + "\n";
		if (c.line.rfind("cat ", 0) == 0) {
			out += read_file(t.root + "/" + c.line.substr(4));
			continue;
		}
		std::vector<std::string> args = {"-c", t.conf, "-t", t.save, "-C", ""};
		std::istringstream words(c.line);
		for (std::string w; words >> w;)
			args.push_back(w);
		RunResult r = run_uci(args, c.input);
		out += r.out;
		std::istringstream err(r.err);
		for (std::string e; std::getline(err, e);)
			out += "! " + e + "\n";
		if (r.status != 0)
			out += "[exit " + std::to_string(r.status) + "]\n";
	}
	return out;
}

class Golden : public ::testing::TestWithParam<std::string> {};

TEST_P(Golden, Transcript)
{
	fs::path dir = fs::path(golden_root) / GetParam();
	TempTree t;
	copy_dir(dir / "conf", t.conf);
	copy_dir(dir / "save", t.save);
	std::string expected = read_file((dir / "transcript").string());
	std::string actual = session(commands_of(expected), t);
	if (getenv("GWCONF_UPDATE_GOLDEN"))	// to write a new case: its commands, then review the result
		write_file((dir / "transcript").string(), actual);
	EXPECT_EQ(expected, actual);
}

INSTANTIATE_TEST_SUITE_P(Uci, Golden, ::testing::ValuesIn(golden_cases()),
	[](const ::testing::TestParamInfo<std::string> &info) { return info.param; });

}  // namespace
