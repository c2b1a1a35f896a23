// Requests of the client library: objects, lookups, calls and their replies, events, subscriptions and
// notifications, and the self-reconnecting connection.
#include "libubus_internal.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace ubus_internal {

namespace {

int watch_handler(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg)
{
	ubus_subscriber *s = container_of(obj, ubus_subscriber, obj);
	return s->cb ? s->cb(ctx, obj, req, method, msg) : 0;
}

int event_handler(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg)
{
	(void)req;
	ubus_event_handler *ev = container_of(obj, ubus_event_handler, obj);
	if (ev->cb)
		ev->cb(ctx, ev, method, msg);
	return 0;
}

// Anonymous objects created for subscribers and event handlers take every method name.
const ubus_method watch_method = {.name = nullptr, .handler = watch_handler, .mask = 0, .tags = 0,
				  .policy = nullptr, .n_policy = 0};
const ubus_method event_method = {.name = nullptr, .handler = event_handler, .mask = 0, .tags = 0,
				  .policy = nullptr, .n_policy = 0};

// The advertised signature: per method a table of "argument": type number, filtered by the method's mask.
bool put_signature(const ubus_object_type *type)
{
	void *sig = blob_nest_start(&b, UBUS_ATTR_SIGNATURE);
	if (!sig)
		return false;
	for (int i = 0; i < type->n_methods; i++) {
		const ubus_method &m = type->methods[i];
		if (!m.name)
			continue;
		void *t = blobmsg_open_table(&b, m.name);
		if (!t)
			return false;
		for (int p = 0; m.policy && p < m.n_policy; p++) {
			if (m.mask && !(m.mask & (1ul << p)))
				continue;
			if (!m.policy[p].name)
				continue;
			blobmsg_add_u32(&b, m.policy[p].name, m.policy[p].type);
		}
		blobmsg_close_table(&b, t);
	}
	blob_nest_end(&b, sig);
	return true;
}

void add_object_reply(ubus_request *req, int type, blob_attr *msg)
{
	(void)type;
	ubus_object *obj = static_cast<ubus_object *>(req->priv);
	Attrs a(msg);
	if (!a[UBUS_ATTR_OBJID])
		return;
	obj->id = blob_get_u32(a[UBUS_ATTR_OBJID]);
	if (a[UBUS_ATTR_OBJTYPE] && obj->type)
		obj->type->id = blob_get_u32(a[UBUS_ATTR_OBJTYPE]);
	obj->avl.key = &obj->id;
	avl_insert(&req->ctx->objects, &obj->avl);
}

void remove_object_reply(ubus_request *req, int type, blob_attr *msg)
{
	(void)type;
	ubus_object *obj = static_cast<ubus_object *>(req->priv);
	Attrs a(msg);
	if (!a[UBUS_ATTR_OBJID] || blob_get_u32(a[UBUS_ATTR_OBJID]) != obj->id)
		return;
	avl_delete(&req->ctx->objects, &obj->avl);
	obj->id = 0;
	if (a[UBUS_ATTR_OBJTYPE] && obj->type)
		obj->type->id = 0;
}

struct LookupCall {
	ubus_lookup_handler_t cb;
	void *priv;
};

void lookup_reply(ubus_request *req, int type, blob_attr *msg)
{
	(void)type;
	LookupCall *call = static_cast<LookupCall *>(req->priv);
	Attrs a(msg);
	if (!a[UBUS_ATTR_OBJID] || !a[UBUS_ATTR_OBJPATH])
		return;
	ubus_object_data data{};
	data.id = blob_get_u32(a[UBUS_ATTR_OBJID]);
	data.type_id = a[UBUS_ATTR_OBJTYPE] ? blob_get_u32(a[UBUS_ATTR_OBJTYPE]) : 0;
	data.path = blob_get_string(a[UBUS_ATTR_OBJPATH]);
	data.signature = a[UBUS_ATTR_SIGNATURE];
	call->cb(req->ctx, &data, call->priv);
}

void lookup_id_cb(ubus_context *ctx, ubus_object_data *obj, void *priv)
{
	(void)ctx;
	*static_cast<uint32_t *>(priv) = obj->id;
}

// Builds OBJID, METHOD and DATA (the children of msg, empty for NULL) of a call or notification.
void put_call(uint32_t obj, const char *method, blob_attr *msg)
{
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
	blob_put_string(&b, UBUS_ATTR_METHOD, method);
	blob_put(&b, UBUS_ATTR_DATA, msg ? blob_data(msg) : nullptr, msg ? unsigned(blob_len(msg)) : 0);
}

// Copies the members of a blobmsg container into the table being built in buf.
void copy_members(blob_buf *buf, blob_attr *msg)
{
	if (!msg)
		return;
	blob_attr *cur;
	size_t rem;
	blob_for_each_attr(cur, msg, rem)
		blobmsg_add_field(buf, blobmsg_type(cur), blobmsg_name(cur), blobmsg_data(cur),
				  unsigned(blobmsg_data_len(cur)));
}

// Sends the message built in b and waits for its status; raw_cb, when given, sees each reply message.
int simple_request(ubus_context *ctx, int type, uint32_t peer, ubus_data_handler_t raw_cb = nullptr,
		   void *priv = nullptr)
{
	ubus_request req;
	if (send_request(ctx, &req, b.head, type, peer, -1) < 0)
		return UBUS_STATUS_INVALID_ARGUMENT;
	req.raw_data_cb = raw_cb;
	req.priv = priv;
	return ubus_complete_request(ctx, &req, 0);
}

} // namespace

int compare_ids(const void *k1, const void *k2, void *ptr)
{
	(void)ptr;
	uint32_t a = *static_cast<const uint32_t *>(k1), b2 = *static_cast<const uint32_t *>(k2);
	return a < b2 ? -1 : a > b2;
}

bool is_subscriber(const ubus_object *obj)
{
	return obj->methods == &watch_method;
}

void notify_done(ubus_context *ctx, ubus_notify_request *nreq, int status)
{
	(void)ctx;
	list_del_init(&nreq->req.list);
	nreq->req.status_msg = true;
	nreq->req.status_code = status;
	if (!nreq->req.blocked && nreq->complete_cb)
		nreq->complete_cb(nreq, 0, status);
}

void readd_objects(ubus_context *ctx)
{
	// New connection, new ids: forget the old ones (types included), then register every object again.
	std::vector<ubus_object *> objs;
	ubus_object *obj, *tmp;
	avl_for_each_element_safe(&ctx->objects, obj, avl, tmp) {
		objs.push_back(obj);
		if (obj->type)
			obj->type->id = 0;
	}
	avl_init(&ctx->objects, compare_ids, false, nullptr);
	for (ubus_object *o : objs)
		o->id = 0;
	for (ubus_object *o : objs)
		ubus_add_object(ctx, o);
}

} // namespace ubus_internal

using namespace ubus_internal;

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	blob_buf_init(&b, 0);
	if (obj->name)
		blob_put_string(&b, UBUS_ATTR_OBJPATH, obj->name);
	if (obj->type) {
		if (obj->type->id)
			blob_put_int32(&b, UBUS_ATTR_OBJTYPE, obj->type->id);
		else if (!put_signature(obj->type))
			return UBUS_STATUS_INVALID_ARGUMENT;
	}
	int ret = simple_request(ctx, UBUS_MSG_ADD_OBJECT, 0, add_object_reply, obj);
	if (ret)
		return ret;
	return obj->id ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_ATTR_OBJID, obj->id);
	int ret = simple_request(ctx, UBUS_MSG_REMOVE_OBJECT, 0, remove_object_reply, obj);
	if (ret)
		return ret;
	return obj->id ? UBUS_STATUS_NO_DATA : UBUS_STATUS_OK;
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
	blob_buf_init(&b, 0);
	if (path)
		blob_put_string(&b, UBUS_ATTR_OBJPATH, path);
	ubus_request req;
	if (send_request(ctx, &req, b.head, UBUS_MSG_LOOKUP, 0, -1) < 0)
		return UBUS_STATUS_INVALID_ARGUMENT;
	LookupCall call{cb, priv};
	req.raw_data_cb = lookup_reply;
	req.priv = &call;
	return ubus_complete_request(ctx, &req, 0);
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id)
{
	return ubus_lookup(ctx, path, lookup_id_cb, id);
}

int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
			 struct ubus_request *req, int fd)
{
	put_call(obj, method, msg);
	if (send_request(ctx, req, b.head, UBUS_MSG_INVOKE, obj, fd) < 0)
		return UBUS_STATUS_INVALID_ARGUMENT;
	return UBUS_STATUS_OK;
}

int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
		   ubus_data_handler_t cb, void *priv, int timeout, int fd)
{
	ubus_request req;
	int ret = ubus_invoke_async_fd(ctx, obj, method, msg, &req, fd);
	if (ret)
		return ret;
	req.data_cb = cb;
	req.priv = priv;
	return ubus_complete_request(ctx, &req, timeout);
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg)
{
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_ATTR_OBJID, req->object);
	blob_put(&b, UBUS_ATTR_DATA, msg ? blob_data(msg) : nullptr, msg ? unsigned(blob_len(msg)) : 0);
	if (send_message(ctx, req->seq, b.head, UBUS_MSG_DATA, req->peer, -1) < 0)
		return UBUS_STATUS_NO_DATA;
	return UBUS_STATUS_OK;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret)
{
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_ATTR_STATUS, ret);
	blob_put_int32(&b, UBUS_ATTR_OBJID, req->object);
	send_message(ctx, req->seq, b.head, UBUS_MSG_STATUS, req->peer, req->fd);
	if (req->fd >= 0)
		close(req->fd);
	req->fd = -1;
}

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data)
{
	static blob_buf args;
	blob_buf_init(&args, 0);
	blobmsg_add_string(&args, "id", id);
	void *t = blobmsg_open_table(&args, "data");
	copy_members(&args, data);
	blobmsg_close_table(&args, t);
	return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", args.head, nullptr, nullptr, 0);
}

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern)
{
	ubus_object *obj = &ev->obj;
	if (!obj->id) {
		obj->methods = &event_method;
		obj->n_methods = 1;
		int ret = ubus_add_object(ctx, obj);
		if (ret)
			return ret;
	}
	static blob_buf args;
	blob_buf_init(&args, 0);
	blobmsg_add_u32(&args, "object", obj->id);
	blobmsg_add_string(&args, "pattern", pattern ? pattern : "*");
	return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", args.head, nullptr, nullptr, 0);
}

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *s)
{
	s->obj.methods = &watch_method;
	s->obj.n_methods = 1;
	return ubus_add_object(ctx, &s->obj);
}

static int subscription(struct ubus_context *ctx, struct ubus_subscriber *s, uint32_t id, int type)
{
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_ATTR_OBJID, s->obj.id);
	blob_put_int32(&b, UBUS_ATTR_TARGET, id);
	return simple_request(ctx, type, 0);
}

int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *s, uint32_t id)
{
	return subscription(ctx, s, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *s, uint32_t id)
{
	return subscription(ctx, s, id, UBUS_MSG_UNSUBSCRIBE);
}

static int notify_start(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
			struct ubus_notify_request *nreq, bool reply)
{
	put_call(obj->id, type, msg);
	if (!reply)
		blob_put_int8(&b, UBUS_ATTR_NO_REPLY, 1);
	memset(nreq, 0, sizeof(*nreq));
	if (send_request(ctx, &nreq->req, b.head, UBUS_MSG_NOTIFY, obj->id, -1) < 0)
		return UBUS_STATUS_INVALID_ARGUMENT;
	nreq->req.notify = true;
	return UBUS_STATUS_OK;
}

int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
		      struct ubus_notify_request *req)
{
	return notify_start(ctx, obj, type, msg, req, true);
}

int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
		int timeout)
{
	ubus_notify_request nreq;
	int ret = notify_start(ctx, obj, type, msg, &nreq, timeout >= 0);
	if (ret || timeout < 0)
		return ret;
	return ubus_complete_request(ctx, &nreq.req, timeout);
}

static void auto_reconnect(struct uloop_timeout *t)
{
	ubus_auto_conn *conn = container_of(t, ubus_auto_conn, timer);
	if (ubus_reconnect(&conn->ctx, conn->path) != UBUS_STATUS_OK) {
		uloop_timeout_set(t, 1000);
		return;
	}
	ubus_add_uloop(&conn->ctx);
}

static void auto_connection_lost(struct ubus_context *ctx)
{
	ubus_auto_conn *conn = container_of(ctx, ubus_auto_conn, ctx);
	conn->timer.cb = auto_reconnect;
	uloop_timeout_set(&conn->timer, 1000);
}

static void auto_connect_retry(struct uloop_timeout *t)
{
	ubus_auto_connect(container_of(t, ubus_auto_conn, timer));
}

void ubus_auto_connect(struct ubus_auto_conn *conn)
{
	conn->timer.cb = auto_connect_retry;
	if (ubus_connect_ctx(&conn->ctx, conn->path)) {
		fprintf(stderr, "failed to connect to ubus\n");
		uloop_timeout_set(&conn->timer, 1000);
		return;
	}
	conn->ctx.connection_lost = auto_connection_lost;
	if (conn->cb)
		conn->cb(&conn->ctx);
	ubus_add_uloop(&conn->ctx);
}
