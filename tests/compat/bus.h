// The bus tests' harness: a private bus daemon per test, a test server (this same test executable started again
// with GWCONF_UBUS_TEST_SERVER set: a static initializer takes over before main()), and messages built and read
// by hand. Included by the one bus test file.
#pragma once

#include "support.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}
#include <libubus.h>

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace bus {

using namespace ct;

// ---- the test server: "test" (a method per behaviour), "test.types" (every argument type, a mask, no
// arguments), "test.any" (a method without a name takes every call) ----
namespace server {

inline blob_buf reply;
inline ubus_request_data deferred_req;
inline uloop_timeout timer;
inline ubus_context *ctx;
inline const char *socket_path;

// Sends a reply built by fill (nothing when fill is null) and returns status.
inline int answer(ubus_context *c, ubus_request_data *req, void (*fill)(blob_buf *), int status = 0)
{
	blob_buf_init(&reply, 0);
	if (fill) {
		fill(&reply);
		ubus_send_reply(c, req, reply.head);
	}
	return status;
}

#define HANDLER(name) inline int name(ubus_context *c, ubus_object *obj, ubus_request_data *req, const char *method, \
				      blob_attr *msg)
HANDLER(echo)
{
	(void)obj, (void)method;
	blob_buf_init(&reply, 0);
	blob_attr *cur;
	size_t rem;
	blob_for_each_attr(cur, msg, rem) blobmsg_add_blob(&reply, cur);
	ubus_send_reply(c, req, reply.head);
	return 0;
}
HANDLER(multi)
{
	(void)obj, (void)method, (void)msg;
	answer(c, req, [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); });
	return answer(c, req, [](blob_buf *b) { blobmsg_add_u32(b, "n", 2); });
}
HANDLER(partial)
{
	(void)obj, (void)method, (void)msg;
	return answer(c, req, [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); }, UBUS_STATUS_NOT_SUPPORTED);
}
HANDLER(silent) { return (void)c, (void)obj, (void)req, (void)method, (void)msg, 0; }
HANDLER(empty) { return (void)obj, (void)method, (void)msg, answer(c, req, [](blob_buf *) {}); }
HANDLER(nested)
{
	(void)obj, (void)method, (void)msg;
	return answer(c, req, [](blob_buf *b) {
		void *a = blobmsg_open_table(b, "a"), *l = blobmsg_open_array(b, "b");
		blobmsg_add_u32(b, nullptr, 1);
		blobmsg_add_string(b, nullptr, "x");
		void *t = blobmsg_open_table(b, nullptr);
		blobmsg_add_u8(b, "c", 1);
		blobmsg_close_table(b, t);
		blobmsg_close_array(b, l);
		blobmsg_close_table(b, a);
		blobmsg_add_string(b, "s", "q\"uote");
	});
}
inline const blobmsg_policy status_policy[] = {{"code", BLOBMSG_TYPE_INT32}};
HANDLER(status)	// returns the status it is given: any int travels unchanged
{
	(void)c, (void)obj, (void)req, (void)method;
	blob_attr *tb[1];
	blobmsg_parse(status_policy, 1, tb, blob_data(msg), unsigned(blob_len(msg)));
	return tb[0] ? int(blobmsg_get_u32(tb[0])) : 0;
}
HANDLER(hang) { return (void)obj, (void)method, (void)msg, ubus_defer_request(c, req, &deferred_req), 0; }
HANDLER(deferred)	// answers from the loop after the handler returned
{
	hang(c, obj, req, method, msg);
	timer.cb = [](uloop_timeout *) {
		answer(ctx, &deferred_req, [](blob_buf *b) { blobmsg_add_u8(b, "late", 1); });
		ubus_complete_deferred_request(ctx, &deferred_req, 0);
	};
	return uloop_timeout_set(&timer, 20), 0;
}
HANDLER(after_status)	// the status first, then a reply the caller must not see
{
	(void)obj, (void)method, (void)msg;
	ubus_request_data later;
	ubus_defer_request(c, req, &later);
	ubus_complete_deferred_request(c, &later, 0);
	return answer(c, &later, [](blob_buf *b) { blobmsg_add_string(b, "after", "status"); });
}
HANDLER(die)
{
	(void)c, (void)obj, (void)req, (void)method, (void)msg;
	_exit(0);
}
HANDLER(big)	// a reply above the message limit: the bus daemon drops this client
{
	(void)obj, (void)method, (void)msg;
	return answer(c, req, [](blob_buf *b) { blobmsg_add_string(b, "s", std::string(1100 * 1024, 'x').c_str()); });
}
HANDLER(whoami)
{
	(void)msg;
	blob_buf_init(&reply, 0);
	blobmsg_add_string(&reply, "user", req->acl.user ? req->acl.user : "");
	blobmsg_add_string(&reply, "group", req->acl.group ? req->acl.group : "");
	blobmsg_add_string(&reply, "object", req->acl.object ? req->acl.object : "");
	blobmsg_add_string(&reply, "method", method);
	blobmsg_add_u32(&reply, "objid", obj->id);
	blobmsg_add_u32(&reply, "reqobj", req->object);
	ubus_send_reply(c, req, reply.head);
	return 0;
}
inline const blobmsg_policy call_policy[] = {
	{"path", BLOBMSG_TYPE_STRING}, {"method", BLOBMSG_TYPE_STRING}, {"timeout", BLOBMSG_TYPE_INT32}};
HANDLER(call)	// calls another object from inside the handler and passes its replies and status on
{
	(void)obj, (void)method;
	blob_attr *tb[3];
	blobmsg_parse(call_policy, 3, tb, blob_data(msg), unsigned(blob_len(msg)));
	uint32_t id;
	if (!tb[0] || !tb[1])
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (int ret = ubus_lookup_id(c, blobmsg_get_string(tb[0]), &id))
		return ret;
	std::string name = blobmsg_get_string(tb[1]);	// the outer call's data stays readable during the call
	int ret = ubus_invoke(c, id, name.c_str(), nullptr, [](ubus_request *r, int, blob_attr *m) {
		blob_buf_init(&reply, 0);
		blob_attr *cur;
		size_t rem;
		blob_for_each_attr(cur, m, rem) blobmsg_add_blob(&reply, cur);
		ubus_send_reply(r->ctx, static_cast<ubus_request_data *>(r->priv), reply.head);
	}, req, tb[2] ? int(blobmsg_get_u32(tb[2])) : 2000);
	return name == blobmsg_get_string(tb[1]) ? ret : UBUS_STATUS_UNKNOWN_ERROR;
}
HANDLER(notify)
{
	(void)method;
	int ret = ubus_notify(c, obj, "hello", msg, 1000);
	blob_buf_init(&reply, 0);
	blobmsg_add_u32(&reply, "status", uint32_t(ret));
	blobmsg_add_u8(&reply, "active", obj->has_subscribers);
	ubus_send_reply(c, req, reply.head);
	return 0;
}
#undef HANDLER

inline const blobmsg_policy echo_policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
inline const ubus_method test_methods[] = {
	UBUS_METHOD("echo", echo, echo_policy), UBUS_METHOD_NOARG("multi", multi),
	UBUS_METHOD_NOARG("silent", silent), UBUS_METHOD_NOARG("partial", partial), UBUS_METHOD_NOARG("empty", empty),
	UBUS_METHOD_NOARG("nested", nested), UBUS_METHOD("status", status, status_policy),
	UBUS_METHOD_NOARG("hang", hang), UBUS_METHOD_NOARG("deferred", deferred),
	UBUS_METHOD_NOARG("after_status", after_status), UBUS_METHOD_NOARG("die", die), UBUS_METHOD_NOARG("big", big),
	UBUS_METHOD_NOARG("whoami", whoami), UBUS_METHOD("call", call, call_policy), UBUS_METHOD_NOARG("notify", notify),
};
inline ubus_object_type test_type = UBUS_OBJECT_TYPE("test", test_methods);
inline ubus_object test_obj = {.name = "test", .type = &test_type, .methods = test_methods, .n_methods = ARRAY_SIZE(test_methods)};
inline const blobmsg_policy all_types[] = {
	{"a", BLOBMSG_TYPE_ARRAY}, {"t", BLOBMSG_TYPE_TABLE}, {"s", BLOBMSG_TYPE_STRING},
	{"i64", BLOBMSG_TYPE_INT64}, {"i", BLOBMSG_TYPE_INT32}, {"i16", BLOBMSG_TYPE_INT16},
	{"b", BLOBMSG_TYPE_BOOL}, {"d", BLOBMSG_TYPE_DOUBLE}, {"u", BLOBMSG_TYPE_UNSPEC},
};
inline const ubus_method types_methods[] = {
	UBUS_METHOD("all", silent, all_types), UBUS_METHOD_NOARG("none", silent),
	UBUS_METHOD_MASK("masked", silent, all_types, (1 << 2) | (1 << 4)),
};
inline ubus_object_type types_type = UBUS_OBJECT_TYPE("types", types_methods);
inline ubus_object types_obj = {.name = "test.types", .type = &types_type, .methods = types_methods,
				.n_methods = ARRAY_SIZE(types_methods)};
inline const ubus_method any_methods[] = {{.name = nullptr, .handler = whoami}};
inline const ubus_method any_signature[] = {UBUS_METHOD_NOARG("whoami", whoami)};
inline ubus_object_type any_type = UBUS_OBJECT_TYPE("any", any_signature);
inline ubus_object any_obj = {.name = "test.any", .type = &any_type, .methods = any_methods, .n_methods = 1};

inline int run(const char *sock)
{
	socket_path = sock;
	if (!(ctx = ubus_connect(sock)))
		return 10;
	ctx->connection_lost = [](ubus_context *) {	// reconnect every 50 ms until the daemon is back
		timer.cb = [](uloop_timeout *t) {
			if (ubus_reconnect(ctx, socket_path) != UBUS_STATUS_OK)
				uloop_timeout_set(t, 50);
			else
				ubus_add_uloop(ctx);
		};
		uloop_timeout_set(&timer, 50);
	};
	if (ubus_add_object(ctx, &types_obj) || ubus_add_object(ctx, &any_obj) ||
	    ubus_add_object(ctx, &test_obj))	// "test" last: once it is visible, all are
		return 11;
	ubus_add_uloop(ctx);
	uloop_run();
	return 0;
}

inline struct Hook {
	Hook()
	{
		if (const char *sock = getenv("GWCONF_UBUS_TEST_SERVER"))
			_exit(run(sock));
		uloop_handle_sigchld = false;	// the tests wait for their own children
	}
} hook;

} // namespace server

inline int connect_unix(const std::string &path)
{
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_un sun{};
	sun.sun_family = AF_UNIX;
	snprintf(sun.sun_path, sizeof(sun.sun_path), "%s", path.c_str());
	if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) < 0) {
		close(fd);
		return -1;
	}
	return fd;
}

// A bus daemon on <tmp>/ubus.sock for every test; the test server on demand.
class BusTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		sock = dir.path + "/ubus.sock";
		start_ubusd();
	}
	void start_ubusd()
	{
		ubusd = spawn({bin("ubusd"), "-s", sock});
		int fd = -1;	// the socket file exists from bind() on, but takes connections only once listening
		for (int i = 0; i < 1000 && (fd = connect_unix(sock)) < 0; i++)
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
		ASSERT_GE(fd, 0) << "ubusd did not start";
		close(fd);
	}
	void TearDown() override
	{
		if (ctx)
			ubus_free(ctx);
		stop(server);
		stop(ubusd);
	}
	ubus_context *client() { return ctx ? ctx : (ctx = ubus_connect(sock.c_str())); }
	// Waits until `path` is published (or gone, with present=false).
	bool wait_object(const char *path, bool present = true)
	{
		ubus_context *c = ubus_connect(sock.c_str());
		bool ok = false;
		for (int i = 0; c && i < 1000 && !ok; i++) {
			uint32_t id = 0;
			ok = (ubus_lookup_id(c, path, &id) == 0 && id) == present;
			if (!ok)
				std::this_thread::sleep_for(std::chrono::milliseconds(5));
		}
		if (c)
			ubus_free(c);
		return ok;
	}
	void start_server()
	{
		server = spawn({"/proc/self/exe"}, {"GWCONF_UBUS_TEST_SERVER=" + sock});
		ASSERT_TRUE(wait_object("test")) << "test server did not publish its objects";
	}
	// The ubus tool on this bus; stderr through a terminal when tty is set.
	Result ubus(std::vector<std::string> args, bool tty = false)
	{
		args.insert(args.begin(), {bin("ubus"), "-s", sock});
		return run(args, "", tty);
	}

	TempDir dir;
	std::string sock;
	pid_t ubusd = -1, server = -1;
	ubus_context *ctx = nullptr;
};

// ---- messages by hand ----

using Bytes = std::vector<uint8_t>;

inline Bytes hex(const std::string &s)	// blanks and '|' are ignored
{
	Bytes b;
	std::string digits;
	std::copy_if(s.begin(), s.end(), std::back_inserter(digits), [](char c) { return isxdigit(c); });
	for (size_t i = 0; i + 1 < digits.size(); i += 2)
		b.push_back(uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
	return b;
}
inline std::string to_hex(const Bytes &b)
{
	std::string s;
	char buf[3];
	for (uint8_t c : b)
		s += (snprintf(buf, sizeof(buf), "%02x", c), buf);
	return s;
}
inline uint32_t be32(const uint8_t *p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
inline Bytes u32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
inline Bytes str(const std::string &s)
{
	Bytes b(s.begin(), s.end());
	b.push_back(0);
	return b;
}
// A message from its header fields and plain attributes (id, payload).
inline Bytes message(uint8_t type, uint16_t seq, uint32_t peer, const std::vector<std::pair<uint8_t, Bytes>> &attrs)
{
	Bytes body;
	for (const auto &[id, data] : attrs) {
		Bytes h = u32(uint32_t(id) << 24 | uint32_t(4 + data.size()));
		body.insert(body.end(), h.begin(), h.end());
		body.insert(body.end(), data.begin(), data.end());
		body.resize((body.size() + 3) & ~size_t(3), 0);
	}
	Bytes m = {0, type, uint8_t(seq >> 8), uint8_t(seq)}, p = u32(peer), l = u32(uint32_t(4 + body.size()));
	m.insert(m.end(), p.begin(), p.end());
	m.insert(m.end(), l.begin(), l.end());
	m.insert(m.end(), body.begin(), body.end());
	return m;
}

struct Msg {
	uint8_t type = 0xff;	// 0xff: nothing came
	uint16_t seq = 0;
	uint32_t peer = 0;
	Bytes bytes;
	Bytes attr(uint8_t id) const	// payload of the first attribute with this id (empty when absent)
	{
		size_t end = std::min(bytes.size(), size_t(8 + (be32(&bytes[8]) & 0xffffff)));
		for (size_t p = 12; p + 4 <= end;) {
			size_t raw = be32(&bytes[p]) & 0xffffff;
			if (raw < 4 || p + raw > end)
				break;
			if (bytes[p] == id)
				return Bytes(bytes.begin() + long(p + 4), bytes.begin() + long(p + raw));
			p += (raw + 3) & ~size_t(3);
		}
		return {};
	}
	uint32_t attr32(uint8_t id) const
	{
		Bytes a = attr(id);
		return a.size() == 4 ? be32(a.data()) : 0xdeadbeef;
	}
};

// One end of a connection speaking the protocol by hand: a client, or (on an accepted socket) a daemon.
struct Raw {
	explicit Raw(const std::string &path) : fd(connect_unix(path)) {}
	explicit Raw(int sock) : fd(sock) {}
	~Raw() { close(fd); }
	bool send(const Bytes &b) { return ::send(fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size()); }
	Msg recv(int timeout_ms = 2000)
	{
		Msg m;
		if (!read_n(12, m.bytes, timeout_ms))
			return Msg();
		size_t raw = be32(&m.bytes[8]) & 0xffffff;
		if (raw > 4 && !read_n(raw - 4, m.bytes, timeout_ms))
			return Msg();
		m.type = m.bytes[1];
		m.seq = uint16_t(m.bytes[2] << 8 | m.bytes[3]);
		m.peer = be32(&m.bytes[4]);
		return m;
	}
	uint32_t hello()
	{
		Msg m = recv();
		EXPECT_EQ(m.type, UBUS_MSG_HELLO);
		return m.peer;
	}
	bool closed(int timeout_ms = 2000)	// the other end closed the connection
	{
		pollfd p{fd, POLLIN, 0};
		char c[256];
		while (poll(&p, 1, timeout_ms) > 0)
			if (::recv(fd, c, sizeof(c), 0) <= 0)
				return true;
		return false;
	}
	bool read_n(size_t n, Bytes &out, int timeout_ms)
	{
		for (uint8_t buf[65536]; n > 0;) {
			pollfd p{fd, POLLIN, 0};
			ssize_t got = poll(&p, 1, timeout_ms) > 0 ? ::recv(fd, buf, std::min(n, sizeof(buf)), 0) : 0;
			if (got <= 0)
				return false;
			out.insert(out.end(), buf, buf + got);
			n -= size_t(got);
		}
		return true;
	}
	int fd;
};

// The signature of one method "echo" with arguments id:INT32 and msg:STRING, as clients send it.
inline const char *const kEchoSignature = "8200002c 0004 6563686f 0000 85000010 0002 6964 00 000000 00000005 "
					  "85000010 0003 6d7367 00 0000 00000003";

} // namespace bus
