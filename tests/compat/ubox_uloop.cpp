// Event loop behaviour: timeout order and re-arming, cancel, fd readiness and
// hang-up, child exit, and the signals that end uloop_run.
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

class Uloop : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
	void TearDown() override { uloop_done(); }
};

// Ends the loop after ms milliseconds, so no test can hang.
struct Guard {
	uloop_timeout t{};
	bool fired = false;
	explicit Guard(int ms)
	{
		t.cb = [](uloop_timeout *t) {
			container_of(t, Guard, t)->fired = true;
			uloop_end();
		};
		uloop_timeout_set(&t, ms);
	}
	~Guard() { uloop_timeout_cancel(&t); }
};

struct Tagged {
	uloop_timeout t{};
	int tag = 0;
	std::vector<int> *log = nullptr;
	bool end = false;
};

void tagged_cb(uloop_timeout *t)
{
	Tagged *x = container_of(t, Tagged, t);
	x->log->push_back(x->tag);
	if (x->end)
		uloop_end();
}

TEST_F(Uloop, TimeoutsFireInTimeOrderAndEqualTimesInAddOrder)
{
	std::vector<int> log;
	Tagged t[5];
	for (int i = 0; i < 5; i++) {
		t[i].tag = i;
		t[i].log = &log;
		t[i].t.cb = tagged_cb;
	}
	uloop_timeout_set(&t[0].t, 60);
	uloop_timeout_set(&t[1].t, 20);
	uloop_timeout_set(&t[2].t, 40);
	// 3 and 4 share 2's absolute time and were added after it
	t[3].t.time = t[2].t.time;
	t[4].t.time = t[2].t.time;
	EXPECT_EQ(uloop_timeout_add(&t[3].t), 0);
	EXPECT_EQ(uloop_timeout_add(&t[4].t), 0);
	EXPECT_EQ(uloop_timeout_add(&t[4].t), -1) << "already pending";
	t[0].end = true;
	Guard g(5000);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_EQ(log, (std::vector<int>{1, 2, 3, 4, 0}));
	EXPECT_FALSE(g.fired);
	for (auto &x : t)
		EXPECT_FALSE(x.t.pending);
}

TEST_F(Uloop, RearmingRestartsTheDelayAndCancelStopsIt)
{
	std::vector<int> log;
	Tagged a, c;
	a.t.cb = c.t.cb = tagged_cb;
	a.log = c.log = &log;
	a.tag = 1;
	c.tag = 2;

	EXPECT_EQ(uloop_timeout_remaining64(&a.t), -1) << "not pending";
	uloop_timeout_set(&a.t, 10);
	uloop_timeout_set(&a.t, 60000);	// re-arming a pending timeout starts over
	int64_t r = uloop_timeout_remaining64(&a.t);
	EXPECT_GT(r, 59000);
	EXPECT_LE(r, 60000);

	uloop_timeout_set(&c.t, 10);
	EXPECT_EQ(uloop_timeout_cancel(&c.t), 0);
	EXPECT_EQ(uloop_timeout_cancel(&c.t), -1);
	EXPECT_FALSE(c.t.pending);

	Guard g(200);
	uloop_run();
	EXPECT_TRUE(g.fired);
	EXPECT_TRUE(log.empty()) << "neither the re-armed nor the cancelled timeout fired";
	EXPECT_TRUE(a.t.pending);

	// a callback may re-arm its own timeout: it was unlinked before the call
	struct Count {
		uloop_timeout t{};
		int n = 0;
	} cnt;
	cnt.t.cb = [](uloop_timeout *t) {
		Count *c = container_of(t, Count, t);
		if (++c->n < 3)
			uloop_timeout_set(t, 1);
		else
			uloop_end();
	};
	uloop_timeout_set(&cnt.t, 1);
	Guard g2(5000);
	uloop_run();
	EXPECT_EQ(cnt.n, 3);
	EXPECT_FALSE(g2.fired);
	uloop_timeout_cancel(&a.t);
}

TEST_F(Uloop, NextTimeoutReportsNothingOverdueAndPending)
{
	EXPECT_EQ(uloop_get_next_timeout(), -1);
	uloop_timeout t{};
	t.cb = [](uloop_timeout *) {};
	uloop_timeout_set(&t, -50);
	EXPECT_EQ(uloop_get_next_timeout(), 0) << "overdue";
	EXPECT_LE(uloop_timeout_remaining64(&t), 0);
	uloop_timeout_set(&t, 30000);
	EXPECT_GT(uloop_get_next_timeout(), 29000);
	uloop_timeout_cancel(&t);

	// a bounded run makes one pass and comes back
	EXPECT_EQ(uloop_run_timeout(10), 0);
}

struct Reader {
	uloop_fd fd{};
	std::string got;
	unsigned events = 0;
	int calls = 0;
	bool eof_seen = false;
	bool registered_in_cb = true;
};

void reader_cb(uloop_fd *u, unsigned events)
{
	Reader *r = container_of(u, Reader, fd);
	char buf[64];
	ssize_t n;
	r->calls++;
	r->events |= events;
	while ((n = read(u->fd, buf, sizeof(buf))) > 0)
		r->got.append(buf, (size_t)n);
	if (u->eof) {
		r->eof_seen = true;
		r->registered_in_cb = u->registered;
		uloop_end();
	}
	if (r->got == "ping")
		uloop_end();
}

TEST_F(Uloop, ReadableFdIsDeliveredAndMadeNonBlocking)
{
	int p[2];
	ASSERT_EQ(pipe(p), 0);
	Reader r;
	r.fd.fd = p[0];
	r.fd.cb = reader_cb;
	ASSERT_EQ(uloop_fd_add(&r.fd, ULOOP_READ), 0);
	EXPECT_TRUE(r.fd.registered);
	EXPECT_EQ(r.fd.flags, ULOOP_READ);
	EXPECT_TRUE(fcntl(p[0], F_GETFL) & O_NONBLOCK);

	struct Writer {
		uloop_timeout t{};
		int fd;
	} w;
	w.fd = p[1];
	w.t.cb = [](uloop_timeout *t) {
		Writer *w = container_of(t, Writer, t);
		ASSERT_EQ(write(w->fd, "ping", 4), 4);
	};
	uloop_timeout_set(&w.t, 5);
	Guard g(5000);
	uloop_run();
	EXPECT_EQ(r.got, "ping");
	EXPECT_EQ(r.events, (unsigned)ULOOP_READ);
	EXPECT_FALSE(g.fired);

	// deleting unregisters without closing; deleting again is harmless
	EXPECT_EQ(uloop_fd_delete(&r.fd), 0);
	EXPECT_FALSE(r.fd.registered);
	EXPECT_EQ(uloop_fd_delete(&r.fd), 0);
	EXPECT_GE(fcntl(p[0], F_GETFD), 0);

	// ULOOP_BLOCKING leaves the file flags alone; WRITE reports a writable pipe
	int q[2];
	ASSERT_EQ(pipe(q), 0);
	Reader wr;
	wr.fd.fd = q[1];
	wr.fd.cb = [](uloop_fd *u, unsigned ev) {
		container_of(u, Reader, fd)->events |= ev;
		uloop_end();
	};
	ASSERT_EQ(uloop_fd_add(&wr.fd, ULOOP_WRITE | ULOOP_BLOCKING), 0);
	EXPECT_FALSE(fcntl(q[1], F_GETFL) & O_NONBLOCK);
	Guard g2(5000);
	uloop_run();
	EXPECT_EQ(wr.events, (unsigned)ULOOP_WRITE);
	// no event flags at all means delete
	EXPECT_EQ(uloop_fd_add(&wr.fd, 0), 0);
	EXPECT_FALSE(wr.fd.registered);
	for (int fd : {p[0], p[1], q[0], q[1]})
		close(fd);
}

TEST_F(Uloop, PeerHangupSetsEofAndUnregisters)
{
	int sv[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
	Reader r;
	r.fd.fd = sv[0];
	r.fd.cb = reader_cb;
	ASSERT_EQ(uloop_fd_add(&r.fd, ULOOP_READ), 0);
	ASSERT_EQ(write(sv[1], "bye", 3), 3);
	close(sv[1]);
	Guard g(5000);
	uloop_run();
	EXPECT_FALSE(g.fired);
	EXPECT_EQ(r.got, "bye");
	EXPECT_TRUE(r.eof_seen);
	EXPECT_FALSE(r.registered_in_cb) << "a hang-up unregisters before the callback";
	EXPECT_TRUE(r.fd.error);
	close(sv[0]);
}

TEST_F(Uloop, DeletingAnFdDropsItsFetchedEvent)
{
	// both pipes are readable before the loop waits, so one wait fetches both;
	// whichever callback runs first deletes the other, whose event must not arrive
	int a[2], b[2];
	ASSERT_EQ(pipe(a), 0);
	ASSERT_EQ(pipe(b), 0);
	struct Pair {
		uloop_fd fd{};
		Pair *other = nullptr;
		int calls = 0;
	} x, y;
	x.other = &y;
	y.other = &x;
	x.fd.fd = a[0];
	y.fd.fd = b[0];
	x.fd.cb = y.fd.cb = [](uloop_fd *u, unsigned) {
		Pair *p = container_of(u, Pair, fd);
		p->calls++;
		uloop_fd_delete(&p->other->fd);
		uloop_fd_delete(u);
	};
	ASSERT_EQ(uloop_fd_add(&x.fd, ULOOP_READ), 0);
	ASSERT_EQ(uloop_fd_add(&y.fd, ULOOP_READ), 0);
	ASSERT_EQ(write(a[1], "1", 1), 1);
	ASSERT_EQ(write(b[1], "1", 1), 1);
	Guard g(300);
	uloop_run();
	EXPECT_EQ(x.calls + y.calls, 1);
	for (int fd : {a[0], a[1], b[0], b[1]})
		close(fd);
}

TEST_F(Uloop, ChildExitCallsItsProcessWithTheWaitStatus)
{
	struct Child {
		uloop_process p{};
		int status = -1;
		int calls = 0;
	} c[2];
	for (int i = 0; i < 2; i++) {
		pid_t pid = fork();
		ASSERT_GE(pid, 0);
		if (pid == 0)
			_exit(7 + i);
		c[i].p.pid = pid;
		c[i].p.cb = [](uloop_process *p, int ret) {
			Child *ch = container_of(p, Child, p);
			ch->status = ret;
			ch->calls++;
		};
		ASSERT_EQ(uloop_process_add(&c[i].p), 0);
		EXPECT_EQ(uloop_process_add(&c[i].p), -1);
	}
	struct Poll {
		uloop_timeout t{};
		Child *c;
	} poll;
	poll.c = c;
	poll.t.cb = [](uloop_timeout *t) {
		Poll *p = container_of(t, Poll, t);
		if (p->c[0].calls && p->c[1].calls)
			uloop_end();
		else
			uloop_timeout_set(t, 5);
	};
	uloop_timeout_set(&poll.t, 5);
	Guard g(10000);
	uloop_run();
	uloop_timeout_cancel(&poll.t);
	EXPECT_FALSE(g.fired);
	for (int i = 0; i < 2; i++) {
		EXPECT_EQ(c[i].calls, 1);
		ASSERT_TRUE(WIFEXITED(c[i].status));
		EXPECT_EQ(WEXITSTATUS(c[i].status), 7 + i);
		EXPECT_FALSE(c[i].p.pending);
		EXPECT_EQ(uloop_process_delete(&c[i].p), -1);
	}
}

TEST_F(Uloop, SigtermEndsRunWithItsNumber)
{
	uloop_timeout t{};
	t.cb = [](uloop_timeout *) { kill(getpid(), SIGTERM); };
	uloop_timeout_set(&t, 5);
	Guard g(5000);
	EXPECT_EQ(uloop_run(), SIGTERM);
	EXPECT_TRUE(uloop_cancelled);
	EXPECT_FALSE(g.fired);

	// a cancel that comes before the run is forgotten when the run starts
	uloop_end();
	uloop_timeout t2{};
	bool fired = false;
	static bool *fired_p;
	fired_p = &fired;
	t2.cb = [](uloop_timeout *) {
		*fired_p = true;
		uloop_end();
	};
	uloop_timeout_set(&t2, 5);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_TRUE(fired);
	EXPECT_FALSE(uloop_cancelling()) << "not inside a run";
}

TEST_F(Uloop, SignalDispositionsAreTakenAndGivenBack)
{
	struct sigaction sa;
	sigaction(SIGTERM, nullptr, &sa);
	EXPECT_NE(sa.sa_handler, SIG_DFL);
	sigaction(SIGPIPE, nullptr, &sa);
	EXPECT_EQ(sa.sa_handler, SIG_IGN);

	uloop_done();
	sigaction(SIGTERM, nullptr, &sa);
	EXPECT_EQ(sa.sa_handler, SIG_DFL);
	sigaction(SIGPIPE, nullptr, &sa);
	EXPECT_EQ(sa.sa_handler, SIG_DFL);

	// an ignored SIGINT stays ignored
	signal(SIGINT, SIG_IGN);
	ASSERT_EQ(uloop_init(), 0);
	sigaction(SIGINT, nullptr, &sa);
	EXPECT_EQ(sa.sa_handler, SIG_IGN);
	uloop_done();
	sigaction(SIGINT, nullptr, &sa);
	EXPECT_EQ(sa.sa_handler, SIG_IGN);
	signal(SIGINT, SIG_DFL);
	ASSERT_EQ(uloop_init(), 0);
	EXPECT_EQ(uloop_init(), 0) << "a second init does nothing";
}

TEST_F(Uloop, SignalCallbacksAndIntervalsRunFromTheLoop)
{
	struct Sig {
		uloop_signal s{};
		int calls = 0;
	} s;
	s.s.signo = SIGUSR1;
	s.s.cb = [](uloop_signal *u) {
		container_of(u, Sig, s)->calls++;
		uloop_end();
	};
	ASSERT_EQ(uloop_signal_add(&s.s), 0);
	uloop_timeout t{};
	t.cb = [](uloop_timeout *) { kill(getpid(), SIGUSR1); };
	uloop_timeout_set(&t, 5);
	Guard g(5000);
	uloop_run();
	EXPECT_EQ(s.calls, 1);
	EXPECT_EQ(uloop_signal_delete(&s.s), 0);
	struct sigaction sa;
	sigaction(SIGUSR1, nullptr, &sa);
	EXPECT_EQ(sa.sa_handler, SIG_DFL) << "delete restores the previous action";

	struct Iv {
		uloop_interval iv{};
		int calls = 0;
	} iv;
	iv.iv.cb = [](uloop_interval *i) {
		Iv *x = container_of(i, Iv, iv);
		if (++x->calls == 3)
			uloop_end();
	};
	ASSERT_EQ(uloop_interval_set(&iv.iv, 5), 0);
	EXPECT_LE(uloop_interval_remaining(&iv.iv), 5);
	Guard g2(5000);
	uloop_run();
	EXPECT_EQ(iv.calls, 3);
	EXPECT_GE(iv.iv.expirations, 3u);
	EXPECT_EQ(uloop_interval_cancel(&iv.iv), 0);
	EXPECT_EQ(uloop_interval_cancel(&iv.iv), -1);
}

} // namespace
