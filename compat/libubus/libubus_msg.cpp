// Dispatch of received messages: replies go to the request waiting for them, calls go to the object's method
// handler (or wait in ctx->pending while a synchronous request is in progress).
#include "libubus_internal.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace ubus_internal {

namespace {

// A call (or subscription message) received while a synchronous request waited, with its own copy of the data.
struct Incoming {
	list_head list;
	ubus_msghdr hdr;
	int fd;
	blob_attr *data;
};

bool size_ok(int id, blob_attr *a)
{
	size_t len = blob_len(a);
	const char *p = static_cast<const char *>(blob_data(a));
	switch (id) {
	case UBUS_ATTR_STATUS:
	case UBUS_ATTR_OBJID:
	case UBUS_ATTR_OBJTYPE:
	case UBUS_ATTR_TARGET:
		return len == 4;
	case UBUS_ATTR_OBJPATH:
	case UBUS_ATTR_METHOD:
	case UBUS_ATTR_USER:
	case UBUS_ATTR_GROUP:
		return len >= 1 && p[len - 1] == 0;
	case UBUS_ATTR_ACTIVE:
	case UBUS_ATTR_NO_REPLY:
		return len == 1;
	default:
		return true;
	}
}

void close_fd(int fd)
{
	if (fd >= 0)
		close(fd);
}

void send_status(ubus_context *ctx, ubus_request_data *req, int status)
{
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_ATTR_STATUS, status);
	blob_put_int32(&b, UBUS_ATTR_OBJID, req->object);
	send_message(ctx, req->seq, b.head, UBUS_MSG_STATUS, req->peer, req->fd);
	close_fd(req->fd);
	req->fd = -1;
}

void handle_invoke(ubus_context *ctx, const ubus_msghdr *hdr, blob_attr *data, int fd)
{
	Attrs a(data);
	ubus_request_data req{};
	req.object = a[UBUS_ATTR_OBJID] ? blob_get_u32(a[UBUS_ATTR_OBJID]) : 0;
	req.peer = ntohl(hdr->peer);
	req.seq = ntohs(hdr->seq);
	req.fd = -1;
	req.req_fd = fd;
	if (a[UBUS_ATTR_USER])
		req.acl.user = blob_get_string(a[UBUS_ATTR_USER]);
	if (a[UBUS_ATTR_GROUP])
		req.acl.group = blob_get_string(a[UBUS_ATTR_GROUP]);
	bool no_reply = a[UBUS_ATTR_NO_REPLY] && blob_get_u8(a[UBUS_ATTR_NO_REPLY]);

	int ret;
	ubus_object *obj = a[UBUS_ATTR_OBJID] ? avl_find_element(&ctx->objects, &req.object, obj, avl) : nullptr;
	const char *method = a[UBUS_ATTR_METHOD] ? blob_get_string(a[UBUS_ATTR_METHOD]) : nullptr;
	if (!obj) {
		ret = UBUS_STATUS_NOT_FOUND;
	} else if (!method) {
		ret = UBUS_STATUS_INVALID_ARGUMENT;
	} else {
		req.acl.object = obj->name;
		// Dispatch uses the object's own method table; a method without a name takes every call.
		const ubus_method *m = nullptr;
		for (int i = 0; i < obj->n_methods; i++) {
			if (!obj->methods[i].name || !strcmp(obj->methods[i].name, method)) {
				m = &obj->methods[i];
				break;
			}
		}
		if (!m) {
			ret = UBUS_STATUS_METHOD_NOT_FOUND;
		} else if (!a[UBUS_ATTR_DATA]) {
			ret = UBUS_STATUS_INVALID_ARGUMENT;
		} else {
			ubus_context *saved;
			cork_begin(ctx, &saved);
			ret = m->handler(ctx, obj, &req, method, a[UBUS_ATTR_DATA]);
			if (!req.deferred && !no_reply)
				send_status(ctx, &req, ret);
			cork_end(saved);
			close_fd(req.req_fd);
			return;
		}
	}
	close_fd(req.req_fd);
	req.req_fd = -1;
	if (req.deferred || no_reply)
		return;
	send_status(ctx, &req, ret);
}

void handle_unsubscribe(ubus_context *ctx, blob_attr *data)
{
	Attrs a(data);
	if (!a[UBUS_ATTR_OBJID] || !a[UBUS_ATTR_TARGET])
		return;
	uint32_t id = blob_get_u32(a[UBUS_ATTR_OBJID]);
	ubus_object *obj = avl_find_element(&ctx->objects, &id, obj, avl);
	if (!obj || !is_subscriber(obj))
		return;
	ubus_subscriber *s = container_of(obj, ubus_subscriber, obj);
	if (s->remove_cb)
		s->remove_cb(ctx, s, blob_get_u32(a[UBUS_ATTR_TARGET]));
}

void handle_notify_state(ubus_context *ctx, blob_attr *data)
{
	Attrs a(data);
	if (!a[UBUS_ATTR_OBJID] || !a[UBUS_ATTR_ACTIVE])
		return;
	uint32_t id = blob_get_u32(a[UBUS_ATTR_OBJID]);
	ubus_object *obj = avl_find_element(&ctx->objects, &id, obj, avl);
	if (!obj)
		return;
	obj->has_subscribers = blob_get_u8(a[UBUS_ATTR_ACTIVE]);
	if (obj->subscribe_cb)
		obj->subscribe_cb(ctx, obj);
}

void process_incoming(ubus_context *ctx, const ubus_msghdr *hdr, blob_attr *data, int fd)
{
	switch (hdr->type) {
	case UBUS_MSG_INVOKE:
		handle_invoke(ctx, hdr, data, fd);
		return;
	case UBUS_MSG_UNSUBSCRIBE:
		handle_unsubscribe(ctx, data);
		break;
	case UBUS_MSG_NOTIFY:
		handle_notify_state(ctx, data);
		break;
	}
	close_fd(fd);
}

// Replies to a notification: the daemon's status lists the subscribers, then each subscriber answers.
void handle_notify_reply(ubus_context *ctx, ubus_notify_request *nreq, const ubus_msghdr *hdr, blob_attr *data,
			 const Attrs &a)
{
	uint32_t peer = ntohl(hdr->peer);
	int status = a[UBUS_ATTR_STATUS] ? int(blob_get_u32(a[UBUS_ATTR_STATUS])) : UBUS_STATUS_INVALID_ARGUMENT;
	(void)data;
	if (peer == nreq->req.peer) {
		if (hdr->type != UBUS_MSG_STATUS)
			return;
		int n = 0;
		if (!status && a[UBUS_ATTR_SUBSCRIBERS]) {
			blob_attr *cur;
			size_t rem;
			blob_for_each_attr(cur, a[UBUS_ATTR_SUBSCRIBERS], rem) {
				if (n >= UBUS_MAX_NOTIFY_PEERS || blob_len(cur) != 4)
					continue;
				nreq->id[n] = blob_get_u32(cur);
				nreq->pending |= 1u << n;
				n++;
			}
		}
		nreq->id[n] = 0;
		if (status || !n)
			notify_done(ctx, nreq, status);
		return;
	}
	int idx = -1;
	for (int i = 0; i < UBUS_MAX_NOTIFY_PEERS && nreq->id[i]; i++)
		if (nreq->id[i] == peer && (nreq->pending & (1u << i)))
			idx = i;
	if (idx < 0)
		return;
	if (hdr->type == UBUS_MSG_DATA) {
		if (nreq->data_cb && a[UBUS_ATTR_DATA])
			nreq->data_cb(nreq, UBUS_MSG_DATA, a[UBUS_ATTR_DATA]);
		return;
	}
	nreq->pending &= ~(1u << idx);
	if (nreq->status_cb)
		nreq->status_cb(nreq, idx, status);
	if (!nreq->pending)
		notify_done(ctx, nreq, UBUS_STATUS_OK);
}

void process_reply(ubus_context *ctx, const ubus_msghdr *hdr, blob_attr *data, int fd)
{
	uint16_t seq = ntohs(hdr->seq);
	uint32_t peer = ntohl(hdr->peer);
	ubus_request *req = nullptr, *cur;
	list_for_each_entry(cur, &ctx->requests, list) {
		if (cur->seq != seq)
			continue;
		if (cur->notify || cur->peer == peer) {
			req = cur;
			break;
		}
	}
	if (!req) {
		close_fd(fd);	// late (after the status or a timeout) or not ours
		return;
	}
	Attrs a(data);
	if (req->notify) {
		close_fd(fd);
		handle_notify_reply(ctx, container_of(req, ubus_notify_request, req), hdr, data, a);
		return;
	}
	if (hdr->type == UBUS_MSG_DATA) {
		close_fd(fd);
		if (req->raw_data_cb)
			req->raw_data_cb(req, UBUS_MSG_DATA, data);
		if (req->data_cb && a[UBUS_ATTR_DATA])
			req->data_cb(req, UBUS_MSG_DATA, a[UBUS_ATTR_DATA]);
		return;
	}
	if (fd >= 0) {
		if (req->fd_cb)
			req->fd_cb(req, fd);
		else
			close(fd);
	}
	int status = a[UBUS_ATTR_STATUS] ? int(blob_get_u32(a[UBUS_ATTR_STATUS])) : UBUS_STATUS_INVALID_ARGUMENT;
	request_done(ctx, req, status);
}

} // namespace

Attrs::Attrs(blob_attr *container)
{
	// Only what lies inside the container's own length is looked at; a repeated id keeps the last one.
	blob_attr *cur;
	size_t rem;
	blob_for_each_attr(cur, container, rem) {
		if (blob_raw_len(cur) < sizeof(blob_attr))
			break;
		unsigned id = blob_id(cur);
		if (id < UBUS_ATTR_MAX && size_ok(int(id), cur))
			tb[id] = cur;
	}
}

void process_message(ubus_context *ctx, const ubus_msghdr *hdr, blob_attr *data, int fd)
{
	switch (hdr->type) {
	case UBUS_MSG_STATUS:
	case UBUS_MSG_DATA:
		process_reply(ctx, hdr, data, fd);
		return;
	case UBUS_MSG_INVOKE:
	case UBUS_MSG_UNSUBSCRIBE:
	case UBUS_MSG_NOTIFY: {
		// The handler gets its own copy: a nested request reuses the receive buffer.
		size_t len = blob_pad_len(data);
		Incoming *in = static_cast<Incoming *>(calloc(1, sizeof(Incoming) + len));
		if (!in) {
			close_fd(fd);
			return;
		}
		in->hdr = *hdr;
		in->fd = fd;
		in->data = reinterpret_cast<blob_attr *>(in + 1);
		memcpy(in->data, data, len);
		if (ctx->stack_depth > 0) {
			list_add_tail(&in->list, &ctx->pending);
			return;
		}
		process_incoming(ctx, &in->hdr, in->data, in->fd);
		free(in);
		return;
	}
	case UBUS_MSG_MONITOR:
		if (ctx->monitor_cb)
			ctx->monitor_cb(ctx, ntohs(hdr->seq), data);
		break;
	}
	close_fd(fd);
}

void process_pending(ubus_context *ctx)
{
	while (!ctx->stack_depth && !list_empty(&ctx->pending)) {
		Incoming *in = list_first_entry(&ctx->pending, Incoming, list);
		list_del(&in->list);
		process_incoming(ctx, &in->hdr, in->data, in->fd);
		free(in);
	}
}

void drop_pending(ubus_context *ctx)
{
	if (!ctx->pending.next)
		return;
	while (!list_empty(&ctx->pending)) {
		Incoming *in = list_first_entry(&ctx->pending, Incoming, list);
		list_del(&in->list);
		close_fd(in->fd);
		free(in);
	}
}

} // namespace ubus_internal
