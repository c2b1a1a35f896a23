// The event loop: timeouts (order, re-arming, cancelling), file descriptors (readiness, hang-up, a deleted one's
// pending event), child processes, signals. Every run has a guard timeout, so no test can hang.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libubox/uloop.h>

namespace {

std::vector<int> fired;	// what the callbacks saw, in order

struct Timer {
	uloop_timeout t{};
	int tag;
	bool end;
	explicit Timer(int tag_, bool end_ = false) : tag(tag_), end(end_)
	{
		t.cb = [](uloop_timeout *t) {
			Timer *x = container_of(t, Timer, t);
			fired.push_back(x->tag);
			if (x->end)
				uloop_end();
		};
	}
};

class Uloop : public ::testing::Test {
protected:
	void SetUp() override
	{
		fired.clear();
		ASSERT_EQ(uloop_init(), 0);
	}
	void TearDown() override { uloop_done(); }
	// Runs the loop; false when the guard had to end it after ms.
	static bool run(int ms = 5000)
	{
		Timer guard(-1, true);
		uloop_timeout_set(&guard.t, ms);
		uloop_run();
		uloop_timeout_cancel(&guard.t);
		return fired.empty() || fired.back() != -1;
	}
};

TEST_F(Uloop, TimeoutsFireInTimeOrderAndEqualTimesInAddOrder)
{
	Timer t[] = {Timer(0, true), Timer(1), Timer(2), Timer(3), Timer(4)};
	uloop_timeout_set(&t[0].t, 60);
	uloop_timeout_set(&t[1].t, 20);
	uloop_timeout_set(&t[2].t, 40);
	t[3].t.time = t[4].t.time = t[2].t.time;
	EXPECT_EQ(uloop_timeout_add(&t[3].t), 0);
	EXPECT_EQ(uloop_timeout_add(&t[4].t), 0);
	EXPECT_EQ(uloop_timeout_add(&t[4].t), -1) << "already pending";
	EXPECT_TRUE(run());
	EXPECT_EQ(fired, (std::vector<int>{1, 2, 3, 4, 0}));

	// Re-arming starts the delay over (a minute, to the millisecond); a cancelled timeout never fires.
	Timer a(5), c(6);
	EXPECT_EQ(uloop_timeout_remaining64(&a.t), -1);
	uloop_timeout_set(&a.t, 10);
	uloop_timeout_set(&a.t, 60000);
	EXPECT_GT(uloop_timeout_remaining64(&a.t), 59000);
	EXPECT_LE(uloop_timeout_remaining64(&a.t), 60000);
	EXPECT_GT(uloop_get_next_timeout(), 59000);
	uloop_timeout_set(&c.t, 10);
	EXPECT_EQ(uloop_timeout_cancel(&c.t), 0);
	EXPECT_EQ(uloop_timeout_cancel(&c.t), -1);
	fired.clear();
	EXPECT_FALSE(run(200));
	EXPECT_EQ(fired, (std::vector<int>{-1}));
	uloop_timeout_cancel(&a.t);
	uloop_timeout_set(&c.t, -50);
	EXPECT_EQ(uloop_get_next_timeout(), 0) << "overdue";
	EXPECT_EQ(uloop_run_timeout(10), 0);
	EXPECT_EQ(fired.back(), 6);
}

struct Reader {
	uloop_fd fd{};
	std::string got;
	unsigned events = 0;
	bool registered_at_eof = true;
	static void cb(uloop_fd *u, unsigned events)
	{
		Reader *r = container_of(u, Reader, fd);
		char buf[64];
		r->events |= events;
		for (ssize_t n; (n = read(u->fd, buf, sizeof(buf))) > 0;)
			r->got.append(buf, size_t(n));
		if (u->eof)
			r->registered_at_eof = u->registered;
		if (u->eof || r->got == "ping" || (events & ULOOP_WRITE))
			uloop_end();
	}
};

TEST_F(Uloop, FileDescriptors)
{
	int p[2], s[2];
	ASSERT_EQ(pipe(p), 0);
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, s), 0);
	Reader r, w, h;
	r.fd = {.cb = Reader::cb, .fd = p[0]};
	ASSERT_EQ(uloop_fd_add(&r.fd, ULOOP_READ), 0);
	EXPECT_TRUE(fcntl(p[0], F_GETFL) & O_NONBLOCK);
	static int writer;
	writer = p[1];
	uloop_timeout later{.cb = [](uloop_timeout *) { ASSERT_EQ(write(writer, "ping", 4), 4); }};
	uloop_timeout_set(&later, 5);
	EXPECT_TRUE(run());
	EXPECT_EQ(r.got, "ping");
	EXPECT_EQ(r.events, unsigned(ULOOP_READ));
	EXPECT_EQ(uloop_fd_delete(&r.fd), 0);
	EXPECT_EQ(uloop_fd_delete(&r.fd), 0);
	EXPECT_FALSE(r.fd.registered);

	// BLOCKING leaves the flags alone; a writable pipe is reported; no flags at all deletes.
	w.fd = {.cb = Reader::cb, .fd = p[1]};
	ASSERT_EQ(uloop_fd_add(&w.fd, ULOOP_WRITE | ULOOP_BLOCKING), 0);
	EXPECT_FALSE(fcntl(p[1], F_GETFL) & O_NONBLOCK);
	EXPECT_TRUE(run());
	EXPECT_EQ(w.events, unsigned(ULOOP_WRITE));
	EXPECT_EQ(uloop_fd_add(&w.fd, 0), 0);
	EXPECT_FALSE(w.fd.registered);

	// A hang-up delivers what was still written, sets eof and unregisters before the callback.
	h.fd = {.cb = Reader::cb, .fd = s[0]};
	ASSERT_EQ(uloop_fd_add(&h.fd, ULOOP_READ), 0);
	ASSERT_EQ(write(s[1], "bye", 3), 3);
	close(s[1]);
	EXPECT_TRUE(run());
	EXPECT_EQ(h.got, "bye");
	EXPECT_FALSE(h.registered_at_eof);
	EXPECT_TRUE(h.fd.error);

	// Two fds ready at once, fetched by one wait: the first callback deletes the other, whose event is dropped.
	static int calls;
	calls = 0;
	struct Pair {
		uloop_fd fd;
		uloop_fd *other;
	} x{{.cb = nullptr, .fd = p[0]}, nullptr}, y{{.cb = nullptr, .fd = s[0]}, &x.fd};
	x.other = &y.fd;
	x.fd.cb = y.fd.cb = [](uloop_fd *u, unsigned) {
		calls++;
		uloop_fd_delete(container_of(u, Pair, fd)->other);
		uloop_fd_delete(u);
	};
	ASSERT_EQ(write(p[1], "1", 1), 1);
	ASSERT_EQ(uloop_fd_add(&x.fd, ULOOP_READ), 0);
	ASSERT_EQ(uloop_fd_add(&y.fd, ULOOP_READ), 0);
	EXPECT_FALSE(run(300));
	EXPECT_EQ(calls, 1);
	for (int fd : {p[0], p[1], s[0]})
		close(fd);
}

TEST_F(Uloop, ChildrenAndSignals)
{
	struct Child {
		uloop_process p{};
		int status = -1;
	} c[2];
	for (int i = 0; i < 2; i++) {
		pid_t pid = fork();
		if (pid == 0)
			_exit(7 + i);
		c[i].p = {.cb = [](uloop_process *p, int ret) {
				  container_of(p, Child, p)->status = ret;
				  fired.push_back(0);
				  if (fired.size() == 2)
					  uloop_end();
			  }, .pid = pid};
		ASSERT_EQ(uloop_process_add(&c[i].p), 0);
		EXPECT_EQ(uloop_process_add(&c[i].p), -1);
	}
	EXPECT_TRUE(run(10000));
	for (int i = 0; i < 2; i++) {
		EXPECT_TRUE(WIFEXITED(c[i].status) && WEXITSTATUS(c[i].status) == 7 + i) << c[i].status;
		EXPECT_EQ(uloop_process_delete(&c[i].p), -1);
	}

	// A signal with a handler of its own runs it from the loop; deleting the handler restores the action.
	uloop_signal usr{.cb = [](uloop_signal *) { fired.push_back(1), uloop_end(); }, .signo = SIGUSR1};
	ASSERT_EQ(uloop_signal_add(&usr), 0);
	uloop_timeout t{.cb = [](uloop_timeout *) { kill(getpid(), SIGUSR1); }};
	uloop_timeout_set(&t, 5);
	EXPECT_TRUE(run());
	EXPECT_EQ(fired.back(), 1);
	EXPECT_EQ(uloop_signal_delete(&usr), 0);
	struct sigaction sa;
	sigaction(SIGUSR1, nullptr, &sa);
	EXPECT_EQ(sa.sa_handler, SIG_DFL);

	// SIGTERM ends the run with its number; a cancel from before a run is forgotten when it starts.
	t.cb = [](uloop_timeout *) { kill(getpid(), SIGTERM); };
	uloop_timeout_set(&t, 5);
	EXPECT_EQ(uloop_run(), SIGTERM);
	uloop_end();
	Timer last(2, true);
	uloop_timeout_set(&last.t, 5);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_EQ(fired.back(), 2);

	// An interval fires again and again until cancelled.
	uloop_interval iv{.cb = [](uloop_interval *i) {
		if (i->expirations >= 3)
			uloop_end();
	}};
	ASSERT_EQ(uloop_interval_set(&iv, 5), 0);
	EXPECT_TRUE(run());
	EXPECT_EQ(uloop_interval_cancel(&iv), 0);
	EXPECT_EQ(uloop_interval_cancel(&iv), -1);
}

} // namespace
