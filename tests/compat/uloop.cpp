// The event loop: timeouts (order, re-arming, cancelling), file descriptors (readiness, the pending event of one
// deleted meanwhile), child processes, signals. A guard ends every run after a time, so none hangs.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libubox/uloop.h>

namespace {

std::string seen;	// what the callbacks saw, in order

struct Timer {
	uloop_timeout t{.cb = [](uloop_timeout *t) {
		seen += container_of(t, Timer, t)->tag;
		if (container_of(t, Timer, t)->end)
			uloop_end();
	}};
	char tag;
	bool end = false;
};

class Uloop : public ::testing::Test {
protected:
	void SetUp() override { seen.clear(); ASSERT_EQ(uloop_init(), 0); }
	void TearDown() override { uloop_done(); }
	static std::string run(int ms = 5000)	// what the run saw; "!" at the end when the guard ended it
	{
		Timer guard{.tag = '!', .end = true};
		uloop_timeout_set(&guard.t, ms);
		uloop_run();
		uloop_timeout_cancel(&guard.t);
		return std::exchange(seen, "");
	}
};

TEST_F(Uloop, Timeouts)
{
	Timer t[] = {{.tag = 'a', .end = true}, {.tag = 'b'}, {.tag = 'c'}, {.tag = 'd'}, {.tag = 'e'}, {.tag = 'x'}};
	uloop_timeout_set(&t[0].t, 60);
	uloop_timeout_set(&t[1].t, 20);
	uloop_timeout_set(&t[2].t, 40);
	t[3].t.time = t[4].t.time = t[2].t.time;	// equal times fire in the order they were added
	EXPECT_EQ(uloop_timeout_add(&t[3].t) | uloop_timeout_add(&t[4].t), 0);
	EXPECT_EQ(uloop_timeout_add(&t[4].t), -1) << "already pending";
	uloop_timeout_set(&t[5].t, 10);
	EXPECT_EQ(uloop_timeout_cancel(&t[5].t), 0);
	EXPECT_EQ(uloop_timeout_cancel(&t[5].t), -1);
	EXPECT_EQ(run(), "bcdea");

	// Re-arming starts the delay over: a minute, to the millisecond.
	EXPECT_EQ(uloop_timeout_remaining64(&t[1].t), -1);
	uloop_timeout_set(&t[1].t, 10);
	uloop_timeout_set(&t[1].t, 60000);
	EXPECT_GT(uloop_timeout_remaining64(&t[1].t), 59000);
	EXPECT_LE(uloop_timeout_remaining64(&t[1].t), 60000);
	EXPECT_GT(uloop_get_next_timeout(), 59000);
	EXPECT_EQ(run(200), "!");
	uloop_timeout_cancel(&t[1].t);
	uloop_timeout_set(&t[2].t, -50);
	EXPECT_EQ(uloop_get_next_timeout(), 0) << "overdue";
	EXPECT_EQ(uloop_run_timeout(10), 0);
	EXPECT_EQ(seen, "c");
}

TEST_F(Uloop, FileDescriptors)
{
	static int p[2], s[2];
	ASSERT_EQ(pipe(p) | socketpair(AF_UNIX, SOCK_STREAM, 0, s), 0);
	static uloop_fd x{.cb = nullptr, .fd = p[0]}, y{.cb = nullptr, .fd = s[0]};
	x.cb = y.cb = [](uloop_fd *u, unsigned events) {	// reads what came, then deletes both
		char buf[64];
		ssize_t n = read(u->fd, buf, sizeof(buf));
		seen += (events == ULOOP_READ ? "r:" : "?:") + std::string(buf, size_t(std::max(n, ssize_t(0))));
		uloop_fd_delete(&x);
		uloop_fd_delete(&y);
	};
	ASSERT_EQ(uloop_fd_add(&x, ULOOP_READ), 0);	// a pipe written to later: readable then; made non-blocking
	EXPECT_TRUE(fcntl(p[0], F_GETFL) & O_NONBLOCK);
	uloop_timeout later{.cb = [](uloop_timeout *) { ASSERT_EQ(write(p[1], "ping", 4), 4); }};
	uloop_timeout_set(&later, 5);
	EXPECT_EQ(run(300), "r:ping!");

	// Two fds ready at once, fetched by one wait: the first callback deletes the other, whose event is dropped.
	close(s[1]);
	ASSERT_EQ(write(p[1], "1", 1), 1);
	ASSERT_EQ(uloop_fd_add(&x, ULOOP_READ) | uloop_fd_add(&y, ULOOP_READ), 0);
	std::string once = run(300);
	EXPECT_TRUE(once == "r:1!" || once == "r:!") << once;
	for (int fd : {p[0], p[1], s[0]})
		close(fd);
}

TEST_F(Uloop, ChildrenAndSignals)
{
	struct Child { uloop_process p; int status = -1; } c[2];
	for (int i = 0; i < 2; i++) {
		pid_t pid = fork();
		if (pid == 0)
			_exit(7 + i);
		c[i].p = {.cb = [](uloop_process *p, int ret) {
				  container_of(p, Child, p)->status = ret;
				  if ((seen += "c") == "cc")
					  uloop_end();
			  }, .pid = pid};
		ASSERT_EQ(uloop_process_add(&c[i].p), 0);
		EXPECT_EQ(uloop_process_add(&c[i].p), -1);
	}
	EXPECT_EQ(run(10000), "cc");
	for (int i = 0; i < 2; i++)
		EXPECT_TRUE(WIFEXITED(c[i].status) && WEXITSTATUS(c[i].status) == 7 + i && uloop_process_delete(&c[i].p) == -1);

	// A signal with a handler of its own runs it from the loop; deleting it restores the action.
	uloop_signal usr{.cb = [](uloop_signal *) { seen += "u", uloop_end(); }, .signo = SIGUSR1};
	ASSERT_EQ(uloop_signal_add(&usr), 0);
	uloop_timeout t{.cb = [](uloop_timeout *) { kill(getpid(), SIGUSR1); }};
	uloop_timeout_set(&t, 5);
	EXPECT_EQ(run(), "u");
	EXPECT_EQ(uloop_signal_delete(&usr), 0);
	struct sigaction sa{};
	EXPECT_TRUE(sigaction(SIGUSR1, nullptr, &sa) == 0 && sa.sa_handler == SIG_DFL);

	// SIGTERM ends the run with its number; a cancel from before a run is forgotten when it starts.
	t.cb = [](uloop_timeout *) { kill(getpid(), SIGTERM); };
	uloop_timeout_set(&t, 5);
	EXPECT_EQ(uloop_run(), SIGTERM);
	uloop_end();
	EXPECT_EQ(run(50), "!");
}

} // namespace
