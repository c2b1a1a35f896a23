// The bus protocol byte by byte: the bus daemon against raw clients (replies, routing, bad requests, malformed
// frames), and the client library against a scripted daemon (its requests, how it matches replies, how it
// answers and queues calls). A message: version, type, seq (16 bits), peer (32), then one blob container of
// plain attributes, all big endian.
#include "support.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

#include <csignal>
#include <functional>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

using namespace ct;

namespace {

using Bytes = std::vector<uint8_t>;
using Attrs = std::vector<std::pair<uint8_t, Bytes>>;
const uint8_t kStatus = UBUS_ATTR_STATUS, kPath = UBUS_ATTR_OBJPATH, kId = UBUS_ATTR_OBJID, kMethod = UBUS_ATTR_METHOD,
	      kType = UBUS_ATTR_OBJTYPE, kSig = UBUS_ATTR_SIGNATURE, kData = UBUS_ATTR_DATA;

Bytes hex(const std::string &s)	// blanks and '|' between the bytes are ignored
{
	Bytes b;
	for (size_t i = 0; (i = s.find_first_of("0123456789abcdef", i)) != std::string::npos; i += 2)
		b.push_back(uint8_t(std::stoul(s.substr(i, 2), nullptr, 16)));
	return b;
}
std::string hex(const Bytes &b)
{
	std::string s;
	for (uint8_t c : b)
		s += "0123456789abcdef"[c >> 4], s += "0123456789abcdef"[c & 15];
	return s;
}
uint32_t be32(const uint8_t *p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
Bytes u32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
Bytes str(const std::string &s) { return Bytes(s.c_str(), s.c_str() + s.size() + 1); }
Bytes cat(std::initializer_list<Bytes> parts)
{
	Bytes all;
	for (const Bytes &p : parts)
		all.insert(all.end(), p.begin(), p.end());
	return all;
}
Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const Attrs &attrs)
{
	Bytes body;
	for (const auto &[id, data] : attrs) {
		body = cat({body, u32(uint32_t(id) << 24 | uint32_t(4 + data.size())), data});
		body.resize((body.size() + 3) & ~size_t(3), 0);
	}
	return cat({{0, type, uint8_t(seq >> 8), uint8_t(seq)}, u32(peer), u32(uint32_t(4 + body.size())), body});
}
Bytes status(uint16_t seq, uint32_t peer, uint32_t code, Attrs more = {})
{
	more.insert(more.begin(), {kStatus, u32(code)});
	return msg(UBUS_MSG_STATUS, seq, peer, more);
}
uint16_t seq_of(const Bytes &m) { return m.size() < 12 ? 0 : uint16_t(m[2] << 8 | m[3]); }
uint32_t attr32(const Bytes &m, uint8_t id)	// the first attribute with this id, when it has 4 bytes
{
	for (size_t p = 12, raw; p + 4 <= m.size() && (raw = be32(&m[p]) & 0xffffff) >= 4; p += (raw + 3) & ~size_t(3))
		if (m[p] == id && raw == 8 && p + 8 <= m.size())
			return be32(&m[p + 4]);
	return 0xdeadbeef;
}

int unix_socket(const std::string &path, bool server)
{
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_un sun{.sun_family = AF_UNIX, .sun_path = {}};
	snprintf(sun.sun_path, sizeof(sun.sun_path), "%s", path.c_str());
	auto *a = reinterpret_cast<sockaddr *>(&sun);
	if (server ? bind(fd, a, sizeof(sun)) == 0 && listen(fd, 4) == 0 : connect(fd, a, sizeof(sun)) == 0)
		return fd;
	close(fd);
	return -1;
}

struct Conn {	// one end of a connection, speaking the protocol by hand
	int fd = -1;
	Conn() = default;
	explicit Conn(int fd_) : fd(fd_) {}
	explicit Conn(const std::string &path) : fd(unix_socket(path, false)) {}
	~Conn() { close(fd); }
	bool send(const Bytes &b) { return ::send(fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size()); }
	bool read_n(size_t n, Bytes &out, int ms)
	{
		for (uint8_t buf[65536]; n > 0;) {
			pollfd p{fd, POLLIN, 0};
			ssize_t got = poll(&p, 1, ms) > 0 ? ::recv(fd, buf, std::min(n, sizeof(buf)), 0) : 0;
			if (got <= 0)
				return false;
			out.insert(out.end(), buf, buf + got);
			n -= size_t(got);
		}
		return true;
	}
	Bytes recv(int ms = 2000)	// one message; empty when none came
	{
		Bytes m;
		return read_n(12, m, ms) && read_n((be32(&m[8]) & 0xffffff) - 4, m, ms) ? m : Bytes();
	}
	uint32_t hello() { return be32(&recv().at(4)); }
	bool closed()	// the other end closed the connection
	{
		char c[256];
		for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 2000) > 0;)
			if (::recv(fd, c, sizeof(c), 0) <= 0)
				return true;
		return false;
	}
	void expect(const Bytes &want, const char *what = "") { EXPECT_EQ(hex(recv()), hex(want)) << what; }
};

// The signature of one method "echo" with the arguments id (INT32) and msg (STRING).
const Bytes kSignature = hex("8200002c 0004 6563686f 0000 85000010 0002 6964 00 000000 00000005 "
			     "85000010 0003 6d7367 00 0000 00000003");
const Bytes kArgs = hex("85000010 00026964 00000000 00000001");	// {"id":1}

class Daemon : public ::testing::Test {
protected:
	void SetUp() override
	{
		if ((pid = fork()) == 0) {
			execl(bin("ubusd").c_str(), "ubusd", "-s", sock.c_str(), nullptr);
			_exit(127);
		}
		int fd = -1;	// the socket file comes with bind(), connections are taken after listen()
		for (int i = 0; i < 1000 && (fd = unix_socket(sock, false)) < 0; i++)
			usleep(5000);
		close(fd);
		owner.fd = unix_socket(sock, false);
		owner.hello();
		owner.send(msg(UBUS_MSG_ADD_OBJECT, 1, 0, {{kPath, str("demo")}, {kSig, kSignature}}));
		obj = attr32(owner.recv(), kId);
		owner.expect(status(1, 0, 0));
	}
	void TearDown() override
	{
		kill(pid, SIGTERM);
		waitpid(pid, nullptr, 0);
	}
	TempDir dir;
	std::string sock = dir.path + "/ubus.sock";
	pid_t pid = -1;
	Conn owner;	// of the object "demo"
	uint32_t obj = 0;
};

TEST_F(Daemon, RegistrationLookupAndRouting)
{
	Conn caller(sock), other(sock);
	uint32_t caller_id = caller.hello();
	EXPECT_GE(caller_id, 1024u);
	EXPECT_NE(other.hello(), caller_id);
	EXPECT_GE(obj, 1024u);

	// LOOKUP "demo": path, id, type and signature as registered. The type again by id: the object id alone back.
	caller.send(hex("00 04 0001 00000000 | 00000010 | 02000009 64656d6f 00000000"));
	Bytes found = caller.recv();
	uint32_t type = attr32(found, kType);
	EXPECT_EQ(hex(found), hex(msg(UBUS_MSG_DATA, 1, 0, {{kPath, str("demo")}, {kId, u32(obj)}, {kType, u32(type)}, {kSig, kSignature}})));
	caller.expect(status(1, 0, 0));
	owner.send(msg(UBUS_MSG_ADD_OBJECT, 2, 0, {{kPath, str("demo2")}, {kType, u32(type)}}));
	Bytes again = owner.recv();
	EXPECT_EQ(hex(again), hex(msg(UBUS_MSG_DATA, 2, 0, {{kId, u32(attr32(again, kId))}})));
	owner.expect(status(2, 0, 0));
	owner.send(msg(UBUS_MSG_ADD_OBJECT, 3, 0, {{kPath, str("demo")}, {kType, u32(type)}}));
	owner.expect(status(3, 0, UBUS_STATUS_INVALID_ARGUMENT));

	// INVOKE echo {"id":1}: the owner gets it from the caller, with the caller's user and group. Replies from
	// another client, to an unknown client or without data are dropped; the owner's reach the caller with the peer
	// set to the object, a negative status unchanged.
	caller.send(msg(UBUS_MSG_INVOKE, 2, obj, {{kId, u32(obj)}, {kMethod, str("echo")}, {kData, kArgs}}));
	owner.expect(msg(UBUS_MSG_INVOKE, 2, caller_id, {{kId, u32(obj)}, {kMethod, str("echo")}, {UBUS_ATTR_USER, str("root")},
							 {UBUS_ATTR_GROUP, str("root")}, {kData, kArgs}}));
	other.send(msg(UBUS_MSG_DATA, 2, caller_id, {{kId, u32(obj)}, {kData, kArgs}}));
	owner.send(cat({msg(UBUS_MSG_DATA, 2, 12345, {{kId, u32(obj)}, {kData, kArgs}}), msg(UBUS_MSG_DATA, 2, caller_id, {{kId, u32(obj)}}),
			msg(UBUS_MSG_DATA, 2, caller_id, {{kId, u32(obj)}, {kData, kArgs}}), status(2, caller_id, uint32_t(-1), {{kId, u32(obj)}})}));
	caller.expect(msg(UBUS_MSG_DATA, 2, obj, {{kId, u32(obj)}, {kData, kArgs}}));
	caller.expect(status(2, obj, uint32_t(-1), {{kId, u32(obj)}}));
	EXPECT_TRUE(caller.recv(200).empty()) << "nothing else";

	// Removal: only by the owner, reporting the id (the type stays while demo2 has it); then it is gone.
	caller.send(msg(UBUS_MSG_REMOVE_OBJECT, 4, 0, {{kId, u32(obj)}}));
	caller.expect(status(4, 0, UBUS_STATUS_PERMISSION_DENIED));
	owner.send(msg(UBUS_MSG_REMOVE_OBJECT, 6, 0, {{kId, u32(obj)}}));
	owner.expect(msg(UBUS_MSG_DATA, 6, 0, {{kId, u32(obj)}}));
	owner.expect(status(6, 0, 0));
	owner.send(msg(UBUS_MSG_REMOVE_OBJECT, 7, 0, {{kId, u32(obj)}}));
	owner.expect(status(7, 0, UBUS_STATUS_NOT_FOUND));
}

TEST_F(Daemon, BadRequestsAndFramesCostOnlyTheSender)
{
	Conn c(sock);
	c.hello();
	const std::pair<Bytes, uint32_t> cases[] = {	// answered with the request's seq and peer
		{msg(99, 5, 7, {}), UBUS_STATUS_INVALID_COMMAND},
		{msg(UBUS_MSG_HELLO, 6, 0, {}), UBUS_STATUS_INVALID_COMMAND},
		{msg(UBUS_MSG_INVOKE, 8, 0, {{kId, u32(5000)}}), UBUS_STATUS_INVALID_ARGUMENT},
		{msg(UBUS_MSG_INVOKE, 9, 0, {{kId, Bytes{1, 2}}, {kMethod, str("x")}}), UBUS_STATUS_INVALID_ARGUMENT},
		{msg(UBUS_MSG_INVOKE, 10, 5000, {{kId, u32(5000)}, {kMethod, str("x")}}), UBUS_STATUS_NOT_FOUND},
		{msg(UBUS_MSG_LOOKUP, 11, 0, {{kPath, str("")}}), UBUS_STATUS_INVALID_ARGUMENT},
		{msg(UBUS_MSG_LOOKUP, 12, 0, {{kPath, str("nothing")}}), UBUS_STATUS_NOT_FOUND},
		{msg(UBUS_MSG_REMOVE_OBJECT, 13, 0, {}), UBUS_STATUS_INVALID_ARGUMENT},
		{msg(UBUS_MSG_INVOKE, 14, 1, {{kId, u32(1)}, {kMethod, str("nope")}}), UBUS_STATUS_INVALID_COMMAND},
		{msg(UBUS_MSG_INVOKE, 15, 3, {{kId, u32(3)}, {kMethod, str("nope")}}), UBUS_STATUS_METHOD_NOT_FOUND},
		{msg(UBUS_MSG_SUBSCRIBE, 16, 0, {{kId, u32(5000)}}), UBUS_STATUS_INVALID_ARGUMENT},
	};
	for (const auto &[request, code] : cases) {
		c.send(request);
		c.expect(status(seq_of(request), be32(&request[4]), code));
	}
	// A reply nobody asked for vanishes; the version byte is echoed, not checked.
	Bytes ping = msg(UBUS_MSG_PING, 21, 0, {});
	ping[0] = 3;
	c.send(cat({status(20, 1234, 0, {{kId, u32(4321)}}), ping}));
	EXPECT_EQ(c.recv().at(0), 3);
	c.recv();

	// A container shorter than its header, or longer than 1 MiB: the sender is dropped. Exactly 1 MiB is served.
	for (const char *frame : {"00 03 0001 00000000 00000003", "00 03 0001 00000000 00100001", "00 03 0001 00000000 80000000"}) {
		Conn bad(sock);
		bad.hello();
		bad.send(hex(frame));
		EXPECT_TRUE(bad.closed()) << frame;
	}
	Bytes mib = msg(UBUS_MSG_PING, 1, 0, {{kData, Bytes(1048576 - 8, 0)}});
	c.send(mib);
	EXPECT_EQ(c.recv().size(), mib.size());
	c.recv();
	// Messages dribbled in a byte at a time; a peer leaving halfway; a client that never reads.
	Bytes two = cat({msg(UBUS_MSG_PING, 3, 0, {}), msg(UBUS_MSG_LOOKUP, 4, 0, {{kPath, str("demo")}})});
	for (uint8_t byte : two) {
		ASSERT_EQ(::send(c.fd, &byte, 1, MSG_NOSIGNAL), 1);
		usleep(200);
	}
	for (uint16_t seq : {3, 3, 4, 4})
		EXPECT_EQ(seq_of(c.recv()), seq);
	Conn(sock).send(Bytes(two.begin(), two.begin() + 14));
	Conn deaf(sock);
	for (int i = 0; i < 20000 && deaf.send(two); i++) {
	}
	c.send(msg(UBUS_MSG_LOOKUP, 5, 0, {{kPath, str("demo")}}));
	EXPECT_EQ(attr32(c.recv(), kId), obj);
}

// ---- the client library against a scripted daemon: it greets the client as 0x11223344 and runs a script ----

struct FakeDaemon {
	TempDir dir;
	std::string sock = dir.path + "/fake.sock";
	int lfd = unix_socket(sock, true);
	std::thread thread;
	explicit FakeDaemon(std::function<void(Conn &)> script) : thread([this, script] {
		Conn conn(accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC));
		conn.send(hex("00 00 0000 11223344 00000004"));
		script(conn);
	}) {}
	~FakeDaemon()
	{
		thread.join();
		close(lfd);
	}
};

// The served object "demo": "ok" replies {"pong":true}, "ret" returns 42, "quit" ends the loop.
int calls;
int handler(ubus_context *c, ubus_object *, ubus_request_data *req, const char *method, blob_attr *)
{
	static blob_buf b;
	calls++;
	blob_buf_init(&b, 0);
	blobmsg_add_u8(&b, "pong", 1);
	if (std::string(method) == "ok")
		ubus_send_reply(c, req, b.head);
	if (std::string(method) == "quit")
		uloop_end();
	return std::string(method) == "ret" ? 42 : 0;
}
const blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
const ubus_method methods[] = {UBUS_METHOD("echo", handler, policy), UBUS_METHOD_NOARG("ok", handler),
			       UBUS_METHOD_NOARG("ret", handler), UBUS_METHOD_NOARG("quit", handler)};
ubus_object_type type = UBUS_OBJECT_TYPE("served", methods);
ubus_object demo = {.name = "demo", .type = &type, .methods = methods, .n_methods = ARRAY_SIZE(methods)};
const Bytes kRegistered = cat({msg(UBUS_MSG_DATA, 1, 0, {{kId, u32(0x5000)}, {kType, u32(0x6000)}}), status(1, 0, 0)});

TEST(Client, RequestsAreByteExactAndRepliesMatchOnSequenceAndPeer)
{
	FakeDaemon fake([](Conn &d) {
		d.expect(msg(UBUS_MSG_ADD_OBJECT, 1, 0, {{kPath, str("demo")}, {kSig, cat({kSignature,
			hex("8200000c 0002 6f6b 00 000000 8200000c 0003 726574 000000 8200000c 0004 71756974 0000")})}}), "ADD_OBJECT");
		d.send(kRegistered);
		d.expect(hex("00 04 0002 00000000 | 00000010 | 02000009 64656d6f 00000000"), "LOOKUP");
		d.send(cat({msg(UBUS_MSG_DATA, 2, 0, {{kPath, str("demo")}, {kId, u32(0xaabbccdd)}}), status(2, 0, 0)}));
		d.expect(hex("00 05 0003 aabbccdd | 0000002c | 03000008 aabbccdd | 04000009 6563686f 00000000 | "
			     "07000014 85000010 00026964 00000000 00000001"), "INVOKE");
		auto data = [](uint16_t seq, uint32_t peer, uint8_t v) {
			return msg(UBUS_MSG_DATA, seq, peer, {{kId, u32(0xaabbccdd)}, {kData, cat({Bytes(kArgs.begin(), kArgs.end() - 1), {v}})}});
		};
		d.send(cat({data(3, 0x12345678, 3), data(4, 0xaabbccdd, 3), data(3, 0xaabbccdd, 2),	// wrong peer, wrong seq, right
			    msg(UBUS_MSG_STATUS, 3, 0xaabbccdd, {{kId, u32(0)}}), data(3, 0xaabbccdd, 3)}));	// a status without one
		EXPECT_EQ(seq_of(d.recv()), 4);	// the next request, which sees nothing of the late reply
		d.send(status(4, 0xaabbccdd, uint32_t(-7)));
	});
	ubus_context *ctx = ubus_connect(fake.sock.c_str());
	ASSERT_NE(ctx, nullptr);
	ASSERT_EQ(ubus_add_object(ctx, &demo), 0);
	EXPECT_EQ(demo.id, 0x5000u);
	EXPECT_EQ(type.id, 0x6000u);
	uint32_t id = 0;
	ASSERT_EQ(ubus_lookup_id(ctx, "demo", &id), 0);
	EXPECT_EQ(id, 0xaabbccddu);
	blob_buf args{};
	blob_buf_init(&args, 0);
	blobmsg_add_u32(&args, "id", 1);
	static std::vector<std::string> got;
	auto collect = [](ubus_request *, int, blob_attr *m) { got.push_back(blobmsg_format_json(m, true)); };
	EXPECT_EQ(ubus_invoke(ctx, id, "echo", args.head, collect, nullptr, 2000), UBUS_STATUS_INVALID_ARGUMENT);
	EXPECT_EQ(ubus_invoke(ctx, id, "echo", args.head, collect, nullptr, 2000), -7);
	EXPECT_EQ(got, std::vector<std::string>{"{\"id\":2}"});
	blob_buf_free(&args);
	ubus_free(ctx);
	demo.id = type.id = 0;
}

TEST(Client, CallsAreAnsweredAsTheObjectAndQueuedDuringAWait)
{
	FakeDaemon fake([](Conn &d) {
		d.recv();
		d.send(kRegistered);
		auto invoke = [](uint16_t seq, uint32_t obj, const char *method, Attrs more = {{kData, {}}}) {
			more.insert(more.begin(), {{kId, u32(obj)}, {kMethod, str(method)}});
			return msg(UBUS_MSG_INVOKE, seq, 77, more);
		};
		// An unknown object, an unknown method, no data, the handler's own status; a reply, as the object.
		const std::pair<Bytes, uint32_t> statuses[] = {{invoke(10, 0x9999, "ok"), 4}, {invoke(11, 0x5000, "nope"), 3},
			{invoke(12, 0x5000, "ok", {}), 2}, {invoke(13, 0x5000, "ret"), 42}};
		for (const auto &[call, code] : statuses) {
			d.send(call);
			d.expect(status(seq_of(call), 77, code, {{kId, u32(be32(&call[16]))}}));
		}
		d.send(invoke(14, 0x5000, "ok"));
		d.expect(msg(UBUS_MSG_DATA, 14, 77, {{kId, u32(0x5000)}, {kData, hex("8700000d 0004 706f6e67 0000 01000000")}}));
		d.expect(status(14, 77, 0, {{kId, u32(0x5000)}}));
		// No answer at all to NO_REPLY. Two calls in the same read as the answer to a lookup: both run after it.
		d.send(invoke(15, 0x5000, "ret", {{kData, {}}, {UBUS_ATTR_NO_REPLY, {1}}}));
		uint16_t lookup = seq_of(d.recv());
		d.send(cat({invoke(20, 0x5000, "ret"), status(lookup, 0, 4), invoke(21, 0x5000, "quit")}));
		EXPECT_EQ(seq_of(d.recv()), 20);
		EXPECT_EQ(seq_of(d.recv()), 21);
	});
	static ubus_context *ctx;
	ASSERT_NE(ctx = ubus_connect(fake.sock.c_str()), nullptr);
	ASSERT_EQ(ubus_add_object(ctx, &demo), 0);
	ubus_add_uloop(ctx);
	calls = 0;
	uloop_timeout look{.cb = [](uloop_timeout *t) {	// once the NO_REPLY call has run
		if (calls < 3)
			return (void)uloop_timeout_set(t, 10);
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), UBUS_STATUS_NOT_FOUND);
		EXPECT_EQ(calls, 3) << "a call ran during the wait";
	}};
	uloop_timeout_set(&look, 10);
	uloop_run();
	EXPECT_EQ(calls, 5);
	ubus_free(ctx);
	demo.id = type.id = 0;
}

// A signal handler without SA_RESTART (uloop's SIGCHLD handler is one) interrupting the wait for the rest of a
// message does not end the connection; a header of another version does.
TEST(Client, InterruptedReadsGoOnAndBadHeadersEndTheConnection)
{
	struct sigaction act{}, old{};
	act.sa_handler = [](int) {};
	ASSERT_EQ(sigaction(SIGUSR1, &act, &old), 0);
	pthread_t caller = pthread_self();
	for (uint8_t version : {0, 1}) {
		FakeDaemon fake([caller, version](Conn &d) {
			Bytes call = d.recv(), st = status(seq_of(call), be32(&call[4]), UBUS_STATUS_METHOD_NOT_FOUND);
			st[0] = version;
			d.send(Bytes(st.begin(), st.begin() + 14));
			usleep(200 * 1000);	// the pauses only order the steps: a signal too early proves nothing, never fails
			pthread_kill(caller, SIGUSR1);
			usleep(200 * 1000);
			d.send(Bytes(st.begin() + 14, st.end()));
			d.recv(300);
		});
		static int lost;
		lost = 0;
		ubus_context *ctx = ubus_connect(fake.sock.c_str());
		ASSERT_NE(ctx, nullptr);
		ctx->connection_lost = [](ubus_context *) { lost++; };
		EXPECT_EQ(ubus_invoke(ctx, 0x5000, "x", nullptr, nullptr, nullptr, 3000),
			  version ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_METHOD_NOT_FOUND);
		EXPECT_EQ(lost, version);
		ubus_free(ctx);
	}
	sigaction(SIGUSR1, &old, nullptr);
}

} // namespace
