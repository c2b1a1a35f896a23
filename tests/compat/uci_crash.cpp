// Commits under stress: a writer killed at random moments, two writers at once (a library user and the
// uci tool), and readers running while a writer commits. Each writer appends numbered list items, so a
// lost change shows as a gap and a change applied twice shows as a repeated item.
#include <gtest/gtest.h>

#include "support.h"

#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <random>

using namespace ct;

namespace {

// The items of t.n.l as a load sees them (config plus saved changes); `path` loads a file alone.
std::vector<std::string> items(const UciTree &t, const std::string &what = "t", int *rc_out = nullptr)
{
	Context ctx(t);
	std::vector<std::string> r;
	uci_package *p = nullptr;
	int rc = uci_load(ctx, what.c_str(), &p);
	if (rc_out)
		*rc_out = rc;
	if (rc != UCI_OK)
		return r;
	uci_section *s = uci_lookup_section(ctx, p, "n");
	uci_option *o = s ? uci_lookup_option(ctx, s, "l") : nullptr;
	if (o && o->type == UCI_TYPE_LIST) {
		uci_element *e;
		uci_foreach_element(&o->v.list, e)
			r.push_back(e->name);
	}
	return r;
}

std::vector<std::string> numbered(const std::string &prefix, int from, int to)
{
	std::vector<std::string> r;
	for (int i = from; i <= to; i++)
		r.push_back(prefix + std::to_string(i));
	return r;
}

// Appends one item and commits, as a process of its own would.
int add_and_commit(const UciTree &t, const std::string &item)
{
	Context ctx(t);
	std::string tuple = "t.n.l=" + item;
	Tuple tp(ctx, tuple);
	if (tp.rc)
		return tp.rc;
	if (int rc = uci_add_list(ctx, &tp.ptr))
		return rc;
	if (int rc = uci_save(ctx, tp.ptr.p))
		return rc;
	uci_package *p = tp.ptr.p;
	return uci_commit(ctx, &p, false);
}

double now_us()
{
	return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

TEST(UciCrash, WriterKilledAtRandomMoments)
{
	UciTree t;
	write_file(t.config("t"), "config a n\n");

	// How long one writer takes, to spread the kills over its whole run.
	double start = now_us();
	for (int i = 0; i < 5; i++) {
		pid_t pid = fork();
		if (pid == 0)
			_exit(add_and_commit(t, "warm" + std::to_string(i)));
		int st;
		waitpid(pid, &st, 0);
		ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
	}
	double run_us = (now_us() - start) / 5;
	write_file(t.config("t"), "config a n\n");

	std::mt19937 rng(12345);
	std::uniform_real_distribution<double> when(0, run_us * 1.2);
	int completed = 0, interrupted_after_save = 0;
	std::string last_file = read_file(t.config("t"));
	for (int iter = 0; iter < 50; iter++) {
		std::vector<std::string> before = items(t);
		std::string item = std::to_string(before.size() + 1);
		pid_t pid = fork();
		if (pid == 0)
			_exit(add_and_commit(t, item));
		usleep(static_cast<useconds_t>(when(rng)));
		kill(pid, SIGKILL);
		int st;
		waitpid(pid, &st, 0);
		if (WIFEXITED(st)) {
			ASSERT_EQ(WEXITSTATUS(st), 0);
			completed++;
		}

		// The visible state is the old one or the old one plus the new item: nothing lost or doubled.
		int rc = -1;
		std::vector<std::string> after = items(t, "t", &rc);
		ASSERT_EQ(rc, UCI_OK) << "iteration " << iter;
		std::vector<std::string> plus = before;
		plus.push_back(item);
		ASSERT_TRUE(after == before || after == plus) << "iteration " << iter << ": " << after.size() << " items";
		if (after == plus && !WIFEXITED(st))
			interrupted_after_save++;

		// The config file alone parses and holds either its previous content or exactly the visible state.
		std::string file = read_file(t.config("t"));
		std::vector<std::string> in_file = items(t, t.config("t"), &rc);
		ASSERT_EQ(rc, UCI_OK) << "iteration " << iter;
		ASSERT_TRUE(file == last_file || in_file == after) << "iteration " << iter;
		last_file = file;
	}
	// Whatever the kills left over is finished by the next commit.
	ASSERT_EQ(add_and_commit(t, "last"), UCI_OK);
	std::vector<std::string> final_items = items(t);
	EXPECT_EQ(items(t, t.config("t")), final_items);
	EXPECT_EQ(read_file(t.delta("t")), "");
	EXPECT_FALSE(exists(t.save + "/.t.uci-commit"));
	RecordProperty("completed", completed);
	RecordProperty("killed_after_save", interrupted_after_save);
}

// The library (a daemon) and the uci tool commit the same package at the same time.
TEST(UciConcurrency, LibraryAndToolLoseNothing)
{
	UciTree t;
	write_file(t.config("t"), "config a n\n");
	const int rounds = 40;
	pid_t lib = fork();
	if (lib == 0) {
		for (int i = 1; i <= rounds; i++)
			if (add_and_commit(t, "a" + std::to_string(i)) != UCI_OK)
				_exit(1);
		_exit(0);
	}
	for (int i = 1; i <= rounds; i++) {
		ASSERT_EQ(t.uci({"add_list", "t.n.l=b" + std::to_string(i)}).code, 0);
		ASSERT_EQ(t.uci({"commit", "t"}).code, 0);
	}
	int st;
	waitpid(lib, &st, 0);
	ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);

	std::vector<std::string> all = items(t, t.config("t"));
	std::vector<std::string> a, b;
	for (auto &item : all)
		(item[0] == 'a' ? a : b).push_back(item);
	EXPECT_EQ(a, numbered("a", 1, rounds));
	EXPECT_EQ(b, numbered("b", 1, rounds));
	EXPECT_EQ(read_file(t.delta("t")), "");
}

// Loads running while commits go on always see a consistent state: never an emptied delta file together
// with the old config, never a change twice.
TEST(UciConcurrency, ReadersSeeWholeStates)
{
	UciTree t;
	write_file(t.config("t"), "config a n\n");
	const int rounds = 60;
	pid_t writer = fork();
	if (writer == 0) {
		for (int i = 1; i <= rounds; i++)
			if (add_and_commit(t, std::to_string(i)) != UCI_OK)
				_exit(1);
		_exit(0);
	}
	size_t seen = 0;
	int loads = 0;
	for (;;) {
		int st;
		bool done = waitpid(writer, &st, WNOHANG) == writer;
		int rc = -1;
		std::vector<std::string> now = items(t, "t", &rc);
		ASSERT_EQ(rc, UCI_OK);
		ASSERT_EQ(now, numbered("", 1, static_cast<int>(now.size())));
		ASSERT_GE(now.size(), seen);  // never goes back
		seen = now.size();
		loads++;
		if (done) {
			ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
			break;
		}
	}
	EXPECT_EQ(seen, static_cast<size_t>(rounds));
	RecordProperty("loads", loads);
}

}  // namespace
