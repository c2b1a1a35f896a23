// Connection handling of the client library: connect and HELLO, framing of sent and received messages, the
// uloop read handler, the synchronous wait for a request, and the queue of calls that arrive during that wait.
#include "libubus_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <algorithm>
#include <unordered_map>
#include <vector>

namespace {

// How long the rest of a message that has started to arrive may take.
constexpr int kMessageBodyTimeoutMs = 10000;
constexpr size_t kPrefix = sizeof(ubus_msghdr) + 4;	// header and the container's blob header

int64_t now_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Reads exactly len bytes from a non-blocking socket, waiting for readiness as needed. The first read may also
// pick up a descriptor. Returns false on end of file, error or when the peer stalls.
bool read_exact(int fd, void *buf, size_t len, int *fd_out)
{
	uint8_t *p = static_cast<uint8_t *>(buf);
	while (len > 0) {
		iovec iov{p, len};
		msghdr mh{};
		alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(int))];
		mh.msg_iov = &iov;
		mh.msg_iovlen = 1;
		if (fd_out) {
			mh.msg_control = ctl;
			mh.msg_controllen = sizeof(ctl);
		}
		ssize_t n = recvmsg(fd, &mh, MSG_CMSG_CLOEXEC);
		if (n == 0)
			return false;
		if (n < 0) {
			if (errno == EINTR)
				continue;
			if (errno != EAGAIN && errno != EWOULDBLOCK)
				return false;
			pollfd pfd{fd, POLLIN, 0};
			int ready = poll(&pfd, 1, kMessageBodyTimeoutMs);
			if (ready < 0 && errno == EINTR)
				continue;	// a signal handler ran (SIGCHLD of the loop): wait again
			if (ready <= 0)
				return false;
			continue;
		}
		if (fd_out && mh.msg_controllen) {
			for (cmsghdr *c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c)) {
				if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
					int got;
					memcpy(&got, CMSG_DATA(c), sizeof(int));
					if (*fd_out >= 0)
						close(*fd_out);
					*fd_out = got;
				}
			}
		}
		p += n;
		len -= size_t(n);
	}
	return true;
}

bool header_acceptable(const ubus_msghdr &hdr, uint32_t container_raw)
{
	return hdr.version == 0 && container_raw >= sizeof(blob_attr) &&
	       ((container_raw + 3) & ~3u) <= UBUS_MAX_MSGLEN;
}

void default_connection_lost(ubus_context *ctx)
{
	if (ctx->sock.registered)
		uloop_end();
}

void pending_timer_cb(uloop_timeout *t)
{
	ubus_context *ctx = container_of(t, ubus_context, pending_timer);
	ubus_internal::process_pending(ctx);
	ubus_internal::drain_read_ahead(ctx);
}

void handle_data(uloop_fd *u, unsigned int events)
{
	(void)events;
	ubus_context *ctx = container_of(u, ubus_context, sock);
	ctx->cancel_poll = false;
	for (;;) {
		int fd = -1;
		int r = ubus_internal::read_message(ctx, &fd);
		if (r < 0) {
			ubus_internal::disconnected(ctx);
			return;
		}
		if (r == 0)
			return;
		ubus_internal::process_message(ctx, &ctx->msgbuf.hdr, ctx->msgbuf.data, fd);
		if (ctx->cancel_poll)
			return;	// the connection changed under us (reconnect, shutdown)
	}
}

} // namespace

namespace ubus_internal {

blob_buf b;

namespace {

// Bytes read ahead from a connection's socket: one recv usually brings a reply and its status together.
struct ReadAhead {
	std::vector<uint8_t> buf;	// unread bytes are buf[start..]
	size_t start = 0;
	int fd = -1;			// a descriptor that came with the bytes before fd_end
	size_t fd_end = 0;
};

std::unordered_map<const ubus_context *, ReadAhead> read_ahead;

// One recv into the read-ahead buffer: bytes read, 0 at end of file, -1 on error or a stalled peer, -2 when
// nothing is waiting and wait is false.
ssize_t fill(ubus_context *ctx, ReadAhead &ra, bool wait)
{
	if (ra.start) {
		ra.buf.erase(ra.buf.begin(), ra.buf.begin() + long(ra.start));
		if (ra.fd >= 0)
			ra.fd_end -= ra.start;
		ra.start = 0;
	}
	size_t old = ra.buf.size();
	size_t room = std::max<size_t>(UBUS_MSG_CHUNK_SIZE, old);
	ra.buf.resize(old + room);
	for (;;) {
		iovec iov{ra.buf.data() + old, room};
		alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(int))];
		msghdr mh{};
		mh.msg_iov = &iov;
		mh.msg_iovlen = 1;
		mh.msg_control = ctl;
		mh.msg_controllen = sizeof(ctl);
		ssize_t n = recvmsg(ctx->sock.fd, &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
			if (!wait) {
				ra.buf.resize(old);
				return -2;
			}
			pollfd pfd{ctx->sock.fd, POLLIN, 0};
			int ready = poll(&pfd, 1, kMessageBodyTimeoutMs);
			if (ready > 0 || (ready < 0 && errno == EINTR))
				continue;	// readable, or a signal handler ran: read or wait again
			n = -1;
		}
		if (n <= 0) {
			ra.buf.resize(old);
			return n;
		}
		ra.buf.resize(old + size_t(n));
		for (cmsghdr *c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c)) {
			if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
				continue;
			int got;
			memcpy(&got, CMSG_DATA(c), sizeof(int));
			if (ra.fd >= 0) {
				close(got);
			} else {
				ra.fd = got;
				ra.fd_end = ra.buf.size();
			}
		}
		return n;
	}
}

} // namespace

bool has_read_ahead(const ubus_context *ctx)
{
	auto it = read_ahead.find(ctx);
	return it != read_ahead.end() && it->second.buf.size() > it->second.start;
}

bool has_complete_message(const ubus_context *ctx)
{
	auto it = read_ahead.find(ctx);
	if (it == read_ahead.end())
		return false;
	const ReadAhead &ra = it->second;
	size_t avail = ra.buf.size() - ra.start;
	if (avail < kPrefix)
		return false;
	uint32_t container;
	memcpy(&container, &ra.buf[ra.start + sizeof(ubus_msghdr)], 4);
	return avail >= sizeof(ubus_msghdr) + (ntohl(container) & BLOB_ATTR_LEN_MASK);
}

void drain_read_ahead(ubus_context *ctx)
{
	while (!ctx->stack_depth && has_complete_message(ctx)) {
		int fd = -1;
		if (read_message(ctx, &fd) <= 0)
			break;
		process_message(ctx, &ctx->msgbuf.hdr, ctx->msgbuf.data, fd);
	}
}

void forget_read_ahead(ubus_context *ctx)
{
	auto it = read_ahead.find(ctx);
	if (it == read_ahead.end())
		return;
	if (it->second.fd >= 0)
		close(it->second.fd);
	read_ahead.erase(it);
}

int read_message(ubus_context *ctx, int *fd)
{
	if (ctx->sock.fd < 0)
		return -1;
	ReadAhead &ra = read_ahead[ctx];

	// Nothing waiting is not an error; a message that has started must then complete.
	while (ra.buf.size() - ra.start < kPrefix) {
		ssize_t n = fill(ctx, ra, ra.buf.size() > ra.start);
		if (n == -2)
			return 0;
		if (n <= 0)
			return -1;
	}
	ubus_msghdr hdr;
	uint32_t container;
	memcpy(&hdr, &ra.buf[ra.start], sizeof(hdr));
	memcpy(&container, &ra.buf[ra.start + sizeof(hdr)], 4);
	uint32_t raw = ntohl(container) & BLOB_ATTR_LEN_MASK;
	if (!header_acceptable(hdr, raw))
		return -1;	// the stream can no longer be trusted to be in step
	size_t total = sizeof(hdr) + raw;
	while (ra.buf.size() - ra.start < total)
		if (fill(ctx, ra, true) <= 0)
			return -1;

	size_t need = (raw + 3) & ~3u;
	if (need > ctx->msgbuf_data_len || (ctx->msgbuf_data_len > UBUS_MSG_CHUNK_SIZE && need <= UBUS_MSG_CHUNK_SIZE &&
					       ++ctx->msgbuf_reduction_counter > 16)) {
		// Grow in whole chunks; give a large buffer back after a run of small messages.
		uint32_t size = uint32_t((need + UBUS_MSG_CHUNK_SIZE - 1) / UBUS_MSG_CHUNK_SIZE * UBUS_MSG_CHUNK_SIZE);
		void *p = realloc(ctx->msgbuf.data, size);
		if (!p)
			return -1;
		ctx->msgbuf.data = static_cast<blob_attr *>(p);
		ctx->msgbuf_data_len = size;
		ctx->msgbuf_reduction_counter = 0;
	} else if (need > UBUS_MSG_CHUNK_SIZE) {
		ctx->msgbuf_reduction_counter = 0;
	}
	ctx->msgbuf.hdr = hdr;
	memcpy(ctx->msgbuf.data, &ra.buf[ra.start + sizeof(hdr)], raw);
	if (need > raw)
		memset(reinterpret_cast<uint8_t *>(ctx->msgbuf.data) + raw, 0, need - raw);

	// A descriptor belongs to the last message that starts in the read that brought it.
	ra.start += total;
	if (ra.fd >= 0 && ra.start >= ra.fd_end) {
		if (fd)
			*fd = ra.fd;
		else
			close(ra.fd);
		ra.fd = -1;
	}
	return 1;
}

namespace {

// Writes the buffers completely (waiting while the socket is full); the descriptor goes with the first byte.
int write_all(ubus_context *ctx, const iovec *iov, int n, int fd)
{
	size_t total = 0;
	for (int i = 0; i < n; i++)
		total += iov[i].iov_len;
	size_t done = 0;
	bool fd_sent = fd < 0;
	while (done < total) {
		iovec cur[3];
		int cnt = 0;
		size_t skip = done;
		for (int i = 0; i < n; i++) {
			if (skip >= iov[i].iov_len) {
				skip -= iov[i].iov_len;
				continue;
			}
			cur[cnt].iov_base = static_cast<uint8_t *>(iov[i].iov_base) + skip;
			cur[cnt].iov_len = iov[i].iov_len - skip;
			skip = 0;
			cnt++;
		}
		msghdr mh{};
		mh.msg_iov = cur;
		mh.msg_iovlen = size_t(cnt);
		alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(int))];
		if (!fd_sent) {
			mh.msg_control = ctl;
			mh.msg_controllen = sizeof(ctl);
			cmsghdr *c = CMSG_FIRSTHDR(&mh);
			c->cmsg_level = SOL_SOCKET;
			c->cmsg_type = SCM_RIGHTS;
			c->cmsg_len = CMSG_LEN(sizeof(int));
			memcpy(CMSG_DATA(c), &fd, sizeof(int));
		}
		ssize_t w = sendmsg(ctx->sock.fd, &mh, MSG_NOSIGNAL);
		if (w < 0) {
			if (errno == EINTR)
				continue;
			if (errno == EAGAIN || errno == EWOULDBLOCK) {
				pollfd pfd{ctx->sock.fd, POLLOUT, 0};
				if (poll(&pfd, 1, -1) < 0 && errno != EINTR)
					return -1;
				if (pfd.revents & (POLLERR | POLLHUP))
					return -1;
				continue;
			}
			return -1;
		}
		fd_sent = true;
		done += size_t(w);
	}
	return 0;
}

// While a method handler runs, its replies are held back and leave together with its status (or with the next
// other message), so the caller is woken once rather than once per message.
struct Cork {
	ubus_context *ctx = nullptr;
	std::vector<uint8_t> buf;
} cork;

int flush_cork()
{
	if (!cork.ctx || cork.buf.empty())
		return 0;
	iovec iov{cork.buf.data(), cork.buf.size()};
	int ret = write_all(cork.ctx, &iov, 1, -1);
	cork.buf.clear();
	return ret;
}

} // namespace

void cork_begin(ubus_context *ctx, ubus_context **saved)
{
	flush_cork();
	*saved = cork.ctx;
	cork.ctx = ctx;
}

void cork_end(ubus_context *saved)
{
	flush_cork();
	cork.ctx = saved;
}

int send_message(ubus_context *ctx, uint16_t seq, blob_attr *msg, int type, uint32_t peer, int fd)
{
	if (ctx->sock.fd < 0)
		return -1;
	ubus_msghdr hdr{};
	hdr.version = 0;
	hdr.type = uint8_t(type);
	hdr.seq = htons(seq);
	hdr.peer = htonl(peer);

	iovec iov[3];
	int n = 0;
	if (cork.ctx == ctx) {
		if (type == UBUS_MSG_DATA && fd < 0) {
			const uint8_t *h = reinterpret_cast<const uint8_t *>(&hdr);
			const uint8_t *m = reinterpret_cast<const uint8_t *>(msg);
			cork.buf.insert(cork.buf.end(), h, h + sizeof(hdr));
			cork.buf.insert(cork.buf.end(), m, m + blob_raw_len(msg));
			return 0;
		}
		if (!cork.buf.empty() && fd >= 0 && flush_cork() < 0)
			return -1;
		if (!cork.buf.empty())
			iov[n++] = iovec{cork.buf.data(), cork.buf.size()};
	}
	iov[n++] = iovec{&hdr, sizeof(hdr)};
	iov[n++] = iovec{msg, blob_raw_len(msg)};
	int ret = write_all(ctx, iov, n, fd);
	if (cork.ctx == ctx)
		cork.buf.clear();
	return ret;
}

void disconnected(ubus_context *ctx)
{
	// eof marks this connection as dead for the callback too (a request from it fails at once). A reconnect from
	// the callback clears it (ubus_reconnect, uloop_fd_add), and that is how a new connection is told from the
	// dead one: not by the descriptor, as the new socket usually gets the number the old one just gave back.
	ctx->cancel_poll = true;
	ctx->sock.eof = true;
	ubus_flush_requests(ctx);
	if (ctx->connection_lost)
		ctx->connection_lost(ctx);
	// Keep a dead socket out of the loop.
	if (ctx->sock.eof && ctx->sock.registered)
		uloop_fd_delete(&ctx->sock);
}

void start_request(ubus_context *ctx, ubus_request *req, uint32_t peer)
{
	memset(req, 0, sizeof(*req));
	INIT_LIST_HEAD(&req->list);
	INIT_LIST_HEAD(&req->pending);
	req->ctx = ctx;
	req->peer = peer;
	req->seq = ++ctx->request_seq;
	req->fd = -1;
	req->status_code = UBUS_STATUS_NO_DATA;
}

int send_request(ubus_context *ctx, ubus_request *req, blob_attr *msg, int type, uint32_t peer, int fd)
{
	start_request(ctx, req, peer);
	if (blob_pad_len(msg) > UBUS_MAX_MSGLEN)
		return -1;
	return send_message(ctx, req->seq, msg, type, peer, fd);
}

void request_done(ubus_context *ctx, ubus_request *req, int status)
{
	(void)ctx;
	list_del_init(&req->list);
	req->status_msg = true;
	req->status_code = status;
	if (!req->blocked && req->complete_cb)
		req->complete_cb(req, status);
}

} // namespace ubus_internal

using namespace ubus_internal;

int ubus_reconnect(struct ubus_context *ctx, const char *path)
{
	if (!path)
		path = UBUS_UNIX_SOCKET;
	if (ctx->sock.fd >= 0) {
		if (ctx->sock.registered)
			uloop_fd_delete(&ctx->sock);
		close(ctx->sock.fd);
		ctx->sock.fd = -1;
	}
	forget_read_ahead(ctx);
	ctx->cancel_poll = true;
	ctx->sock.eof = false;
	ctx->sock.error = false;

	sockaddr_un sun{};
	sun.sun_family = AF_UNIX;
	if (strlen(path) >= sizeof(sun.sun_path))
		return UBUS_STATUS_CONNECTION_FAILED;
	strcpy(sun.sun_path, path);
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) < 0) {
		close(fd);
		return UBUS_STATUS_CONNECTION_FAILED;
	}

	// The daemon greets first: HELLO, whose peer field is our client id.
	uint8_t prefix[sizeof(ubus_msghdr) + 4];
	ubus_msghdr hdr;
	uint32_t raw = 0;
	bool ok = read_exact(fd, prefix, sizeof(prefix), nullptr);
	if (ok) {
		memcpy(&hdr, prefix, sizeof(hdr));
		memcpy(&raw, prefix + sizeof(hdr), 4);
		raw = ntohl(raw) & BLOB_ATTR_LEN_MASK;
		ok = hdr.type == UBUS_MSG_HELLO && header_acceptable(hdr, raw);
	}
	if (ok && raw > 4) {
		void *rest = malloc(raw - 4);
		ok = rest && read_exact(fd, rest, raw - 4, nullptr);
		free(rest);
	}
	if (!ok) {
		close(fd);
		return UBUS_STATUS_UNKNOWN_ERROR;
	}
	ctx->local_id = hdr.peer;	// kept in wire order, as it is only ever compared
	fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
	ctx->sock.fd = fd;

	readd_objects(ctx);
	return UBUS_STATUS_OK;
}

int ubus_connect_ctx(struct ubus_context *ctx, const char *path)
{
	memset(ctx, 0, sizeof(*ctx));
	uloop_init();
	ctx->sock.fd = -1;
	ctx->sock.cb = handle_data;
	ctx->connection_lost = default_connection_lost;
	ctx->pending_timer.cb = pending_timer_cb;
	INIT_LIST_HEAD(&ctx->requests);
	INIT_LIST_HEAD(&ctx->pending);
	INIT_LIST_HEAD(&ctx->auto_subscribers);
	avl_init(&ctx->objects, compare_ids, false, nullptr);
	ctx->msgbuf.data = static_cast<blob_attr *>(calloc(1, UBUS_MSG_CHUNK_SIZE));
	if (!ctx->msgbuf.data)
		return -1;
	ctx->msgbuf_data_len = UBUS_MSG_CHUNK_SIZE;
	if (ubus_reconnect(ctx, path) != UBUS_STATUS_OK) {
		free(ctx->msgbuf.data);
		ctx->msgbuf.data = nullptr;
		return -1;
	}
	return 0;
}

struct ubus_context *ubus_connect(const char *path)
{
	ubus_context *ctx = static_cast<ubus_context *>(calloc(1, sizeof(ubus_context)));
	if (!ctx)
		return nullptr;
	if (ubus_connect_ctx(ctx, path)) {
		free(ctx);
		return nullptr;
	}
	return ctx;
}

void ubus_shutdown(struct ubus_context *ctx)
{
	if (!ctx)
		return;
	ctx->cancel_poll = true;
	if (ctx->sock.registered)
		uloop_fd_delete(&ctx->sock);
	if (ctx->sock.fd >= 0)
		close(ctx->sock.fd);
	ctx->sock.fd = -1;
	uloop_timeout_cancel(&ctx->pending_timer);
	forget_read_ahead(ctx);
	drop_pending(ctx);
	free(ctx->msgbuf.data);
	ctx->msgbuf.data = nullptr;
	ctx->msgbuf_data_len = 0;
}

void ubus_free(struct ubus_context *ctx)
{
	if (!ctx)
		return;
	ubus_shutdown(ctx);
	free(ctx);
}

void ubus_flush_requests(struct ubus_context *ctx)
{
	while (!list_empty(&ctx->requests)) {
		ubus_request *req = list_first_entry(&ctx->requests, ubus_request, list);
		request_done(ctx, req, req->blocked ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT);
	}
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req)
{
	if (!list_empty(&req->list))
		return;
	list_add(&req->list, &ctx->requests);
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req)
{
	(void)ctx;
	list_del_init(&req->list);
	req->cancelled = true;
}

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout)
{
	if (list_empty(&req->list) && !req->status_msg)
		list_add(&req->list, &ctx->requests);
	bool was_blocked = req->blocked;
	req->blocked = true;
	ctx->stack_depth++;
	int64_t deadline = timeout > 0 ? now_ms() + timeout : 0;

	while (!req->status_msg) {
		int wait = -1;
		if (timeout > 0) {
			int64_t left = deadline - now_ms();
			if (left <= 0) {
				list_del_init(&req->list);
				req->status_msg = true;
				req->status_code = UBUS_STATUS_TIMEOUT;
				break;
			}
			wait = int(left);
		}
		if (ctx->sock.fd < 0 || ctx->sock.eof) {
			list_del_init(&req->list);
			req->status_msg = true;
			req->status_code = UBUS_STATUS_CONNECTION_FAILED;
			break;
		}
		if (!has_read_ahead(ctx)) {
			pollfd pfd{ctx->sock.fd, POLLIN, 0};
			if (poll(&pfd, 1, wait) <= 0)
				continue;	// timeout or signal: the deadline check decides
		}
		int fd = -1;
		int got = read_message(ctx, &fd);
		if (got < 0) {
			if (!req->status_msg) {
				list_del_init(&req->list);
				req->status_msg = true;
				req->status_code = UBUS_STATUS_CONNECTION_FAILED;
			}
			disconnected(ctx);
			break;
		}
		if (got > 0)
			process_message(ctx, &ctx->msgbuf.hdr, ctx->msgbuf.data, fd);
	}

	ctx->stack_depth--;
	req->blocked = was_blocked;
	int status = req->status_code;
	if (req->complete_cb)
		req->complete_cb(req, status);

	// Calls that arrived while we waited run now, or from the loop if the socket is in it. So do messages that
	// came in the same read as our reply: the socket will not signal them again.
	if (!ctx->stack_depth && (!list_empty(&ctx->pending) || has_complete_message(ctx))) {
		if (ctx->sock.registered) {
			uloop_timeout_set(&ctx->pending_timer, 1);
		} else {
			process_pending(ctx);
			drain_read_ahead(ctx);
		}
	}
	return status;
}

static const char *const status_texts[] = {
	"Success",
	"Invalid command",
	"Invalid argument",
	"Method not found",
	"Not found",
	"No response",
	"Permission denied",
	"Request timed out",
	"Operation not supported",
	"Unknown error",
	"Connection failed",
	"Out of memory",
	"Parsing message data failed",
	"System error",
};

const char *ubus_strerror(int error)
{
	static char buf[32];
	if (error >= 0 && error < __UBUS_STATUS_LAST)
		return status_texts[error];
	snprintf(buf, sizeof(buf), "Unknown error: %d", error);
	return buf;
}
