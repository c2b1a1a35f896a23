// The client library against a scripted daemon (a thread speaking raw frames): the exact bytes of its requests,
// how it matches replies, how it answers calls, and how it queues calls that arrive while it waits.

#include "bus.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <functional>
#include <pthread.h>

using namespace bus;

namespace {

// Accepts one connection, greets it with HELLO (client id 0x11223344), then runs the script on it.
class FakeDaemon {
public:
	explicit FakeDaemon(const std::string &path)
	{
		lfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
		sockaddr_un sun{};
		sun.sun_family = AF_UNIX;
		snprintf(sun.sun_path, sizeof(sun.sun_path), "%s", path.c_str());
		if (bind(lfd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) || listen(lfd, 4))
			ADD_FAILURE() << "fake daemon cannot listen";
	}
	~FakeDaemon()
	{
		if (thread.joinable())
			thread.join();
		close(lfd);
	}
	void run(std::function<void(Raw &)> script)
	{
		thread = std::thread([this, script] {
			pollfd p{lfd, POLLIN, 0};
			if (poll(&p, 1, 5000) <= 0) {
				ADD_FAILURE() << "no client";
				return;
			}
			Raw conn(accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC));
			conn.send(hex("00 00 0000 11223344 00000004"));
			script(conn);
			done = true;
		});
	}
	void join() { thread.join(); }

	int lfd = -1;
	std::thread thread;
	std::atomic<bool> done{false};
};

Bytes concat(std::initializer_list<Bytes> parts)
{
	Bytes all;
	for (const Bytes &p : parts)
		all.insert(all.end(), p.begin(), p.end());
	return all;
}

// Expects the next message to be exactly `want`.
void expect_bytes(Raw &conn, const Bytes &want, const char *what)
{
	Msg m = conn.recv();
	EXPECT_EQ(to_hex(m.bytes), to_hex(want)) << what;
}

void collect(ubus_request *req, int, blob_attr *msg)
{
	char *s = blobmsg_format_json(msg, true);
	static_cast<std::vector<std::string> *>(req->priv)->push_back(s ? s : "");
	free(s);
}

// The served object: "ok" replies {"pong":true} and records the caller's user, "ret" returns 42, "quit" ends the
// loop.
struct Served {
	static inline int calls;
	static inline std::string user;
	static inline blob_buf b;

	static int ok(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
	{
		calls++;
		user = req->acl.user ? req->acl.user : "";
		blob_buf_init(&b, 0);
		blobmsg_add_u8(&b, "pong", 1);
		ubus_send_reply(ctx, req, b.head);
		return 0;
	}
	static int ret(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
	{
		calls++;
		return 42;
	}
	static int quit(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
	{
		uloop_end();
		return 0;
	}
	static inline const blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
	static inline const ubus_method methods[] = {
		UBUS_METHOD("echo", ok, policy), UBUS_METHOD_NOARG("ok", ok), UBUS_METHOD_NOARG("ret", ret),
		UBUS_METHOD_NOARG("quit", quit)};
};

class UbusWire : public ::testing::Test {
protected:
	void SetUp() override
	{
		sock = dir.path + "/fake.sock";
		Served::calls = 0;
		Served::user.clear();
		type = ubus_object_type UBUS_OBJECT_TYPE("served", Served::methods);
		obj = ubus_object{};
		obj.name = "demo";
		obj.type = &type;
		obj.methods = Served::methods;
		obj.n_methods = ARRAY_SIZE(Served::methods);
	}
	void TearDown() override
	{
		if (ctx)
			ubus_free(ctx);
	}

	// Script step: answer the client's ADD_OBJECT with object id `id` (and type id 0x6000).
	static void accept_object(Raw &conn, uint32_t id)
	{
		Msg add = conn.recv();
		EXPECT_EQ(add.type, UBUS_MSG_ADD_OBJECT);
		conn.send(concat({message(UBUS_MSG_DATA, add.seq, 0, {{UBUS_ATTR_OBJID, u32(id)}, {UBUS_ATTR_OBJTYPE, u32(0x6000)}}),
				  message(UBUS_MSG_STATUS, add.seq, 0, {{UBUS_ATTR_STATUS, u32(0)}})}));
	}

	// Script step: a call to the served object (id 0x5000) from client 77; returns what came back.
	static std::vector<Msg> call(Raw &conn, uint16_t seq, const char *method, bool data = true,
				     const std::vector<std::pair<uint8_t, Bytes>> &extra = {})
	{
		std::vector<std::pair<uint8_t, Bytes>> attrs = {{UBUS_ATTR_OBJID, u32(0x5000)}, {UBUS_ATTR_METHOD, str(method)}};
		attrs.insert(attrs.end(), extra.begin(), extra.end());
		if (data)
			attrs.push_back({UBUS_ATTR_DATA, {}});
		conn.send(message(UBUS_MSG_INVOKE, seq, 77, attrs));
		std::vector<Msg> got;
		for (;;) {
			Msg m = conn.recv(500);
			if (m.type == 0xff)
				break;
			got.push_back(m);
			if (m.type == UBUS_MSG_STATUS)
				break;
		}
		return got;
	}

	TempDir dir;
	std::string sock;
	ubus_object_type type{};
	ubus_object obj{};
	ubus_context *ctx = nullptr;
};

TEST_F(UbusWire, RequestsAreByteExactAndRepliesMatchOnSequenceAndPeer)
{
	FakeDaemon fake(sock);
	fake.run([](Raw &conn) {
		// Registration: path and the signature built from the type's methods.
		expect_bytes(conn, message(UBUS_MSG_ADD_OBJECT, 1, 0, {{UBUS_ATTR_OBJPATH, str("demo")},
									{UBUS_ATTR_SIGNATURE, concat({hex(kEchoSignature),
										hex("8200000c 0002 6f6b 00 000000"), hex("8200000c 0003 726574 000000"),
										hex("8200000c 0004 71756974 0000")})}}),
			     "first ADD_OBJECT");
		conn.send(concat({message(UBUS_MSG_DATA, 1, 0, {{UBUS_ATTR_OBJID, u32(0x5000)}, {UBUS_ATTR_OBJTYPE, u32(0x6000)}}),
				  message(UBUS_MSG_STATUS, 1, 0, {{UBUS_ATTR_STATUS, u32(0)}})}));
		// The same type again: announced by its id only.
		expect_bytes(conn, message(UBUS_MSG_ADD_OBJECT, 2, 0, {{UBUS_ATTR_OBJPATH, str("demo2")},
									{UBUS_ATTR_OBJTYPE, u32(0x6000)}}), "second ADD_OBJECT");
		conn.send(concat({message(UBUS_MSG_DATA, 2, 0, {{UBUS_ATTR_OBJID, u32(0x5001)}}),
				  message(UBUS_MSG_STATUS, 2, 0, {{UBUS_ATTR_STATUS, u32(0)}})}));

		expect_bytes(conn, hex("00 04 0003 00000000 | 00000010 | 02000009 64656d6f 00000000"), "LOOKUP");
		conn.send(concat({message(UBUS_MSG_DATA, 3, 0, {{UBUS_ATTR_OBJPATH, str("demo")}, {UBUS_ATTR_OBJID, u32(0xaabbccdd)},
								 {UBUS_ATTR_OBJTYPE, u32(0x6000)}}),
				  message(UBUS_MSG_STATUS, 3, 0, {{UBUS_ATTR_STATUS, u32(0)}})}));

		expect_bytes(conn, hex("00 05 0004 aabbccdd | 0000002c | 03000008 aabbccdd | 04000009 6563686f 00000000 | "
				       "07000014 85000010 00026964 00000000 00000001"), "INVOKE");
		Bytes two = hex("85000010 00026964 00000000 00000002");
		Bytes three = hex("85000010 00026964 00000000 00000003");
		conn.send(concat({
			message(UBUS_MSG_DATA, 4, 0x12345678, {{UBUS_ATTR_OBJID, u32(0xaabbccdd)}, {UBUS_ATTR_DATA, three}}),	// wrong peer
			message(UBUS_MSG_DATA, 5, 0xaabbccdd, {{UBUS_ATTR_OBJID, u32(0xaabbccdd)}, {UBUS_ATTR_DATA, three}}),	// wrong seq
			message(UBUS_MSG_DATA, 4, 0xaabbccdd, {{UBUS_ATTR_OBJID, u32(0xaabbccdd)}, {UBUS_ATTR_DATA, two}}),
			message(UBUS_MSG_STATUS, 4, 0xaabbccdd, {{UBUS_ATTR_OBJID, u32(0xaabbccdd)}}),	// no STATUS attribute
			message(UBUS_MSG_DATA, 4, 0xaabbccdd, {{UBUS_ATTR_OBJID, u32(0xaabbccdd)}, {UBUS_ATTR_DATA, three}}),	// too late
		}));
		// The next request still works (and saw nothing of the late reply).
		Msg inv = conn.recv();
		EXPECT_EQ(inv.seq, 5);
		conn.send(message(UBUS_MSG_STATUS, 5, inv.peer, {{UBUS_ATTR_STATUS, u32(uint32_t(-7))}}));
	});

	ctx = ubus_connect(sock.c_str());
	ASSERT_NE(ctx, nullptr);
	EXPECT_EQ(ctx->local_id, htonl(0x11223344));	// kept as it came off the wire
	ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
	EXPECT_EQ(obj.id, 0x5000u);
	EXPECT_EQ(type.id, 0x6000u);
	ubus_object second = obj;
	second.name = "demo2";
	ASSERT_EQ(ubus_add_object(ctx, &second), 0);
	EXPECT_EQ(second.id, 0x5001u);

	uint32_t id = 0;
	ASSERT_EQ(ubus_lookup_id(ctx, "demo", &id), 0);
	EXPECT_EQ(id, 0xaabbccddu);

	blob_buf args{};
	blob_buf_init(&args, 0);
	blobmsg_add_u32(&args, "id", 1);
	std::vector<std::string> got;
	EXPECT_EQ(ubus_invoke(ctx, id, "echo", args.head, collect, &got, 2000), UBUS_STATUS_INVALID_ARGUMENT);
	EXPECT_EQ(got, (std::vector<std::string>{"{\"id\":2}"}));
	got.clear();
	EXPECT_EQ(ubus_invoke(ctx, id, "echo", args.head, collect, &got, 2000), -7);
	EXPECT_TRUE(got.empty());
	blob_buf_free(&args);
	fake.join();
}

TEST_F(UbusWire, CallsAreAnsweredAsTheObjectAndHandlersDecide)
{
	FakeDaemon fake(sock);
	fake.run([](Raw &conn) {
		accept_object(conn, 0x5000);
		auto status_of = [](const std::vector<Msg> &r) { return r.empty() ? 0xdeadu : r.back().attr32(UBUS_ATTR_STATUS); };

		// Unknown object: NOT_FOUND, sent back with the caller's seq and peer and the object id asked for.
		conn.send(message(UBUS_MSG_INVOKE, 10, 77, {{UBUS_ATTR_OBJID, u32(0x9999)}, {UBUS_ATTR_METHOD, str("ok")},
							     {UBUS_ATTR_DATA, {}}}));
		expect_bytes(conn, message(UBUS_MSG_STATUS, 10, 77, {{UBUS_ATTR_STATUS, u32(4)}, {UBUS_ATTR_OBJID, u32(0x9999)}}),
			     "unknown object");
		EXPECT_EQ(status_of(call(conn, 11, "nope")), 3u);
		EXPECT_EQ(status_of(call(conn, 12, "ok", false)), 2u);	// no DATA
		EXPECT_EQ(status_of(call(conn, 13, "ret")), 42u);

		std::vector<Msg> ok = call(conn, 14, "ok", true, {{UBUS_ATTR_USER, str("alice")}, {UBUS_ATTR_GROUP, str("staff")}});
		ASSERT_EQ(ok.size(), 2u);
		EXPECT_EQ(to_hex(ok[0].bytes), to_hex(message(UBUS_MSG_DATA, 14, 77, {{UBUS_ATTR_OBJID, u32(0x5000)},
						       {UBUS_ATTR_DATA, hex("8700000d 0004 706f6e67 0000 01000000")}})));
		EXPECT_EQ(to_hex(ok[1].bytes), to_hex(message(UBUS_MSG_STATUS, 14, 77, {{UBUS_ATTR_STATUS, u32(0)},
							{UBUS_ATTR_OBJID, u32(0x5000)}})));

		// NO_REPLY: the handler runs, no status comes back.
		EXPECT_TRUE(call(conn, 15, "ret", true, {{UBUS_ATTR_NO_REPLY, Bytes{1}}}).empty());
		call(conn, 16, "quit");
	});
	ctx = ubus_connect(sock.c_str());
	ASSERT_NE(ctx, nullptr);
	ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
	ubus_add_uloop(ctx);
	uloop_run();
	fake.join();
	EXPECT_EQ(Served::calls, 3);
	EXPECT_EQ(Served::user, "alice");
}

TEST_F(UbusWire, CallsArrivingDuringAWaitRunAfterItEvenFromTheSameRead)
{
	FakeDaemon fake(sock);
	fake.run([](Raw &conn) {
		accept_object(conn, 0x5000);
		Msg lookup = conn.recv();
		ASSERT_EQ(lookup.type, UBUS_MSG_LOOKUP);
		// One write: a call, the lookup's status, another call.
		Bytes a = message(UBUS_MSG_INVOKE, 20, 77, {{UBUS_ATTR_OBJID, u32(0x5000)}, {UBUS_ATTR_METHOD, str("ret")},
							      {UBUS_ATTR_DATA, {}}});
		Bytes b = a;
		b[3] = 21;
		conn.send(concat({a, message(UBUS_MSG_STATUS, lookup.seq, 0, {{UBUS_ATTR_STATUS, u32(4)}}), b}));
		for (uint16_t seq : {20, 21}) {
			Msg st = conn.recv();
			EXPECT_EQ(st.seq, seq);
			EXPECT_EQ(st.attr32(UBUS_ATTR_STATUS), 42u);
		}
		call(conn, 22, "quit");
	});
	ctx = ubus_connect(sock.c_str());
	ASSERT_NE(ctx, nullptr);
	ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
	ubus_add_uloop(ctx);
	uint32_t id;
	EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(Served::calls, 0);	// not while the lookup waited
	uloop_run();
	fake.join();
	EXPECT_EQ(Served::calls, 2);
}

// A signal handler installed without SA_RESTART (the event loop's SIGCHLD handler is one) interrupts the wait for
// the rest of a message that has started to arrive; the wait goes on, the connection stays.
TEST_F(UbusWire, ASignalWhileTheRestOfAMessageIsAwaitedDoesNotEndTheConnection)
{
	struct sigaction act{}, old{};
	act.sa_handler = [](int) {};
	sigemptyset(&act.sa_mask);
	act.sa_flags = 0;
	ASSERT_EQ(sigaction(SIGUSR1, &act, &old), 0);
	pthread_t caller = pthread_self();

	FakeDaemon fake(sock);
	fake.run([caller](Raw &conn) {
		Msg inv = conn.recv();
		ASSERT_EQ(inv.type, UBUS_MSG_INVOKE);
		Bytes st = message(UBUS_MSG_STATUS, inv.seq, inv.peer, {{UBUS_ATTR_STATUS, u32(3)}});
		Bytes head(st.begin(), st.begin() + 14), rest(st.begin() + 14, st.end());
		conn.send(head);
		// The pauses only order the steps; were the signal to come before the first bytes are read, the test
		// would pass without proving anything, never fail.
		usleep(200 * 1000);
		pthread_kill(caller, SIGUSR1);
		usleep(200 * 1000);
		conn.send(rest);
		conn.recv(300);
	});
	static int lost;
	lost = 0;
	ctx = ubus_connect(sock.c_str());
	ASSERT_NE(ctx, nullptr);
	ctx->connection_lost = [](ubus_context *) { lost++; };
	EXPECT_EQ(ubus_invoke(ctx, 0x5000, "x", nullptr, nullptr, nullptr, 3000), UBUS_STATUS_METHOD_NOT_FOUND);
	EXPECT_EQ(lost, 0);
	fake.join();
	sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(UbusWire, AnUntrustworthyHeaderEndsTheConnection)
{
	FakeDaemon fake(sock);
	fake.run([](Raw &conn) {
		Msg inv = conn.recv();
		Bytes st = message(UBUS_MSG_STATUS, inv.seq, inv.peer, {{UBUS_ATTR_STATUS, u32(0)}});
		st[0] = 1;	// version 1
		conn.send(st);
		conn.recv(300);
	});
	static int lost;
	lost = 0;
	ctx = ubus_connect(sock.c_str());
	ASSERT_NE(ctx, nullptr);
	ctx->connection_lost = [](ubus_context *) { lost++; };
	EXPECT_EQ(ubus_invoke(ctx, 0x5000, "x", nullptr, nullptr, nullptr, 2000), UBUS_STATUS_CONNECTION_FAILED);
	EXPECT_EQ(lost, 1);
	fake.join();
}

} // namespace
