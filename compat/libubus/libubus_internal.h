// Shared pieces of the client library's source files; not installed.
#pragma once

#include "libubus.h"

namespace ubus_internal {

// Scratch buffer every outgoing request is built in (single-threaded library).
extern blob_buf b;

// Attributes of a received message, by UBUS_ATTR_* id; entries that are absent or of the wrong size are NULL.
struct Attrs {
	blob_attr *tb[UBUS_ATTR_MAX] = {};
	explicit Attrs(blob_attr *container);
	blob_attr *operator[](int id) const { return tb[id]; }
};

// How long the rest of a message that has started to arrive may take.
constexpr int kMessageBodyTimeoutMs = 10000;

// False for a header the stream cannot be trusted after: a version other than 0, or a container length that is
// impossible or above the message limit.
inline bool header_acceptable(const ubus_msghdr &hdr, uint32_t container_raw)
{
	return hdr.version == 0 && container_raw >= sizeof(blob_attr) &&
	       ((container_raw + 3) & ~3u) <= UBUS_MAX_MSGLEN;
}

// Reads one whole message into ctx->msgbuf: 1 when one was read, 0 when nothing is waiting, -1 when the
// connection is broken (end of file, error, or a header that cannot be trusted).
int read_message(ubus_context *ctx, int *fd);
void forget_read_ahead(ubus_context *ctx);
bool has_read_ahead(const ubus_context *ctx);	// bytes already received but not yet handed out
bool has_complete_message(const ubus_context *ctx);
// Handles the complete messages already received (when no synchronous request is waiting).
void drain_read_ahead(ubus_context *ctx);
int send_message(ubus_context *ctx, uint16_t seq, blob_attr *msg, int type, uint32_t peer, int fd);
// Holds back DATA messages on ctx until the next other message or cork_end() (handlers nest strictly).
void cork_begin(ubus_context *ctx, ubus_context **saved);
void cork_end(ubus_context *saved);

// Called when the socket reached end of file: fails waiting requests, then runs ctx->connection_lost.
void disconnected(ubus_context *ctx);

// Handles a received message whose header is in wire order and whose container is `data`.
void process_message(ubus_context *ctx, const ubus_msghdr *hdr, blob_attr *data, int fd);
// Runs the incoming calls that were queued while a synchronous request waited.
void process_pending(ubus_context *ctx);
void drop_pending(ubus_context *ctx);

void start_request(ubus_context *ctx, ubus_request *req, uint32_t peer);
// Fills *req and sends msg as a request of the given type; -1 when it cannot be sent.
int send_request(ubus_context *ctx, ubus_request *req, blob_attr *msg, int type, uint32_t peer, int fd);
void request_done(ubus_context *ctx, ubus_request *req, int status);

// Registers again every object known to ctx, after a new connection was made.
void readd_objects(ubus_context *ctx);
bool is_subscriber(const ubus_object *obj);
void notify_done(ubus_context *ctx, ubus_notify_request *nreq, int status);
int compare_ids(const void *k1, const void *k2, void *ptr);

} // namespace ubus_internal
