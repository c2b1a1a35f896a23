// Cost of a bus call: one client calls a method with a small reply through the bus daemon, one call at a time
// (round trip time; its inverse is the calls per second of one client). Measured in the same run: the floor, a
// raw unix-socket ping-pong of a message of the same size between two processes.
//
//   BM_RawSocketPingPong   the floor;
//   BM_DaemonCall          `RTIptv test` of gwconfd through ubusd, in the emulated router;
//   BM_BusCall             a method of a minimal server of this program (a string argument, a two-field reply),
//                          through a ubusd of this build on a private socket: the bus alone, without the daemon.
//
// Each reports the median and the 99th percentile of the single round trips as the counters p50_us and p99_us.
// Outside a sandbox the program runs itself again inside `sandbox/router --build <its build folder>`, which
// starts the bus daemon and gwconfd. The minimal server is this program started again with
// GWCONF_UBUS_BENCH_SERVER set (see Hook below).
extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
}
#include <libubus.h>

#include "bench_util.h"
#include "sandbox_entry.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <fstream>
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
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Collects the time of each round trip and reports their median and 99th percentile.
struct RoundTrips {
	std::vector<double> us;
	RoundTrips() { us.reserve(1 << 20); }
	void add(Clock::time_point t0) { us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count()); }
	void report(benchmark::State &state) const
	{
		state.counters["p50_us"] = gwbench::quantile(us, 0.5);
		state.counters["p99_us"] = gwbench::quantile(us, 0.99);
	}
};

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
struct PrivateBus {
	std::string dir, sock, env;
	pid_t ubusd = -1, server = -1;
	ubus_context *ctx = nullptr;
	uint32_t id = 0;

	PrivateBus()
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
	~PrivateBus()
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

PrivateBus &privateBus()
{
	static PrivateBus b;
	return b;
}

// The emulated router's bus, where the sandbox started gwconfd.
struct DaemonBus {
	ubus_context *ctx = nullptr;
	uint32_t id = 0;
	DaemonBus()
	{
		ctx = ubus_connect(nullptr);
		for (int i = 0; ctx && i < 400 && ubus_lookup_id(ctx, "RTIptv", &id); i++)
			std::this_thread::sleep_for(std::chrono::milliseconds(50));
	}
	~DaemonBus()
	{
		if (ctx)
			ubus_free(ctx);
	}
};

DaemonBus &daemonBus()
{
	static DaemonBus b;
	return b;
}

// Calls `method` of object `id` once per iteration; every call must answer status 0 with one reply.
void callLoop(benchmark::State &state, ubus_context *ctx, uint32_t id, const char *method, blob_attr *msg)
{
	if (!ctx || !id) {
		state.SkipWithError("the object is not on the bus");
		return;
	}
	int replies = 0;
	auto count = [](ubus_request *req, int, blob_attr *) { ++*static_cast<int *>(req->priv); };
	RoundTrips trips;
	for (auto _ : state) {
		const auto t0 = Clock::now();
		if (ubus_invoke(ctx, id, method, msg, count, &replies, 1000)) {
			state.SkipWithError("call failed");
			break;
		}
		trips.add(t0);
	}
	if (replies != int(state.iterations()))
		state.SkipWithError("a reply was missing");
	state.SetItemsProcessed(int64_t(state.iterations()));
	trips.report(state);
}

void BM_BusCall(benchmark::State &state)
{
	blob_buf args{};
	blob_buf_init(&args, 0);
	blobmsg_add_string(&args, "msg", "hello");
	callLoop(state, privateBus().ctx, privateBus().id, "ping", args.head);
	blob_buf_free(&args);
}

void BM_DaemonCall(benchmark::State &state)
{
	blob_buf args{};
	blob_buf_init(&args, 0);
	callLoop(state, daemonBus().ctx, daemonBus().id, "test", args.head);
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
	RoundTrips trips;
	for (auto _ : state) {
		const auto t0 = Clock::now();
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
		trips.add(t0);
	}
	state.SetItemsProcessed(int64_t(state.iterations()));
	trips.report(state);
	close(sv[0]);
	waitpid(echo, nullptr, 0);
}

BENCHMARK(BM_RawSocketPingPong)->MinTime(1.0)->UseRealTime();
BENCHMARK(BM_DaemonCall)->MinTime(1.0)->UseRealTime();
BENCHMARK(BM_BusCall)->MinTime(1.0)->UseRealTime();

// Outside a sandbox, this program runs again inside the emulated router of its build folder (bus daemon and
// gwconfd running), before any benchmark starts; not the server it starts of itself.
struct EnterSandbox {
	EnterSandbox()
	{
		if (!getenv("GWCONF_UBUS_BENCH_SERVER"))
			gwbench::enterSandbox(false);
	}
} s_enterSandbox;

} // namespace

BENCHMARK_MAIN();
