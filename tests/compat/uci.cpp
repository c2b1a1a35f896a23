// Commits cut off at each step and finished by the next one: the journal a commit writes before its rename.
#include "support.h"

#include <uci.h>

#include <functional>
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

std::string items(uci_context *ctx, const char *option)	// the items of a list option, "-" when it is missing
{
	std::string text = option, r;
	uci_ptr ptr{};
	if (uci_lookup_ptr(ctx, &ptr, text.data(), true) || !ptr.o)
		return "-";
	uci_element *e;
	uci_foreach_element(&ptr.o->v.list, e)
		r += std::string(r.empty() ? "" : " ") + e->name;
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
			 return "1 2 3 4 22 " + t.conf + "/.t.uci-left 0123456789abcdef\n" +
				journal(t.conf + "/t", one, t.conf + "/.t.uci-gone");
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

} // namespace
