/* The timers of the event loop: sorted one-shot timeouts, and intervals on a timerfd. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <sys/timerfd.h>
#include <limits.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "libubox/uloop.h"
#include "libubox/utils.h"
#include "uloop_internal.h"

static LIST_HEAD(timeouts);

static void
uloop_gettime(struct timeval *tv)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	tv->tv_sec = ts.tv_sec;
	tv->tv_usec = ts.tv_nsec / 1000;
}

/* t1 - t2 in milliseconds */
static int64_t
tv_diff(const struct timeval *t1, const struct timeval *t2)
{
	return ((int64_t)t1->tv_sec - t2->tv_sec) * 1000 +
	       ((int64_t)t1->tv_usec - t2->tv_usec) / 1000;
}

int
uloop_timeout_add(struct uloop_timeout *timeout)
{
	struct uloop_timeout *tmp;
	struct list_head *h = &timeouts;

	if (timeout->pending)
		return -1;

	/* sorted by expiry; equal times stay in the order they were added */
	list_for_each_entry(tmp, &timeouts, list) {
		if (tmp->time.tv_sec > timeout->time.tv_sec ||
		    (tmp->time.tv_sec == timeout->time.tv_sec && tmp->time.tv_usec > timeout->time.tv_usec)) {
			h = &tmp->list;
			break;
		}
	}
	list_add_tail(&timeout->list, h);
	timeout->pending = true;
	return 0;
}

int
uloop_timeout_set(struct uloop_timeout *timeout, int msecs)
{
	struct timeval *time = &timeout->time;

	if (timeout->pending)
		uloop_timeout_cancel(timeout);

	uloop_gettime(time);
	time->tv_sec += msecs / 1000;
	time->tv_usec += (msecs % 1000) * 1000;
	if (time->tv_usec >= 1000000) {
		time->tv_sec++;
		time->tv_usec -= 1000000;
	} else if (time->tv_usec < 0) {
		time->tv_sec--;
		time->tv_usec += 1000000;
	}
	return uloop_timeout_add(timeout);
}

int
uloop_timeout_cancel(struct uloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;
	list_del(&timeout->list);
	timeout->pending = false;
	return 0;
}

int64_t
uloop_timeout_remaining64(struct uloop_timeout *timeout)
{
	struct timeval now;

	if (!timeout->pending)
		return -1;
	uloop_gettime(&now);
	return tv_diff(&timeout->time, &now);
}

int
uloop_timeout_remaining(struct uloop_timeout *timeout)
{
	int64_t r = uloop_timeout_remaining64(timeout);

	if (r > INT_MAX)
		return INT_MAX;
	if (r < INT_MIN)
		return INT_MIN;
	return (int)r;
}

int
uloop_get_next_timeout(void)
{
	struct uloop_timeout *t;
	struct timeval now;
	int64_t diff;

	if (list_empty(&timeouts))
		return -1;
	uloop_gettime(&now);
	t = list_first_entry(&timeouts, struct uloop_timeout, list);
	diff = tv_diff(&t->time, &now);
	if (diff < 0)
		return 0;
	if (diff > INT_MAX)
		return INT_MAX;
	return (int)diff;
}

void
uloop_process_timeouts(void)
{
	struct timeval now;

	uloop_gettime(&now);
	while (!list_empty(&timeouts)) {
		struct uloop_timeout *t = list_first_entry(&timeouts, struct uloop_timeout, list);

		if (tv_diff(&t->time, &now) > 0)
			break;
		uloop_timeout_cancel(t);
		if (t->cb)
			t->cb(t);
	}
}

void
uloop_cancel_timeouts(void)
{
	struct uloop_timeout *t, *tt;

	list_for_each_entry_safe(t, tt, &timeouts, list)
		uloop_timeout_cancel(t);
}

static void
uloop_interval_cb(struct uloop_fd *fd, unsigned int events)
{
	struct uloop_interval *timer = container_of(fd, struct uloop_interval, priv.ufd);
	uint64_t fired;

	(void)events;
	if (read(fd->fd, &fired, sizeof(fired)) != (ssize_t)sizeof(fired))
		return;
	timer->expirations += fired;
	if (timer->cb)
		timer->cb(timer);
}

int
uloop_interval_set(struct uloop_interval *timer, unsigned int msecs)
{
	struct itimerspec its;

	if (!timer->priv.ufd.registered) {
		int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);

		if (fd < 0)
			return -1;
		timer->priv.ufd.fd = fd;
		timer->priv.ufd.cb = uloop_interval_cb;
		if (uloop_fd_add(&timer->priv.ufd, ULOOP_READ) < 0) {
			close(fd);
			return -1;
		}
	}
	memset(&its, 0, sizeof(its));
	its.it_value.tv_sec = msecs / 1000;
	its.it_value.tv_nsec = (long)(msecs % 1000) * 1000000L;
	its.it_interval = its.it_value;
	timer->expirations = 0;
	return timerfd_settime(timer->priv.ufd.fd, 0, &its, NULL);
}

int
uloop_interval_cancel(struct uloop_interval *timer)
{
	if (!timer->priv.ufd.registered)
		return -1;
	uloop_fd_delete(&timer->priv.ufd);
	close(timer->priv.ufd.fd);
	timer->priv.ufd.fd = -1;
	return 0;
}

int64_t
uloop_interval_remaining(struct uloop_interval *timer)
{
	struct itimerspec its;

	if (!timer->priv.ufd.registered)
		return -1;
	if (timerfd_gettime(timer->priv.ufd.fd, &its) < 0)
		return -1;
	return (int64_t)its.it_value.tv_sec * 1000 + its.it_value.tv_nsec / 1000000;
}
