// The client library against our bus daemon: registration, lookup, calls and their statuses, timeouts, a callee
// that dies, two clients calling each other, subscriptions, events, and reconnecting after the daemon restarts.
#include "bus.h"

#include <algorithm>
#include <map>

using namespace bus;

namespace {

// Runs the event loop until something calls uloop_end() or ms pass; false when the time ran out.
bool run_loop(int ms)
{
	static bool expired;
	expired = false;
	uloop_timeout guard{};
	guard.cb = [](uloop_timeout *) {
		expired = true;
		uloop_end();
	};
	uloop_timeout_set(&guard, ms);
	uloop_run();
	uloop_timeout_cancel(&guard);
	return !expired;
}

// Collects each DATA reply as compact JSON, checking the shape handlers must rely on.
void collect(ubus_request *req, int type, blob_attr *msg)
{
	auto *out = static_cast<std::vector<std::string> *>(req->priv);
	EXPECT_EQ(type, UBUS_MSG_DATA);
	EXPECT_EQ(blob_id(msg), unsigned(UBUS_ATTR_DATA));
	EXPECT_FALSE(blob_is_extended(msg));
	char *s = blobmsg_format_json(msg, true);
	out->push_back(s ? s : "(null)");
	free(s);
}

int noop(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
	return 0;
}

const ubus_method local_methods[] = {UBUS_METHOD_NOARG("ping", noop), UBUS_METHOD_NOARG("pong", noop)};

struct LocalObject {
	ubus_object_type type = UBUS_OBJECT_TYPE("local", local_methods);
	ubus_object obj{};
	explicit LocalObject(const char *name)
	{
		obj.name = name;
		obj.type = &type;
		obj.methods = local_methods;
		obj.n_methods = ARRAY_SIZE(local_methods);
	}
};

int64_t elapsed_ms(std::chrono::steady_clock::time_point since)
{
	return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

class UbusLib : public BusTest {};

TEST_F(UbusLib, ObjectsGetIdsSharedTypesAndUniquePaths)
{
	ubus_context *c = client();
	ASSERT_NE(c, nullptr);
	LocalObject one("lib.one");
	ubus_object two = one.obj;
	two.name = "lib.two";

	ASSERT_EQ(ubus_add_object(c, &one.obj), 0);
	EXPECT_GE(one.obj.id, uint32_t(UBUS_SYSTEM_OBJECT_MAX));
	uint32_t type_id = one.type.id;
	EXPECT_GE(type_id, uint32_t(UBUS_SYSTEM_OBJECT_MAX));
	ASSERT_EQ(ubus_add_object(c, &two), 0);	// same type struct: announced by id only
	EXPECT_NE(two.id, one.obj.id);
	EXPECT_EQ(one.type.id, type_id);

	// Both objects advertise the one type with its signature.
	std::map<std::string, ubus_object_data> seen;
	std::map<std::string, std::string> sigs;
	auto record = [&](ubus_object_data *d) {
		seen[d->path] = *d;
		char *s = d->signature ? blobmsg_format_json(d->signature, true) : nullptr;
		sigs[d->path] = s ? s : "";
		free(s);
	};
	using Rec = decltype(record);
	ASSERT_EQ(ubus_lookup(c, "lib.*", [](ubus_context *, ubus_object_data *d, void *p) { (*static_cast<Rec *>(p))(d); },
			      &record), 0);
	ASSERT_EQ(seen.size(), 2u);
	EXPECT_EQ(seen["lib.one"].id, one.obj.id);
	EXPECT_EQ(seen["lib.two"].type_id, type_id);
	EXPECT_EQ(seen["lib.one"].type_id, type_id);
	EXPECT_EQ(sigs["lib.two"], "{\"ping\":{},\"pong\":{}}");

	// A taken path is refused with INVALID_ARGUMENT and the object stays unregistered.
	LocalObject dup("lib.one");
	EXPECT_EQ(ubus_add_object(c, &dup.obj), UBUS_STATUS_INVALID_ARGUMENT);
	EXPECT_EQ(dup.obj.id, 0u);

	// Removal: the id is cleared, the path is free again, the type goes with its last object.
	EXPECT_EQ(ubus_remove_object(c, &one.obj), 0);
	EXPECT_EQ(one.obj.id, 0u);
	uint32_t id;
	EXPECT_EQ(ubus_lookup_id(c, "lib.one", &id), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(one.type.id, type_id);	// lib.two still uses it
	EXPECT_EQ(ubus_remove_object(c, &two), 0);
	EXPECT_EQ(one.type.id, 0u);
	EXPECT_EQ(ubus_remove_object(c, &two), UBUS_STATUS_NOT_FOUND);
	ASSERT_EQ(ubus_add_object(c, &dup.obj), 0);
}

TEST_F(UbusLib, LookupMatchesExactlyOrByPrefixAndKeepsTheLastMatch)
{
	start_server();
	ubus_context *c = client();
	std::vector<std::string> paths;
	auto cb = [](ubus_context *, ubus_object_data *d, void *p) {
		static_cast<std::vector<std::string> *>(p)->push_back(d->path);
	};
	ASSERT_EQ(ubus_lookup(c, nullptr, cb, &paths), 0);
	EXPECT_EQ(paths, (std::vector<std::string>{"test", "test.any", "test.types"}));
	paths.clear();
	ASSERT_EQ(ubus_lookup(c, "test.t*", cb, &paths), 0);
	EXPECT_EQ(paths, (std::vector<std::string>{"test.types"}));
	EXPECT_EQ(ubus_lookup(c, "tes", cb, &paths), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(ubus_lookup(c, "", cb, &paths), UBUS_STATUS_INVALID_ARGUMENT);

	uint32_t types = 0, last = 0, untouched = 77;
	ASSERT_EQ(ubus_lookup_id(c, "test.types", &types), 0);
	ASSERT_EQ(ubus_lookup_id(c, "test*", &last), 0);
	EXPECT_EQ(last, types);
	EXPECT_EQ(ubus_lookup_id(c, "missing", &untouched), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(untouched, 77u);
}

TEST_F(UbusLib, InvokeStatusesRepliesAndTimeouts)
{
	start_server();
	ubus_context *c = client();
	uint32_t test = 0, any = 0;
	ASSERT_EQ(ubus_lookup_id(c, "test", &test), 0);
	ASSERT_EQ(ubus_lookup_id(c, "test.any", &any), 0);
	std::vector<std::string> got;

	blob_buf args{};
	blob_buf_init(&args, 0);
	blobmsg_add_u32(&args, "id", 7);
	blobmsg_add_string(&args, "msg", "hello");
	EXPECT_EQ(ubus_invoke(c, test, "echo", args.head, collect, &got, 1000), 0);
	EXPECT_EQ(got, (std::vector<std::string>{"{\"id\":7,\"msg\":\"hello\"}"}));

	// Any int a handler returns reaches the caller unchanged.
	for (int code : {0, 2, 9, 42, -1, -1000}) {
		blob_buf_init(&args, 0);
		blobmsg_add_u32(&args, "code", uint32_t(code));
		EXPECT_EQ(ubus_invoke(c, test, "status", args.head, nullptr, nullptr, 1000), code);
	}
	EXPECT_EQ(ubus_invoke(c, test, "nope", nullptr, nullptr, nullptr, 1000), UBUS_STATUS_METHOD_NOT_FOUND);
	EXPECT_EQ(ubus_invoke(c, 0x7fffffff, "echo", nullptr, nullptr, nullptr, 1000), UBUS_STATUS_NOT_FOUND);
	// A method without a name takes every call, under the name it was called by.
	got.clear();
	EXPECT_EQ(ubus_invoke(c, any, "anything", nullptr, collect, &got, 1000), 0);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_NE(got[0].find("\"method\":\"anything\""), std::string::npos) << got[0];

	// (several replies, deferred replies and replies after the status: see the tool's tests)

	// A call nobody answers ends with TIMEOUT after the given time, and the connection stays usable.
	auto t0 = std::chrono::steady_clock::now();
	EXPECT_EQ(ubus_invoke(c, test, "hang", nullptr, nullptr, nullptr, 300), UBUS_STATUS_TIMEOUT);
	int64_t took = elapsed_ms(t0);
	EXPECT_GE(took, 290);
	EXPECT_LT(took, 3000);
	EXPECT_EQ(ubus_invoke(c, test, "multi", nullptr, nullptr, nullptr, 1000), 0);

	// A request above the message limit is refused before it is sent.
	std::string huge(UBUS_MAX_MSGLEN, 'x');
	blob_buf_init(&args, 0);
	blobmsg_add_string(&args, "msg", huge.c_str());
	EXPECT_EQ(ubus_invoke(c, test, "echo", args.head, nullptr, nullptr, 1000), UBUS_STATUS_INVALID_ARGUMENT);
	EXPECT_EQ(ubus_invoke(c, test, "multi", nullptr, nullptr, nullptr, 1000), 0);
	blob_buf_free(&args);
}

TEST_F(UbusLib, CalleeThatDiesOrIsDroppedLeavesTheCallerToItsTimeout)
{
	start_server();
	ubus_context *c = client();
	uint32_t test = 0;
	ASSERT_EQ(ubus_lookup_id(c, "test", &test), 0);

	// A reply above the limit makes the daemon drop the callee; nothing is sent to the caller.
	EXPECT_EQ(ubus_invoke(c, test, "big", nullptr, nullptr, nullptr, 400), UBUS_STATUS_TIMEOUT);
	// The test server reconnects and announces its objects again, under new ids.
	ASSERT_TRUE(wait_object("test"));
	uint32_t again = 0;
	ASSERT_EQ(ubus_lookup_id(c, "test", &again), 0);
	EXPECT_NE(again, test);
	EXPECT_EQ(ubus_invoke(c, test, "multi", nullptr, nullptr, nullptr, 1000), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(ubus_invoke(c, again, "multi", nullptr, nullptr, nullptr, 1000), 0);

	EXPECT_EQ(ubus_invoke(c, again, "die", nullptr, nullptr, nullptr, 300), UBUS_STATUS_TIMEOUT);
	EXPECT_EQ(wait_exit(server, 2000), 0);
	server = -1;
	EXPECT_TRUE(wait_object("test", false));
	EXPECT_EQ(ubus_invoke(c, again, "multi", nullptr, nullptr, nullptr, 1000), UBUS_STATUS_NOT_FOUND);
}

// The test process publishes "peer"; the server calls it back from inside one of its handlers.
struct Callback {
	static inline int calls;
	static int handle(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
	{
		calls++;
		blob_buf b{};
		blob_buf_init(&b, 0);
		blobmsg_add_string(&b, "from", "peer");
		ubus_send_reply(ctx, req, b.head);
		blob_buf_free(&b);
		return 0;
	}
};

TEST_F(UbusLib, TwoClientsCallEachOther)
{
	start_server();
	ubus_context *c = client();
	static const ubus_method methods[] = {UBUS_METHOD_NOARG("hello", Callback::handle)};
	static ubus_object_type type = UBUS_OBJECT_TYPE("peer", methods);
	static ubus_object peer = {.name = "peer", .type = &type, .methods = methods, .n_methods = 1};
	peer.id = 0;
	type.id = 0;
	ASSERT_EQ(ubus_add_object(c, &peer), 0);
	ubus_add_uloop(c);
	uint32_t test = 0;
	ASSERT_EQ(ubus_lookup_id(c, "test", &test), 0);

	blob_buf args{};
	blob_buf_init(&args, 0);
	blobmsg_add_string(&args, "path", "peer");
	blobmsg_add_string(&args, "method", "hello");
	blobmsg_add_u32(&args, "timeout", 300);

	// Asynchronously: our loop serves the callback while the request is open.
	Callback::calls = 0;
	static std::vector<std::string> got;
	static int status;
	got.clear();
	status = -99;
	ubus_request req;
	ASSERT_EQ(ubus_invoke_async(c, test, "call", args.head, &req), 0);
	req.data_cb = collect;
	req.priv = &got;
	req.complete_cb = [](ubus_request *, int ret) {
		status = ret;
		uloop_end();
	};
	ubus_complete_request_async(c, &req);
	ASSERT_TRUE(run_loop(3000));
	EXPECT_EQ(status, 0);
	EXPECT_EQ(Callback::calls, 1);
	EXPECT_EQ(got, (std::vector<std::string>{"{\"from\":\"peer\"}"}));

	// Synchronously: the callback waits in our queue, so the server's nested call times out; the queued call
	// runs once the wait is over.
	Callback::calls = 0;
	got.clear();
	EXPECT_EQ(ubus_invoke(c, test, "call", args.head, collect, &got, 3000), UBUS_STATUS_TIMEOUT);
	EXPECT_EQ(Callback::calls, 0);
	EXPECT_TRUE(got.empty());
	run_loop(100);
	EXPECT_EQ(Callback::calls, 1);
	blob_buf_free(&args);
}

struct Watch {
	static inline std::vector<std::string> notes;
	static inline uint32_t removed;
	static int note(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *msg)
	{
		char *s = blobmsg_format_json(msg, true);
		notes.push_back(std::string(method) + " " + (s ? s : ""));
		free(s);
		return 0;
	}
	static void gone(ubus_context *, ubus_subscriber *, uint32_t id)
	{
		removed = id;
		uloop_end();
	}
};

TEST_F(UbusLib, SubscribersReceiveNotificationsAndLearnWhenTheTargetGoes)
{
	start_server();
	ubus_context *c = client();
	ubus_add_uloop(c);
	static ubus_subscriber sub;
	memset(&sub, 0, sizeof(sub));
	sub.cb = Watch::note;
	sub.remove_cb = Watch::gone;
	Watch::notes.clear();
	Watch::removed = 0;
	ASSERT_EQ(ubus_register_subscriber(c, &sub), 0);
	uint32_t test = 0;
	ASSERT_EQ(ubus_lookup_id(c, "test", &test), 0);

	static std::vector<std::string> got;
	auto notify_once = [&](const char *payload) {
		got.clear();
		blob_buf args{};
		blob_buf_init(&args, 0);
		blobmsg_add_json_from_string(&args, payload);
		ubus_request req;
		EXPECT_EQ(ubus_invoke_async(c, test, "notify", args.head, &req), 0);
		req.data_cb = collect;
		req.priv = &got;
		req.complete_cb = [](ubus_request *, int) { uloop_end(); };
		ubus_complete_request_async(c, &req);
		EXPECT_TRUE(run_loop(3000));
		blob_buf_free(&args);
	};

	notify_once("{\"x\":1}");
	EXPECT_EQ(got, (std::vector<std::string>{"{\"status\":0,\"active\":false}"}));
	EXPECT_TRUE(Watch::notes.empty());

	ASSERT_EQ(ubus_subscribe(c, &sub, test), 0);
	notify_once("{\"x\":2}");
	EXPECT_EQ(got, (std::vector<std::string>{"{\"status\":0,\"active\":true}"}));
	EXPECT_EQ(Watch::notes, (std::vector<std::string>{"hello {\"x\":2}"}));

	ASSERT_EQ(ubus_unsubscribe(c, &sub, test), 0);
	notify_once("{\"x\":3}");
	EXPECT_EQ(got, (std::vector<std::string>{"{\"status\":0,\"active\":false}"}));
	EXPECT_EQ(Watch::notes.size(), 1u);

	ASSERT_EQ(ubus_subscribe(c, &sub, test), 0);
	stop(server, SIGKILL);
	ASSERT_TRUE(run_loop(3000));
	EXPECT_EQ(Watch::removed, test);
}

struct Events {
	static inline std::vector<std::string> seen;
	static void on_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg)
	{
		char *s = blobmsg_format_json(msg, true);
		seen.push_back(std::string(type) + " " + (s ? s : ""));
		free(s);
		if (std::string(type) == "stop")
			uloop_end();
	}
};

TEST_F(UbusLib, EventsGoToMatchingListenersButNotToTheSender)
{
	ubus_context *c = client();
	ubus_add_uloop(c);
	static ubus_event_handler ev;
	memset(&ev, 0, sizeof(ev));
	ev.cb = Events::on_event;
	Events::seen.clear();
	ASSERT_EQ(ubus_register_event_handler(c, &ev, "net.*"), 0);
	ASSERT_EQ(ubus_register_event_handler(c, &ev, "net.up"), 0);	// one copy however many patterns match
	ASSERT_EQ(ubus_register_event_handler(c, &ev, "stop"), 0);
	ASSERT_EQ(ubus_register_event_handler(c, &ev, "ubus.object.add"), 0);
	EXPECT_EQ(ubus_register_event_handler(c, &ev, ""), UBUS_STATUS_PERMISSION_DENIED);

	blob_buf data{};
	blob_buf_init(&data, 0);
	blobmsg_add_string(&data, "if", "wan");
	EXPECT_EQ(ubus_send_event(c, "net.up", data.head), 0);	// our own event: not delivered to us

	ubus_context *other = ubus_connect(sock.c_str());
	ASSERT_NE(other, nullptr);
	EXPECT_EQ(ubus_send_event(other, "net.up", data.head), 0);
	EXPECT_EQ(ubus_send_event(other, "disk.full", data.head), 0);
	EXPECT_EQ(ubus_send_event(other, "ubus.object.add", data.head), UBUS_STATUS_PERMISSION_DENIED);
	LocalObject obj("announced");
	ASSERT_EQ(ubus_add_object(other, &obj.obj), 0);
	blob_buf_init(&data, 0);
	EXPECT_EQ(ubus_send_event(other, "stop", data.head), 0);
	ASSERT_TRUE(run_loop(3000));

	char expect_add[96];
	snprintf(expect_add, sizeof(expect_add), "ubus.object.add {\"id\":%d,\"path\":\"announced\"}", int(obj.obj.id));
	EXPECT_EQ(Events::seen, (std::vector<std::string>{"net.up {\"if\":\"wan\"}", expect_add, "stop {}"}));
	ubus_free(other);
	blob_buf_free(&data);
}

struct Lost {
	static inline int calls;
	static void handler(ubus_context *)
	{
		calls++;
		uloop_end();
	}
};

// Reconnects at once from the connection-lost callback and puts the new socket into the loop, as a daemon does.
struct ReconnectAtOnce {
	static inline int calls;
	static inline const char *path;
	static void handler(ubus_context *c)
	{
		calls++;
		if (ubus_reconnect(c, path) == UBUS_STATUS_OK)
			ubus_add_uloop(c);
		uloop_end();
	}
};

TEST_F(UbusLib, ReconnectFromTheLostCallbackKeepsTheNewConnectionInTheLoop)
{
	ubus_context *c = client();
	LocalObject mine("mine");
	ASSERT_EQ(ubus_add_object(c, &mine.obj), 0);
	ReconnectAtOnce::calls = 0;
	ReconnectAtOnce::path = sock.c_str();
	c->connection_lost = ReconnectAtOnce::handler;
	ubus_add_uloop(c);
	int old_fd = c->sock.fd;

	// The new daemon already listens when the loss is noticed: the reconnect succeeds inside the callback, and
	// the new socket gets the number of the old one.
	stop(ubusd);
	start_ubusd();
	ASSERT_TRUE(run_loop(3000));
	ASSERT_EQ(ReconnectAtOnce::calls, 1);
	ASSERT_EQ(c->sock.fd, old_fd) << "the case under test needs the descriptor number to be reused";

	// The object answers under its new id...
	ubus_context *other = ubus_connect(sock.c_str());
	ASSERT_NE(other, nullptr);
	uint32_t id = 0;
	ASSERT_EQ(ubus_lookup_id(other, "mine", &id), 0);
	EXPECT_EQ(id, mine.obj.id);
	ubus_request req;
	int status = -1;
	ASSERT_EQ(ubus_invoke_async(other, id, "ping", nullptr, &req), 0);
	req.priv = &status;
	req.complete_cb = [](ubus_request *r, int ret) {
		*static_cast<int *>(r->priv) = ret;
		uloop_end();
	};
	ubus_add_uloop(other);
	ubus_complete_request_async(other, &req);
	EXPECT_TRUE(run_loop(2000)) << "the call was not answered";
	EXPECT_EQ(status, 0);
	ubus_abort_request(other, &req);
	ubus_free(other);

	// ...and the next loss is noticed too.
	stop(ubusd);
	EXPECT_TRUE(run_loop(3000));
	EXPECT_EQ(ReconnectAtOnce::calls, 2);
}

TEST_F(UbusLib, DaemonRestartLostConnectionAndReconnect)
{
	start_server();
	ubus_context *c = client();
	uint32_t before = 0;
	ASSERT_EQ(ubus_lookup_id(c, "test", &before), 0);
	LocalObject mine("mine");
	ASSERT_EQ(ubus_add_object(c, &mine.obj), 0);
	uint32_t mine_before = mine.obj.id, type_before = mine.type.id;

	Lost::calls = 0;
	c->connection_lost = Lost::handler;
	ubus_add_uloop(c);
	stop(ubusd);
	ASSERT_TRUE(run_loop(3000));
	EXPECT_EQ(Lost::calls, 1);
	// Without a connection, requests fail instead of hanging.
	EXPECT_NE(ubus_invoke(c, before, "multi", nullptr, nullptr, nullptr, 500), 0);
	EXPECT_EQ(ubus_reconnect(c, sock.c_str()), UBUS_STATUS_CONNECTION_FAILED);

	start_ubusd();
	ASSERT_EQ(ubus_reconnect(c, sock.c_str()), 0);
	ubus_add_uloop(c);
	// Our object is announced again, under new ids.
	uint32_t mine_after = 0;
	ASSERT_EQ(ubus_lookup_id(c, "mine", &mine_after), 0);
	EXPECT_EQ(mine_after, mine.obj.id);
	EXPECT_NE(mine.obj.id, mine_before);
	EXPECT_NE(mine.type.id, type_before);
	EXPECT_NE(mine.type.id, 0u);

	// The test server reconnects by itself (timer in its connection_lost) and answers under its new id.
	ASSERT_TRUE(wait_object("test"));
	uint32_t after = 0;
	ASSERT_EQ(ubus_lookup_id(c, "test", &after), 0);
	EXPECT_NE(after, before);
	std::vector<std::string> got;
	EXPECT_EQ(ubus_invoke(c, after, "multi", nullptr, collect, &got, 1000), 0);
	EXPECT_EQ(got.size(), 2u);
}

} // namespace
