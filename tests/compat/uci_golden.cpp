// Golden transcripts of the uci tool. Every folder of data/uci/golden holds:
//   conf/        config files copied into a fresh config directory
//   save/        (optional) delta files copied into a fresh save directory
//   script       one uci command per line, arguments separated by blanks (options before the command)
//   transcript   the expected session: "$ ARGS", then stdout, then "! " + each stderr line, then
//                "[exit N]" when the exit code is not 0
//   expect-conf/ expect-save/   (optional) the exact files expected in the directories afterwards
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

std::vector<std::string> split_blanks(const std::string &line)
{
	std::vector<std::string> words;
	std::string cur;
	for (char c : line) {
		if (c == ' ') {
			if (!cur.empty())
				words.push_back(cur);
			cur.clear();
		} else {
			cur += c;
		}
	}
	if (!cur.empty())
		words.push_back(cur);
	return words;
}

void copy_dir(const fs::path &from, const std::string &to)
{
	if (!fs::exists(from))
		return;
	for (auto &e : fs::directory_iterator(from))
		fs::copy_file(e.path(), fs::path(to) / e.path().filename(), fs::copy_options::overwrite_existing);
}

// Every file of `expected` must exist in `dir` with the same bytes.
void expect_dir(const fs::path &expected, const std::string &dir)
{
	if (!fs::exists(expected))
		return;
	for (auto &e : fs::directory_iterator(expected)) {
		std::string actual_path = dir + "/" + e.path().filename().string();
		ASSERT_TRUE(exists(actual_path)) << actual_path;
		EXPECT_EQ(read_file(e.path().string()), read_file(actual_path)) << actual_path;
	}
}

class Golden : public ::testing::TestWithParam<std::string> {};

TEST_P(Golden, TranscriptAndFiles)
{
	fs::path dir = fs::path(golden_root) / GetParam();
	TempTree t;
	copy_dir(dir / "conf", t.conf);
	copy_dir(dir / "save", t.save);

	std::string transcript;
	std::istringstream script(read_file((dir / "script").string()));
	std::string line;
	while (std::getline(script, line)) {
		if (line.empty())
			continue;
		std::vector<std::string> args = {"-c", t.conf, "-t", t.save, "-C", ""};
		for (auto &w : split_blanks(line))
			args.push_back(w);
		RunResult r = run_uci(args);
		transcript += "$ " + line + "\n" + r.out;
		std::istringstream err(r.err);
		std::string e;
		while (std::getline(err, e))
			transcript += "! " + e + "\n";
		if (r.status != 0)
			transcript += "[exit " + std::to_string(r.status) + "]\n";
	}
	EXPECT_EQ(read_file((dir / "transcript").string()), transcript);
	expect_dir(dir / "expect-conf", t.conf);
	expect_dir(dir / "expect-save", t.save);
}

INSTANTIATE_TEST_SUITE_P(Uci, Golden, ::testing::ValuesIn(golden_cases()),
	[](const ::testing::TestParamInfo<std::string> &info) { return info.param; });

}  // namespace
