/* Event loop on epoll. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <sys/epoll.h>
#include <sys/wait.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "libubox/uloop.h"
#include "libubox/utils.h"
#include "uloop_internal.h"

#define ULOOP_MAX_EVENTS 10

struct uloop_fd_event {
	struct uloop_fd *fd;
	uint32_t events;	/* raw epoll events */
};

/* edge-triggered fds whose callback is running; events seen meanwhile are merged here */
struct uloop_fd_stack {
	struct uloop_fd_stack *next;
	struct uloop_fd *fd;
	unsigned int events;
};

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;
uloop_fd_handler uloop_fd_set_cb = NULL;

static int poll_fd = -1;
static int waker_pipe[2] = { -1, -1 };
static struct uloop_fd waker_fd;

static LIST_HEAD(processes);
static LIST_HEAD(signals);

static struct uloop_fd_event cur_fds[ULOOP_MAX_EVENTS];
static int cur_fd, cur_nfds;
static struct uloop_fd_stack *fd_stack;

static volatile sig_atomic_t uloop_status;
static volatile sig_atomic_t do_sigchld;
static int uloop_run_depth;

/* actions in place before uloop_init, put back by uloop_done */
struct uloop_saved_action {
	int signo;
	bool saved;
	struct sigaction orig;
};
static struct uloop_saved_action saved_int = { SIGINT, false, {} };
static struct uloop_saved_action saved_term = { SIGTERM, false, {} };
static struct uloop_saved_action saved_chld = { SIGCHLD, false, {} };
static struct uloop_saved_action saved_pipe = { SIGPIPE, false, {} };

static void
waker_write(int signo)
{
	int saved_errno = errno;
	uint8_t b = (uint8_t)signo;

	if (waker_pipe[1] >= 0) {
		ssize_t r = write(waker_pipe[1], &b, 1);
		(void)r;
	}
	errno = saved_errno;
}

static void
uloop_handle_sigint(int signo)
{
	uloop_status = signo;
	uloop_cancelled = true;
	waker_write(signo);
}

static void
uloop_sigchld(int signo)
{
	do_sigchld = 1;
	waker_write(signo);
}

static void
uloop_signal_wake(int signo)
{
	waker_write(signo);
}

static void
uloop_install(struct uloop_saved_action *s, void (*handler)(int))
{
	struct sigaction cur, act;

	if (sigaction(s->signo, NULL, &cur) < 0)
		return;
	if (cur.sa_handler != SIG_DFL)
		return;
	memset(&act, 0, sizeof(act));
	act.sa_handler = handler;
	act.sa_flags = 0;
	sigemptyset(&act.sa_mask);
	if (sigaction(s->signo, &act, NULL) < 0)
		return;
	s->orig = cur;
	s->saved = true;
}

static void
uloop_restore(struct uloop_saved_action *s, void (*handler)(int))
{
	struct sigaction cur;

	if (!s->saved)
		return;
	s->saved = false;
	if (sigaction(s->signo, NULL, &cur) < 0)
		return;
	if (cur.sa_handler != handler)
		return;
	sigaction(s->signo, &s->orig, NULL);
}

static void
uloop_setup_signals(bool add)
{
	if (add) {
		uloop_install(&saved_int, uloop_handle_sigint);
		uloop_install(&saved_term, uloop_handle_sigint);
		if (uloop_handle_sigchld)
			uloop_install(&saved_chld, uloop_sigchld);
		uloop_install(&saved_pipe, SIG_IGN);
	} else {
		uloop_restore(&saved_int, uloop_handle_sigint);
		uloop_restore(&saved_term, uloop_handle_sigint);
		uloop_restore(&saved_chld, uloop_sigchld);
		uloop_restore(&saved_pipe, SIG_IGN);
	}
}

static void
waker_consume(struct uloop_fd *fd, unsigned int events)
{
	uint8_t buf[16];
	ssize_t n;

	(void)events;
	while ((n = read(fd->fd, buf, sizeof(buf))) > 0) {
		for (ssize_t i = 0; i < n; i++) {
			struct uloop_signal *s, *tmp;

			list_for_each_entry_safe(s, tmp, &signals, list) {
				if (s->signo == buf[i] && s->cb)
					s->cb(s);
			}
		}
	}
}

int
uloop_init(void)
{
	if (poll_fd >= 0)
		return 0;

	poll_fd = epoll_create1(EPOLL_CLOEXEC);
	if (poll_fd < 0)
		return -1;

	if (pipe2(waker_pipe, O_NONBLOCK | O_CLOEXEC) < 0) {
		close(poll_fd);
		poll_fd = -1;
		return -1;
	}
	memset(&waker_fd, 0, sizeof(waker_fd));
	waker_fd.fd = waker_pipe[0];
	waker_fd.cb = waker_consume;
	if (uloop_fd_add(&waker_fd, ULOOP_READ) < 0) {
		close(waker_pipe[0]);
		close(waker_pipe[1]);
		waker_pipe[0] = waker_pipe[1] = -1;
		close(poll_fd);
		poll_fd = -1;
		return -1;
	}
	uloop_setup_signals(true);
	return 0;
}

int
uloop_fd_add(struct uloop_fd *sock, unsigned int flags)
{
	struct epoll_event ev;
	int op;

	if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
		return uloop_fd_delete(sock);

	if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
		int fl = fcntl(sock->fd, F_GETFL);

		if (fl >= 0)
			fcntl(sock->fd, F_SETFL, fl | O_NONBLOCK);
	}

	memset(&ev, 0, sizeof(ev));
	if (flags & ULOOP_READ)
		ev.events |= EPOLLIN | EPOLLRDHUP;
	if (flags & ULOOP_WRITE)
		ev.events |= EPOLLOUT;
	if (flags & ULOOP_EDGE_TRIGGER)
		ev.events |= EPOLLET;
	ev.data.ptr = sock;

	op = sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
	if (epoll_ctl(poll_fd, op, sock->fd, &ev) < 0)
		return -1;

	if (uloop_fd_set_cb)
		uloop_fd_set_cb(sock, flags);

	sock->flags = (uint8_t)flags;
	sock->registered = true;
	sock->eof = false;
	sock->error = false;
	return 0;
}

int
uloop_fd_delete(struct uloop_fd *fd)
{
	struct uloop_fd_stack *st;
	int i;

	for (i = 0; i < cur_nfds; i++) {
		if (cur_fds[cur_fd + i].fd == fd)
			cur_fds[cur_fd + i].fd = NULL;
	}
	for (st = fd_stack; st; st = st->next) {
		if (st->fd == fd)
			st->fd = NULL;
	}

	if (!fd->registered)
		return 0;

	if (uloop_fd_set_cb)
		uloop_fd_set_cb(fd, 0);

	fd->registered = false;
	fd->flags = 0;
	return epoll_ctl(poll_fd, EPOLL_CTL_DEL, fd->fd, NULL);
}

int
uloop_process_add(struct uloop_process *p)
{
	struct uloop_process *tmp;
	struct list_head *h = &processes;

	if (p->pending)
		return -1;
	list_for_each_entry(tmp, &processes, list) {
		if (tmp->pid > p->pid) {
			h = &tmp->list;
			break;
		}
	}
	list_add_tail(&p->list, h);
	p->pending = true;
	return 0;
}

int
uloop_process_delete(struct uloop_process *p)
{
	if (!p->pending)
		return -1;
	list_del(&p->list);
	p->pending = false;
	return 0;
}

static void
uloop_handle_processes(void)
{
	struct uloop_process *p, *tmp;
	pid_t pid;
	int ret;

	do_sigchld = 0;
	for (;;) {
		pid = waitpid(-1, &ret, WNOHANG);
		if (pid < 0 && errno == EINTR)
			continue;
		if (pid <= 0)
			return;

		list_for_each_entry_safe(p, tmp, &processes, list) {
			if (p->pid < pid)
				continue;
			if (p->pid > pid)
				break;
			uloop_process_delete(p);
			if (p->cb)
				p->cb(p, ret);
		}
	}
}

int
uloop_signal_add(struct uloop_signal *s)
{
	struct sigaction act;

	if (s->pending)
		return -1;
	memset(&act, 0, sizeof(act));
	act.sa_handler = uloop_signal_wake;
	sigemptyset(&act.sa_mask);
	if (sigaction(s->signo, &act, &s->orig) < 0)
		return -1;
	list_add_tail(&s->list, &signals);
	s->pending = true;
	return 0;
}

int
uloop_signal_delete(struct uloop_signal *s)
{
	if (!s->pending)
		return -1;
	list_del(&s->list);
	s->pending = false;
	return sigaction(s->signo, &s->orig, NULL);
}

bool
uloop_cancelling(void)
{
	return uloop_run_depth > 0 && uloop_cancelled;
}

static void
uloop_deliver(struct uloop_fd *u, unsigned int events)
{
	struct uloop_fd_stack st, *cur;

	if (!(u->flags & ULOOP_EDGE_TRIGGER)) {
		if (u->cb)
			u->cb(u, events);
		return;
	}

	for (cur = fd_stack; cur; cur = cur->next) {
		if (cur->fd == u) {
			cur->events |= events;
			return;
		}
	}

	st.next = fd_stack;
	st.fd = u;
	fd_stack = &st;
	do {
		st.events = 0;
		if (u->cb)
			u->cb(u, events);
		events = st.events;
	} while (st.fd && events);
	fd_stack = st.next;
}

/* Waits for fd events if none are left over, then delivers one of them. */
static void
uloop_run_events(int timeout)
{
	if (!cur_nfds) {
		struct epoll_event events[ULOOP_MAX_EVENTS];
		int n, i;

		cur_fd = 0;
		n = epoll_wait(poll_fd, events, ULOOP_MAX_EVENTS, timeout);
		if (n < 0)
			return;
		for (i = 0; i < n; i++) {
			cur_fds[i].fd = (struct uloop_fd *)events[i].data.ptr;
			cur_fds[i].events = events[i].events;
		}
		cur_nfds = n;
	}

	while (cur_nfds > 0) {
		struct uloop_fd_event *e = &cur_fds[cur_fd++];
		struct uloop_fd *u = e->fd;
		unsigned int ev = 0;

		cur_nfds--;
		if (!u)
			continue;

		if (e->events & EPOLLRDHUP)
			u->eof = true;
		if (e->events & (EPOLLERR | EPOLLHUP)) {
			u->error = true;
			if (!(u->flags & ULOOP_ERROR_CB))
				uloop_fd_delete(u);
		}
		if (e->events & EPOLLIN)
			ev |= ULOOP_READ;
		if (e->events & EPOLLOUT)
			ev |= ULOOP_WRITE;

		uloop_deliver(u, ev);
		return;
	}
}

int
uloop_run_timeout(int timeout)
{
	int next_time;

	uloop_run_depth++;
	uloop_status = 0;
	uloop_cancelled = false;
	do {
		uloop_process_timeouts();

		if (do_sigchld)
			uloop_handle_processes();

		if (uloop_cancelled)
			break;

		next_time = uloop_get_next_timeout();
		if (timeout >= 0 && (next_time < 0 || timeout < next_time))
			next_time = timeout;
		uloop_run_events(next_time);
	} while (!uloop_cancelled && timeout < 0);

	--uloop_run_depth;
	return uloop_status;
}

void
uloop_done(void)
{
	struct uloop_process *p, *pt;
	struct uloop_signal *s, *st;

	uloop_setup_signals(false);

	list_for_each_entry_safe(s, st, &signals, list)
		uloop_signal_delete(s);

	if (poll_fd >= 0) {
		close(poll_fd);
		poll_fd = -1;
	}
	if (waker_pipe[0] >= 0) {
		close(waker_pipe[0]);
		close(waker_pipe[1]);
		waker_pipe[0] = waker_pipe[1] = -1;
	}
	waker_fd.registered = false;
	waker_fd.flags = 0;
	cur_nfds = 0;
	cur_fd = 0;

	uloop_cancel_timeouts();
	list_for_each_entry_safe(p, pt, &processes, list)
		uloop_process_delete(p);
}
