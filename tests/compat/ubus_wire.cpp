// The bus protocol byte for byte, as tables of frames: the bus daemon against raw clients, and the client library
// against a scripted daemon. A frame: version, type, seq (16 bits), peer (32), then a blob container of plain
// attributes (id byte, 24-bit length, payload padded to 4), all big endian. A table line "<conn> > <hex>" sends
// (">>": a byte at a time), "<conn> < <hex>" expects exactly that frame next ("-": none, "closed": the end of the
// connection), "<conn> ! <ms>" pauses. {X} stands for 4 bytes learnt where they first come and the same after;
// "*" takes the rest of a frame; an indented line goes on with the one above; '#' starts a comment.
#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

#include <csignal>
#include <functional>
#include <map>
#include <sys/time.h>
#include <pthread.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

namespace {

using Bytes = std::vector<uint8_t>;

std::string hex(const Bytes &b)
{
	std::string s;
	for (uint8_t c : b)
		s += "0123456789abcdef"[c >> 4], s += "0123456789abcdef"[c & 15];
	return s;
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

Bytes recv(int fd, int ms = 2000)	// one frame; nothing when none comes within ms, or the other end closed
{
	timeval limit{.tv_sec = ms / 1000, .tv_usec = ms % 1000 * 1000};
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
	Bytes m(12);
	auto read = [&](size_t at) {	// a read of nothing would wait for more
		return at == m.size() || ::recv(fd, &m[at], m.size() - at, MSG_WAITALL) == ssize_t(m.size() - at);
	};
	if (!read(0) || (m[9] << 16 | m[10] << 8 | m[11]) < 4)
		return {};
	m.resize(8 + size_t(m[9] << 16 | m[10] << 8 | m[11]));
	return read(12) ? m : Bytes();
}

// Plays a table of frames; a connection named for the first time comes from open().
struct Player {
	std::function<int()> open;
	std::map<std::string, Bytes> vars = {};
	std::map<char, int> fds = {};
	~Player() { for (auto &[name, fd] : fds) close(fd); }
	// The bytes a text stands for; learns the unknown {X} from got (when given) at the same place.
	Bytes bytes(const std::string &text, const Bytes *got = nullptr)
	{
		Bytes b;
		for (size_t i = 0; i < text.size(); i++) {
			if (text[i] == '*' && got)
				b.insert(b.end(), got->begin() + long(std::min(b.size(), got->size())), got->end());
			else if (isxdigit(text[i]))
				b.push_back(uint8_t(std::stoul(text.substr(i++, 2), nullptr, 16)));
			else if (text[i] == '{') {
				size_t end = text.find('}', i);
				std::string name = text.substr(i + 1, end - i - 1);
				if (!vars.count(name) && got && got->size() >= b.size() + 4)
					vars[name] = Bytes(got->begin() + long(b.size()), got->begin() + long(b.size() + 4));
				Bytes v = vars.count(name) ? vars[name] : Bytes{'?', '?', '?', '?'};
				b.insert(b.end(), v.begin(), v.end());
				i = end;
			}
		}
		return b;
	}
	void play(const std::string &table)
	{
		std::vector<std::string> steps;
		std::istringstream in(table);
		for (std::string line; std::getline(in, line);) {
			line = line.substr(0, line.find('#'));
			if (line.find_first_not_of(" \t") != std::string::npos)
				isspace(line[0]) ? steps.back() += line : steps.emplace_back(line);
		}
		for (const std::string &s : steps) {
			SCOPED_TRACE(s);
			int fd = fds.count(s[0]) ? fds[s[0]] : (fds[s[0]] = open());
			std::string op = s.substr(2, s.find(' ', 2) - 2), rest = s.substr(s.find(' ', 2));
			Bytes out = op[0] == '>' ? bytes(rest) : Bytes();
			for (size_t at = 0; at < out.size(); at += op == ">>" ? 1 : out.size(), usleep(op == ">>" ? 200 : 0))
				::send(fd, &out[at], op == ">>" ? 1 : out.size(), MSG_NOSIGNAL);	// what fails shows at the other end
			if (op == "!")
				usleep(useconds_t(std::stoi(rest)) * 1000);
			char c;
			if (op == "<" && rest.find("closed") != std::string::npos)	// what still comes, then the end
				EXPECT_TRUE([&] { while (recv(fd, 2000).size()) {} return ::recv(fd, &c, 1, MSG_DONTWAIT) == 0; }());
			else if (op == "<") {
				Bytes got = recv(fd, rest.find('-') != std::string::npos ? 200 : 2000);
				EXPECT_EQ(hex(got), hex(rest.find('-') != std::string::npos ? Bytes() : bytes(rest, &got)));
			}
		}
	}
};

// The signature of one method "echo" with the arguments id (INT32) and msg (STRING).
const Bytes kEcho = Player().bytes("8200002c 00046563 686f0000 85000010 00026964 00000000 00000005 "
				   "85000010 00036d73 67000000 00000003");

// Clients a (owner of "demo"), b and c; {O} the object, {T} its type, {A} {B} the clients' ids.
const char *const kRouting = R"(
a < 0000 0000 {A} 00000004	# HELLO: the id of the new client, in the peer field
b < 0000 0000 {B} 00000004
c < 0000 0000 {C} 00000004
a > 0006 0001 00000000 00000040 02000009 64656d6f 00000000 06000030 {ECHO}	# ADD_OBJECT "demo" with its signature
a < 0002 0001 00000000 00000014 03000008 {O} 05000008 {T}	# DATA: object and type id
a < 0001 0001 00000000 0000000c 01000008 00000000	# STATUS 0
b > 0004 0001 00000000 00000010 02000009 64656d6f 00000000	# LOOKUP "demo": path, id, type, signature
b < 0002 0001 00000000 00000050 02000009 64656d6f 00000000 03000008 {O} 05000008 {T} 06000030 {ECHO}
b < 0001 0001 00000000 0000000c 01000008 00000000
a > 0006 0002 00000000 00000018 0200000a 64656d6f 32000000 05000008 {T}	# "demo2" of the same type, by id
a < 0002 0002 00000000 0000000c 03000008 {O2}
a < 0001 0002 00000000 0000000c 01000008 00000000
a > 0006 0003 00000000 00000018 02000009 64656d6f 00000000 05000008 {T}	# "demo" again: INVALID_ARGUMENT
a < 0001 0003 00000000 0000000c 01000008 00000002
b > 0005 0002 {O} 0000002c 03000008 {O} 04000009 6563686f 00000000 07000014 85000010 00026964 00000000 00000001
a < 0005 0002 {B} 00000044 03000008 {O} 04000009 6563686f 00000000 0c000009 726f6f74 00000000	# INVOKE, from b,
    0d000009 726f6f74 00000000 07000014 85000010 00026964 00000000 00000001	# with its user and group
c > 0002 0002 {B} 00000020 03000008 {O} 07000014 85000010 00026964 00000000 00000009	# a reply not from the owner,
a > 0002 0002 00003039 00000020 03000008 {O} 07000014 85000010 00026964 00000000 00000009	# to no client,
a > 0002 0002 {B} 0000000c 03000008 {O}	# without data: dropped
a > 0002 0002 {B} 00000020 03000008 {O} 07000014 85000010 00026964 00000000 00000009	# the reply
a > 0001 0002 {B} 00000014 01000008 ffffffff 03000008 {O}	# STATUS -1
b < 0002 0002 {O} 00000020 03000008 {O} 07000014 85000010 00026964 00000000 00000009	# from the object
b < 0001 0002 {O} 00000014 01000008 ffffffff 03000008 {O}
b < -
b > 0007 0003 00000000 0000000c 03000008 {O}	# REMOVE_OBJECT by another: PERMISSION_DENIED
b < 0001 0003 00000000 0000000c 01000008 00000006
a > 0007 0004 00000000 0000000c 03000008 {O}	# by the owner: its id (the type stays with demo2)
a < 0002 0004 00000000 0000000c 03000008 {O}
a < 0001 0004 00000000 0000000c 01000008 00000000
a > 0007 0005 00000000 0000000c 03000008 {O}	# again: NOT_FOUND
a < 0001 0005 00000000 0000000c 01000008 00000004
)";

// Requests answered with a status, under their seq and peer; malformed frames end only the sender's connection.
const char *const kBadRequests = R"(
b < 0000 0000 {B} 00000004
b > 0063 0005 00000007 00000004	# an unknown type: INVALID_COMMAND
b < 0001 0005 00000007 0000000c 01000008 00000001
b > 0005 0008 00000000 0000000c 03000008 00001388	# INVOKE without a method: INVALID_ARGUMENT
b < 0001 0008 00000000 0000000c 01000008 00000002
b > 0005 000a 00001388 00000014 03000008 00001388 04000006 78000000	# an object nobody has: NOT_FOUND
b < 0001 000a 00001388 0000000c 01000008 00000004
b > 0004 000c 00000000 00000010 0200000c 6e6f7468 696e6700	# LOOKUP "nothing": NOT_FOUND
b < 0001 000c 00000000 0000000c 01000008 00000004
b > 0007 000d 00000000 00000004	# REMOVE_OBJECT without an id: INVALID_ARGUMENT
b < 0001 000d 00000000 0000000c 01000008 00000002
b > 0005 000f 00000003 00000018 03000008 00000003 04000009 6e6f7065 00000000	# the daemon's object 3
b < 0001 000f 00000003 0000000c 01000008 00000003
b > 0001 0014 000004d2 00000014 01000008 00000000 03000008 000010e1	# a status nobody asked for: dropped
b > 0303 0015 00000000 00000004	# PING, version 3: not checked; echoed in the DATA
b < 0302 0015 00000000 00000004
b < 0001 0015 00000000 0000000c 01000008 00000000
d > 0003 0001 00000000 00000003	# a container shorter than its header
d < closed
e > 0003 0001 00000000 00100001	# longer than 1 MiB
e < closed
f > 0003 0001 00000000 80000000
f < closed
g >> 0003 0003 00000000 00000004 0004 0004 00000000 00000010 02000009 64656d6f 00000000	# a byte at a time
g < 0000 0000 {G} 00000004
g < 0002 0003 00000000 00000004
g < 0001 0003 00000000 0000000c 01000008 00000000
g < 0001 0004 00000000 0000000c 01000008 00000004
h > 0004 0004 00000000 00000010 02000009	# a client that leaves halfway
)";

TEST(Daemon, Frames)
{
	std::string sock = testing::TempDir() + "gwconf-ubusd-" + std::to_string(getpid());	// the daemon removes it
	pid_t pid = fork();
	if (pid == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);	// it goes with the test, whatever happens to the test
		execl(GWCONF_BIN_DIR "/ubusd", "ubusd", "-s", sock.c_str(), nullptr);
		_exit(127);
	}
	int fd = -1;	// the socket file comes with bind(), connections are taken after listen()
	for (int i = 0; i < 1000 && (fd = unix_socket(sock, false)) < 0; i++)
		usleep(5000);
	close(fd);
	for (const char *table : {kRouting, kBadRequests})
		Player{[&] { return unix_socket(sock, false); }, {{"ECHO", kEcho}}}.play(table);
	// Exactly 1 MiB is served.
	Player p{[&] { return unix_socket(sock, false); }};
	p.play("a < *\n");
	Bytes ping = p.bytes("0003 0001 00000000 00100000 070ffffc");
	ping.resize(8 + 0x100000);
	::send(p.fds['a'], ping.data(), ping.size(), MSG_NOSIGNAL);
	EXPECT_EQ(recv(p.fds['a']).size(), ping.size());
	kill(pid, SIGTERM);
	waitpid(pid, nullptr, 0);
}

// ---- the client library against a scripted daemon, which greets it as 0x11223344 ----

struct FakeDaemon {
	std::string sock = testing::TempDir() + "gwconf-fake-ubusd-" + std::to_string(getpid());
	int lfd = unix_socket(sock, true);
	std::thread thread;
	explicit FakeDaemon(const std::string &table) : thread([this, table] {
		Player p{[this] { return accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC); }, {{"ECHO", kEcho}}};
		p.play("d > 0000 0000 11223344 00000004\n" + table);
	}) {}
	~FakeDaemon() { thread.join(), close(lfd), unlink(sock.c_str()); }
};

// The served object "demo": "ok" replies {"pong":true}, "ret" returns 42, "quit" ends the loop.
int calls;
int handler(ubus_context *c, ubus_object *, ubus_request_data *req, const char *method, blob_attr *)
{
	static blob_buf b;
	std::string m = (calls++, method);
	if (m == "ok")
		blob_buf_init(&b, 0), blobmsg_add_u8(&b, "pong", 1), ubus_send_reply(c, req, b.head);
	if (m == "quit")
		uloop_end();
	return m == "ret" ? 42 : 0;
}
const blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
const ubus_method methods[] = {UBUS_METHOD("echo", handler, policy), UBUS_METHOD_NOARG("ok", handler),
			       UBUS_METHOD_NOARG("ret", handler), UBUS_METHOD_NOARG("quit", handler)};
ubus_object_type type = UBUS_OBJECT_TYPE("served", methods);
ubus_object demo = {.name = "demo", .type = &type, .methods = methods, .n_methods = ARRAY_SIZE(methods)};


// Requests byte for byte, replies matched on seq and peer; then calls of the object answered from the loop, and calls
// that arrive while the library waits for an answer queued until after it.
TEST(Client, RequestsRepliesAndCalls)
{
	FakeDaemon fake(R"(
d < 0006 0001 00000000 00000064 02000009 64656d6f 00000000 06000054 {ECHO}	# ADD_OBJECT with the signature
    8200000c 00026f6b 00000000 8200000c 00037265 74000000 8200000c 00047175 69740000	# of ok, ret and quit
d > 0002 0001 00000000 00000014 03000008 00005000 05000008 00006000	# object 0x5000, type 0x6000
    0001 0001 00000000 0000000c 01000008 00000000
d < 0004 0002 00000000 00000010 02000009 64656d6f 00000000	# LOOKUP
d > 0002 0002 00000000 00000018 02000009 64656d6f 00000000 03000008 aabbccdd
    0001 0002 00000000 0000000c 01000008 00000000
d < 0005 0003 aabbccdd 0000001c 03000008 aabbccdd 04000009 6563686f 00000000 07000004	# INVOKE echo {}
d > 0002 0003 12345678 00000020 03000008 aabbccdd 07000014 85000010 00026964 00000000 00000003	# another peer
    0002 0004 aabbccdd 00000020 03000008 aabbccdd 07000014 85000010 00026964 00000000 00000003	# another seq
    0002 0003 aabbccdd 00000020 03000008 aabbccdd 07000014 85000010 00026964 00000000 00000002	# the reply
    0001 0003 aabbccdd 0000000c 03000008 00000000	# a status without its status attribute
    0002 0003 aabbccdd 00000020 03000008 aabbccdd 07000014 85000010 00026964 00000000 00000003	# too late
d < 0005 0004 aabbccdd *
d > 0001 0004 aabbccdd 0000000c 01000008 fffffff9
d > 0005 000a 0000004d 00000018 03000008 00009999 04000007 6f6b0000 07000004	# a call of another object
d < 0001 000a 0000004d 00000014 01000008 00000004 03000008 00009999	# NOT_FOUND
d > 0005 000c 0000004d 00000014 03000008 00005000 04000007 6f6b0000	# without data
d < 0001 000c 0000004d 00000014 01000008 00000002 03000008 00005000	# INVALID_ARGUMENT
d > 0005 000e 0000004d 00000018 03000008 00005000 04000007 6f6b0000 07000004	# "ok"
d < 0002 000e 0000004d 00000020 03000008 00005000 07000014 8700000d 0004706f 6e670000 01000000	# its reply
d < 0001 000e 0000004d 00000014 01000008 00000000 03000008 00005000
d > 0005 000f 0000004d 00000020 03000008 00005000 04000008 72657400 07000004 0a000005 01000000	# NO_REPLY
d < 0004 0005 00000000 0000000c 02000006 78000000	# a LOOKUP; calls come in the same read as its answer
d > 0005 0014 0000004d 00000018 03000008 00005000 04000008 72657400 07000004
    0001 0005 00000000 0000000c 01000008 00000004
    0005 0015 0000004d 0000001c 03000008 00005000 04000009 71756974 00000000 07000004
d < 0001 0014 *	# and are answered after it
d < 0001 0015 *
)");
	static ubus_context *ctx;
	ASSERT_NE(ctx = ubus_connect(fake.sock.c_str()), nullptr);
	ASSERT_EQ(ubus_add_object(ctx, &demo), 0);
	EXPECT_TRUE(demo.id == 0x5000 && type.id == 0x6000);
	uint32_t id = 0;
	ASSERT_EQ(ubus_lookup_id(ctx, "demo", &id), 0);
	EXPECT_EQ(id, 0xaabbccddu);
	static std::vector<std::string> got;
	auto collect = [](ubus_request *, int, blob_attr *m) {
		char *s = blobmsg_format_json(m, true);
		got.push_back(s), free(s);
	};
	EXPECT_EQ(ubus_invoke(ctx, id, "echo", nullptr, collect, nullptr, 2000), UBUS_STATUS_INVALID_ARGUMENT);
	EXPECT_EQ(ubus_invoke(ctx, id, "echo", nullptr, collect, nullptr, 2000), -7);
	EXPECT_EQ(got, std::vector<std::string>{"{\"id\":2}"});

	ubus_add_uloop(ctx);
	calls = 0;
	uloop_timeout look{.cb = [](uloop_timeout *t) {	// once the NO_REPLY call has run
		if (calls < 2)
			return (void)uloop_timeout_set(t, 10);
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), UBUS_STATUS_NOT_FOUND);
		EXPECT_EQ(calls, 2) << "a call ran during the wait";
	}};
	uloop_timeout_set(&look, 10);
	uloop_run();
	EXPECT_EQ(calls, 4);
	ubus_free(ctx);
}

// A signal handler without SA_RESTART (uloop's SIGCHLD handler is one) interrupting the wait for the rest of a
// frame does not end the connection; a header of another version does.
TEST(Client, InterruptedReadsGoOnAndBadHeadersEndTheConnection)
{
	struct sigaction act{}, old{};
	act.sa_handler = [](int) {};
	ASSERT_EQ(sigaction(SIGUSR1, &act, &old), 0);
	static pthread_t caller = pthread_self();
	for (std::string version : {"00", "01"}) {
		FakeDaemon fake("d < 0005 0001 00005000 *\nd > " + version + "01 0001 00005000 0000000c 01\nd ! 400\n"
				"d > 000008 00000003\n");	// METHOD_NOT_FOUND, the rest after the signal
		// The pauses only order the steps: a signal too early proves nothing, never fails.
		std::thread late([&] { usleep(200 * 1000), pthread_kill(caller, SIGUSR1); });
		static int lost;
		ubus_context *ctx;
		ASSERT_NE(ctx = ubus_connect(fake.sock.c_str()), nullptr);
		lost = 0;
		ctx->connection_lost = [](ubus_context *) { lost++; };
		EXPECT_EQ(ubus_invoke(ctx, 0x5000, "x", nullptr, nullptr, nullptr, 3000),
			  version == "01" ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_METHOD_NOT_FOUND);
		EXPECT_EQ(lost, version == "01");
		late.join();
		ubus_free(ctx);
	}
	sigaction(SIGUSR1, &old, nullptr);
}

} // namespace
