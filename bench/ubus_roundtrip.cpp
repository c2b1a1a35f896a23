// Cost of a bus call: one client calls a method with a small argument and a small reply, through our ubusd, one
// call at a time (round trip time; its inverse is the calls per second of one client). Measured in the same run:
// the floor, a raw unix-socket ping-pong of a message of the same size between two processes.
//
// The server side is this program started again with GWCONF_UBUS_BENCH_SERVER set (see Hook below).
extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
}
#include <libubus.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

blob_buf reply;

int ping(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	blob_buf_init(&reply, 0);
	blobmsg_add_u8(&reply, "ok", 1);
	blobmsg_add_u32(&reply, "n", 42);
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

const ubus_method methods[] = {UBUS_METHOD_NOARG("ping", ping)};
ubus_object_type type = UBUS_OBJECT_TYPE("bench", methods);
ubus_object object = {.name = "bench", .type = &type, .methods = methods, .n_methods = 1};

struct Hook {
	Hook()
	{
		const char *sock = getenv("GWCONF_UBUS_BENCH_SERVER");
		if (!sock)
			return;
		ubus_context *ctx = ubus_connect(sock);
		if (!ctx || ubus_add_object(ctx, &object))
			_exit(1);
		ubus_add_uloop(ctx);
		uloop_run();
		_exit(0);
	}
} hook;

pid_t spawn(const std::string &prog, const std::string &arg1, const std::string &arg2, const char *env)
{
	pid_t pid = fork();
	if (pid == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		if (env)
			putenv(const_cast<char *>(env));
		execl(prog.c_str(), prog.c_str(), arg1.empty() ? nullptr : arg1.c_str(), arg2.c_str(), nullptr);
		_exit(127);
	}
	return pid;
}

// ubusd on a private socket plus the server process, for the whole run.
struct Bus {
	std::string dir, sock, env;
	pid_t ubusd = -1, server = -1;
	ubus_context *ctx = nullptr;
	uint32_t id = 0;

	Bus()
	{
		char tmpl[] = "/tmp/gwconf-ubus-bench-XXXXXX";
		dir = mkdtemp(tmpl);
		sock = dir + "/ubus.sock";
		ubusd = spawn(std::string(GWCONF_BIN_DIR) + "/ubusd", "-s", sock, nullptr);
		for (int i = 0; i < 2000 && !ctx; i++) {
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
			ctx = ubus_connect(sock.c_str());
		}
		env = "GWCONF_UBUS_BENCH_SERVER=" + sock;
		server = spawn("/proc/self/exe", "", "", env.c_str());
		for (int i = 0; i < 2000 && ctx && ubus_lookup_id(ctx, "bench", &id); i++)
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
	~Bus()
	{
		if (ctx)
			ubus_free(ctx);
		for (pid_t p : {server, ubusd}) {
			kill(p, SIGTERM);
			waitpid(p, nullptr, 0);
		}
		unlink(sock.c_str());
		rmdir(dir.c_str());
	}
};

Bus &bus()
{
	static Bus b;
	return b;
}

void BM_BusCall(benchmark::State &state)
{
	Bus &b = bus();
	if (!b.ctx || !b.id) {
		state.SkipWithError("bus not running");
		return;
	}
	blob_buf args{};
	blob_buf_init(&args, 0);
	blobmsg_add_string(&args, "msg", "hello");
	int replies = 0;
	auto count = [](ubus_request *req, int, blob_attr *) { ++*static_cast<int *>(req->priv); };
	for (auto _ : state) {
		if (ubus_invoke(b.ctx, b.id, "ping", args.head, count, &replies, 1000)) {
			state.SkipWithError("call failed");
			break;
		}
	}
	if (replies != int(state.iterations()))
		state.SkipWithError("a reply was missing");
	state.SetItemsProcessed(int64_t(state.iterations()));
	blob_buf_free(&args);
}

// The floor: the same number of bytes each way as the call's request and reply, over a raw socket pair.
void BM_RawSocketPingPong(benchmark::State &state)
{
	int sv[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv)) {
		state.SkipWithError("socketpair");
		return;
	}
	constexpr size_t kLen = 64;
	pid_t echo = fork();
	if (echo == 0) {
		close(sv[0]);
		char buf[kLen];
		for (;;) {
			size_t got = 0;
			while (got < kLen) {
				ssize_t n = read(sv[1], buf + got, kLen - got);
				if (n <= 0)
					_exit(0);
				got += size_t(n);
			}
			if (write(sv[1], buf, kLen) != ssize_t(kLen))
				_exit(1);
		}
	}
	close(sv[1]);
	char buf[kLen] = {1};
	for (auto _ : state) {
		if (write(sv[0], buf, kLen) != ssize_t(kLen)) {
			state.SkipWithError("write");
			break;
		}
		size_t got = 0;
		while (got < kLen) {
			ssize_t n = read(sv[0], buf + got, kLen - got);
			if (n <= 0)
				break;
			got += size_t(n);
		}
	}
	state.SetItemsProcessed(int64_t(state.iterations()));
	close(sv[0]);
	waitpid(echo, nullptr, 0);
}

BENCHMARK(BM_RawSocketPingPong)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_BusCall)->MinTime(2.0)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
