// Shared pieces of the bus tests: a private bus daemon per test (socket in a temporary directory), a test server
// process that publishes objects, and a runner for the `ubus` tool that captures its output and exit code.
//
// The test server is this same test executable started again with GWCONF_UBUS_TEST_SERVER set: a static
// initializer below takes over before main() runs, so the server starts from a clean process (no inherited
// event loop) and the tests need no extra program.
#pragma once

#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}
#include <libubus.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ubus_test {

// ---------------------------------------------------------------------------------------------------------------
// The test server: object "test" (a method per behaviour under test), "test.types" (signatures of every argument
// type, a masked method, a method without arguments) and "test.any" (a method without a name takes every call).

namespace server {

inline blob_buf reply;
inline ubus_request_data deferred_req;
inline uloop_timeout deferred_timer;
inline const char *socket_path;

enum { ECHO_ID, ECHO_MSG };
inline const blobmsg_policy echo_policy[] = {
	[ECHO_ID] = {"id", BLOBMSG_TYPE_INT32},
	[ECHO_MSG] = {"msg", BLOBMSG_TYPE_STRING},
};
inline const blobmsg_policy status_policy[] = {{"code", BLOBMSG_TYPE_INT32}};
inline const blobmsg_policy call_policy[] = {
	{"path", BLOBMSG_TYPE_STRING}, {"method", BLOBMSG_TYPE_STRING}, {"timeout", BLOBMSG_TYPE_INT32}};

// Replies with exactly the members it was called with.
inline int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
	blob_buf_init(&reply, 0);
	blob_attr *cur;
	size_t rem;
	blob_for_each_attr(cur, msg, rem)
		blobmsg_add_blob(&reply, cur);
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

inline int multi(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	for (int n = 1; n <= 2; n++) {
		blob_buf_init(&reply, 0);
		blobmsg_add_u32(&reply, "n", uint32_t(n));
		ubus_send_reply(ctx, req, reply.head);
	}
	return 0;
}

// One reply, then a failure status.
inline int partial(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	blob_buf_init(&reply, 0);
	blobmsg_add_u32(&reply, "n", 1);
	ubus_send_reply(ctx, req, reply.head);
	return UBUS_STATUS_NOT_SUPPORTED;
}

inline int silent(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
	return 0;
}

inline int empty(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	blob_buf_init(&reply, 0);
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

inline int nested(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	blob_buf_init(&reply, 0);
	void *a = blobmsg_open_table(&reply, "a");
	void *l = blobmsg_open_array(&reply, "b");
	blobmsg_add_u32(&reply, nullptr, 1);
	blobmsg_add_string(&reply, nullptr, "x");
	void *t = blobmsg_open_table(&reply, nullptr);
	blobmsg_add_u8(&reply, "c", 1);
	blobmsg_close_table(&reply, t);
	blobmsg_close_array(&reply, l);
	blobmsg_close_table(&reply, a);
	blobmsg_add_string(&reply, "s", "q\"uote");
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

// Returns the status it is given: any int travels unchanged.
inline int status(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *msg)
{
	blob_attr *tb[1];
	blobmsg_parse(status_policy, 1, tb, blob_data(msg), unsigned(blob_len(msg)));
	return tb[0] ? int(blobmsg_get_u32(tb[0])) : 0;
}

// Defers and never answers.
inline int hang(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	ubus_defer_request(ctx, req, &deferred_req);
	return 0;
}

inline ubus_context *server_ctx;

inline void complete_later(uloop_timeout *)
{
	blob_buf_init(&reply, 0);
	blobmsg_add_u8(&reply, "late", 1);
	ubus_send_reply(server_ctx, &deferred_req, reply.head);
	ubus_complete_deferred_request(server_ctx, &deferred_req, 0);
}

// Answers from the loop after the handler returned.
inline int deferred(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	ubus_defer_request(ctx, req, &deferred_req);
	deferred_timer.cb = complete_later;
	uloop_timeout_set(&deferred_timer, 20);
	return 0;
}

// Sends the status first and a reply after it; the caller must not see the reply.
inline int after_status(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	ubus_request_data later;
	ubus_defer_request(ctx, req, &later);
	ubus_complete_deferred_request(ctx, &later, 0);
	blob_buf_init(&reply, 0);
	blobmsg_add_string(&reply, "after", "status");
	ubus_send_reply(ctx, &later, reply.head);
	return 0;
}

inline int die(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
	_exit(0);
}

// A reply above the message limit: the bus daemon drops this client.
inline int big(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	std::string s(1100 * 1024, 'x');
	blob_buf_init(&reply, 0);
	blobmsg_add_string(&reply, "s", s.c_str());
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

inline int whoami(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *)
{
	blob_buf_init(&reply, 0);
	blobmsg_add_string(&reply, "user", req->acl.user ? req->acl.user : "");
	blobmsg_add_string(&reply, "group", req->acl.group ? req->acl.group : "");
	blobmsg_add_string(&reply, "object", req->acl.object ? req->acl.object : "");
	blobmsg_add_string(&reply, "method", method);
	blobmsg_add_u32(&reply, "objid", obj->id);
	blobmsg_add_u32(&reply, "reqobj", req->object);
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

inline void forward_reply(ubus_request *r, int, blob_attr *msg)
{
	auto *outer = static_cast<ubus_request_data *>(r->priv);
	// the outer call's data stays readable while this nested call runs
	blob_buf_init(&reply, 0);
	blob_attr *cur;
	size_t rem;
	blob_for_each_attr(cur, msg, rem)
		blobmsg_add_blob(&reply, cur);
	ubus_send_reply(r->ctx, outer, reply.head);
}

// Calls another object from inside the handler and passes its replies and status on.
inline int call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
	blob_attr *tb[3];
	blobmsg_parse(call_policy, 3, tb, blob_data(msg), unsigned(blob_len(msg)));
	if (!tb[0] || !tb[1])
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t id;
	int ret = ubus_lookup_id(ctx, blobmsg_get_string(tb[0]), &id);
	if (ret)
		return ret;
	std::string method = blobmsg_get_string(tb[1]);	// read before and after the nested call
	int timeout = tb[2] ? int(blobmsg_get_u32(tb[2])) : 2000;
	ret = ubus_invoke(ctx, id, method.c_str(), nullptr, forward_reply, req, timeout);
	if (method != blobmsg_get_string(tb[1]))
		return UBUS_STATUS_UNKNOWN_ERROR;
	return ret;
}

inline int notify(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *msg)
{
	int ret = ubus_notify(ctx, obj, "hello", msg, 1000);
	blob_buf_init(&reply, 0);
	blobmsg_add_u32(&reply, "status", uint32_t(ret));
	blobmsg_add_u8(&reply, "active", obj->has_subscribers);
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

inline const ubus_method test_methods[] = {
	UBUS_METHOD("echo", echo, echo_policy),
	UBUS_METHOD_NOARG("multi", multi),
	UBUS_METHOD_NOARG("silent", silent),
	UBUS_METHOD_NOARG("partial", partial),
	UBUS_METHOD_NOARG("empty", empty),
	UBUS_METHOD_NOARG("nested", nested),
	UBUS_METHOD("status", status, status_policy),
	UBUS_METHOD_NOARG("hang", hang),
	UBUS_METHOD_NOARG("deferred", deferred),
	UBUS_METHOD_NOARG("after_status", after_status),
	UBUS_METHOD_NOARG("die", die),
	UBUS_METHOD_NOARG("big", big),
	UBUS_METHOD_NOARG("whoami", whoami),
	UBUS_METHOD("call", call, call_policy),
	UBUS_METHOD_NOARG("notify", notify),
};
inline ubus_object_type test_type = UBUS_OBJECT_TYPE("test", test_methods);
inline ubus_object test_obj = {.name = "test", .type = &test_type, .methods = test_methods,
			       .n_methods = ARRAY_SIZE(test_methods)};

inline const blobmsg_policy all_types[] = {
	{"a", BLOBMSG_TYPE_ARRAY}, {"t", BLOBMSG_TYPE_TABLE}, {"s", BLOBMSG_TYPE_STRING},
	{"i64", BLOBMSG_TYPE_INT64}, {"i", BLOBMSG_TYPE_INT32}, {"i16", BLOBMSG_TYPE_INT16},
	{"b", BLOBMSG_TYPE_BOOL}, {"d", BLOBMSG_TYPE_DOUBLE}, {"u", BLOBMSG_TYPE_UNSPEC},
};
inline const ubus_method types_methods[] = {
	UBUS_METHOD("all", silent, all_types),
	UBUS_METHOD_NOARG("none", silent),
	UBUS_METHOD_MASK("masked", silent, all_types, (1 << 2) | (1 << 4)),
};
inline ubus_object_type types_type = UBUS_OBJECT_TYPE("types", types_methods);
inline ubus_object types_obj = {.name = "test.types", .type = &types_type, .methods = types_methods,
				.n_methods = ARRAY_SIZE(types_methods)};

inline const ubus_method any_methods[] = {{.name = nullptr, .handler = whoami}};
inline const ubus_method any_signature[] = {UBUS_METHOD_NOARG("whoami", whoami)};
inline ubus_object_type any_type = UBUS_OBJECT_TYPE("any", any_signature);
inline ubus_object any_obj = {.name = "test.any", .type = &any_type, .methods = any_methods, .n_methods = 1};

inline uloop_timeout reconnect_timer;

inline void try_reconnect(uloop_timeout *t)
{
	if (ubus_reconnect(server_ctx, socket_path) != UBUS_STATUS_OK) {
		uloop_timeout_set(t, 50);
		return;
	}
	ubus_add_uloop(server_ctx);
}

inline void lost(ubus_context *)
{
	reconnect_timer.cb = try_reconnect;
	uloop_timeout_set(&reconnect_timer, 50);
}

inline int run(const char *sock)
{
	socket_path = sock;
	server_ctx = ubus_connect(sock);
	if (!server_ctx)
		return 10;
	server_ctx->connection_lost = lost;
	if (ubus_add_object(server_ctx, &types_obj) || ubus_add_object(server_ctx, &any_obj) ||
	    ubus_add_object(server_ctx, &test_obj))	// "test" last: once it is visible, all are
		return 11;
	ubus_add_uloop(server_ctx);
	uloop_run();
	return 0;
}

struct Hook {
	Hook()
	{
		if (const char *sock = getenv("GWCONF_UBUS_TEST_SERVER"))
			_exit(run(sock));
		// The tests wait for their own children; the event loop must not reap them.
		uloop_handle_sigchld = false;
	}
};
inline Hook hook;

} // namespace server

// ---------------------------------------------------------------------------------------------------------------
// Processes and files

inline std::string bin(const char *name)
{
	return std::string(GWCONF_BIN_DIR) + "/" + name;
}

inline std::string read_file(const std::string &path)
{
	std::string s;
	int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return s;
	char buf[4096];
	ssize_t n;
	while ((n = read(fd, buf, sizeof(buf))) > 0)
		s.append(buf, size_t(n));
	close(fd);
	return s;
}

class TempDir {
public:
	TempDir()
	{
		const char *base = getenv("TMPDIR");
		std::string tmpl = std::string(base && *base ? base : "/tmp") + "/gwconf-ubus-XXXXXX";
		std::vector<char> buf(tmpl.begin(), tmpl.end());
		buf.push_back(0);
		if (mkdtemp(buf.data()))
			path = buf.data();
	}
	~TempDir()
	{
		if (!path.empty())
			nftw(path.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 8,
			     FTW_DEPTH | FTW_PHYS);
	}
	std::string path;
};

// Starts argv[0] with extra environment entries; stdout and stderr go to the given descriptors (-1: inherit).
inline pid_t spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env, int out = -1,
		   int err = -1)
{
	pid_t pid = fork();
	if (pid == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);	// never outlive a test process that was killed
		for (const std::string &e : env)
			putenv(strdup(e.c_str()));
		if (out >= 0)
			dup2(out, 1);
		if (err >= 0)
			dup2(err, 2);
		std::vector<char *> args;
		for (const std::string &a : argv)
			args.push_back(const_cast<char *>(a.c_str()));
		args.push_back(nullptr);
		execv(args[0], args.data());
		_exit(127);
	}
	return pid;
}

// Waits for a child; returns its exit code, 128+signal when killed, or -1 after timeout_ms (child left running).
inline int wait_exit(pid_t pid, int timeout_ms = 20000)
{
	auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
	for (;;) {
		int st;
		pid_t r = waitpid(pid, &st, WNOHANG);
		if (r == pid)
			return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
		if (r < 0 || std::chrono::steady_clock::now() > until)
			return -1;
		std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
}

inline void stop(pid_t &pid, int sig = SIGTERM)
{
	if (pid <= 0)
		return;
	kill(pid, sig);
	if (wait_exit(pid, 5000) < 0) {
		kill(pid, SIGKILL);
		wait_exit(pid, 5000);
	}
	pid = -1;
}

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

struct CliResult {
	int code = -1;
	std::string out, err;
};

// ---------------------------------------------------------------------------------------------------------------
// Fixture: a bus daemon on <tmp>/ubus.sock for every test; the test server on demand.

class BusTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_FALSE(dir.path.empty());
		sock = dir.path + "/ubus.sock";
		start_ubusd();
	}

	void TearDown() override
	{
		if (ctx)
			ubus_free(ctx);
		ctx = nullptr;
		stop(server);
		stop(ubusd);
	}

	void start_ubusd()
	{
		ubusd = spawn({bin("ubusd"), "-s", sock}, {});
		for (int i = 0; i < 1000; i++) {
			int fd = connect_unix(sock);
			if (fd >= 0) {
				close(fd);
				return;
			}
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
		}
		FAIL() << "ubusd did not start";
	}

	// The client connection of the test itself.
	ubus_context *client()
	{
		if (!ctx)
			ctx = ubus_connect(sock.c_str());
		return ctx;
	}

	// Waits until `path` is published (or not, with present=false).
	bool wait_object(const char *path, bool present = true, int timeout_ms = 5000)
	{
		ubus_context *c = ubus_connect(sock.c_str());
		if (!c)
			return false;
		bool ok = false;
		auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
		while (std::chrono::steady_clock::now() < until) {
			uint32_t id = 0;
			bool found = ubus_lookup_id(c, path, &id) == 0 && id;
			if (found == present) {
				ok = true;
				break;
			}
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
		}
		ubus_free(c);
		return ok;
	}

	void start_server()
	{
		server = spawn({"/proc/self/exe"}, {"GWCONF_UBUS_TEST_SERVER=" + sock});
		ASSERT_TRUE(wait_object("test")) << "test server did not publish its objects";
	}

	// Runs the ubus tool; stdout and stderr go to files, or stderr to a terminal when tty is true.
	CliResult ubus(const std::vector<std::string> &args, bool tty = false, bool socket_option = true)
	{
		std::vector<std::string> argv = {bin("ubus")};
		if (socket_option) {
			argv.push_back("-s");
			argv.push_back(sock);
		}
		argv.insert(argv.end(), args.begin(), args.end());
		std::string out = dir.path + "/out", err = dir.path + "/err";
		int ofd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
		int efd = -1, master = -1;
		if (tty) {
			master = posix_openpt(O_RDWR | O_NOCTTY);
			grantpt(master);
			unlockpt(master);
			efd = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
		} else {
			efd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
		}
		pid_t pid = spawn(argv, {}, ofd, efd);
		close(ofd);
		close(efd);
		CliResult r;
		r.code = wait_exit(pid);
		if (r.code < 0)
			stop(pid, SIGKILL);
		r.out = read_file(out);
		if (tty) {
			fcntl(master, F_SETFL, O_NONBLOCK);
			char buf[4096];
			ssize_t n;
			while ((n = read(master, buf, sizeof(buf))) > 0)
				r.err.append(buf, size_t(n));
			close(master);
		} else {
			r.err = read_file(err);
		}
		return r;
	}

	TempDir dir;
	std::string sock;
	pid_t ubusd = -1;
	pid_t server = -1;
	ubus_context *ctx = nullptr;
};

} // namespace ubus_test
