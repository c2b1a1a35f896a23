// Message I/O of the client library: framing of sent and received messages (with the read-ahead buffer), the
// holding back of a handler's replies, and the synchronous wait for a request.
#include "libubus_internal.h"
#include "fdpass.h"

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

constexpr size_t kPrefix = sizeof(ubus_msghdr) + 4;	// header and the container's blob header

int64_t now_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
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
		int got = -1;
		ssize_t n = ubus_wire::recv_with_fd(ctx->sock.fd, ra.buf.data() + old, room, MSG_DONTWAIT, &got);
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
		if (got >= 0 && ra.fd >= 0) {
			close(got);
		} else if (got >= 0) {
			ra.fd = got;
			ra.fd_end = ra.buf.size();
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
		ssize_t w = ubus_wire::send_with_fd(ctx->sock.fd, cur, size_t(cnt), fd_sent ? -1 : fd, MSG_NOSIGNAL);
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


