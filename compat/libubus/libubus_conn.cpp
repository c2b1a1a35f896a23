// Connection handling of the client library: connect and HELLO, reconnect, the uloop read handler, shutdown,
// and the status texts.
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

namespace {

// Reads exactly len bytes from a non-blocking socket, waiting for readiness as needed. Returns false on end of
// file, error or when the peer stalls.
bool read_exact(int fd, void *buf, size_t len)
{
	uint8_t *p = static_cast<uint8_t *>(buf);
	while (len > 0) {
		ssize_t n = recv(fd, p, len, 0);
		if (n == 0)
			return false;
		if (n < 0) {
			if (errno == EINTR)
				continue;
			if (errno != EAGAIN && errno != EWOULDBLOCK)
				return false;
			pollfd pfd{fd, POLLIN, 0};
			int ready = poll(&pfd, 1, ubus_internal::kMessageBodyTimeoutMs);
			if (ready < 0 && errno == EINTR)
				continue;	// a signal handler ran (SIGCHLD of the loop): wait again
			if (ready <= 0)
				return false;
			continue;
		}
		p += n;
		len -= size_t(n);
	}
	return true;
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
	bool ok = read_exact(fd, prefix, sizeof(prefix));
	if (ok) {
		memcpy(&hdr, prefix, sizeof(hdr));
		memcpy(&raw, prefix + sizeof(hdr), 4);
		raw = ntohl(raw) & BLOB_ATTR_LEN_MASK;
		ok = hdr.type == UBUS_MSG_HELLO && header_acceptable(hdr, raw);
	}
	if (ok && raw > 4) {
		void *rest = malloc(raw - 4);
		ok = rest && read_exact(fd, rest, raw - 4);
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
