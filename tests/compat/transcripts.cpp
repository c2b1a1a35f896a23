// The tools as their users see them: each data/*/*.t is a cram transcript (a shell command, then its output) run
// with the programs of the build first on PATH, $DATA the data folder and $TEST_SERVER this executable, which,
// started with GWCONF_UBUS_TEST_SERVER=<socket>, is the bus test server below instead of a test.
#include <gtest/gtest.h>

#include <filesystem>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}
#include <libubus.h>

#include <algorithm>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// ---- the test server: "test" (a method per behaviour) and "test.any" (one nameless method takes every call) ----
blob_buf b;
ubus_context *ctx;
const char *sock;
uloop_timeout timer;
ubus_request_data deferred;

void reply(ubus_context *c, ubus_request_data *req, const std::string &json)
{
	blob_buf_init(&b, 0);
	blobmsg_add_json_from_string(&b, json.c_str());
	ubus_send_reply(c, req, b.head);
}

const blobmsg_policy code_policy[] = {{"code", BLOBMSG_TYPE_INT32}};
int code(blob_attr *msg)	// the int argument "code", 0 without
{
	blob_attr *tb;
	blobmsg_parse(code_policy, 1, &tb, blob_data(msg), unsigned(blob_len(msg)));
	return tb ? int(blobmsg_get_u32(tb)) : 0;
}

const blobmsg_policy call_policy[] = {{"path", BLOBMSG_TYPE_STRING}, {"method", BLOBMSG_TYPE_STRING}};
std::string added;	// the paths of the objects added since the start, parsed from the daemon's events
ubus_event_handler on_add = {.obj = {}, .cb = [](ubus_context *, ubus_event_handler *, const char *, blob_attr *msg) {
	blob_attr *path;
	blobmsg_parse(call_policy, 1, &path, blob_data(msg), unsigned(blob_len(msg)));
	added += path ? std::string(" ") + blobmsg_get_string(path) : " ?";
}};

#define HANDLER(name) int name([[maybe_unused]] ubus_context *c, [[maybe_unused]] ubus_object *obj, \
	[[maybe_unused]] ubus_request_data *req, [[maybe_unused]] const char *method, [[maybe_unused]] blob_attr *msg)
HANDLER(echo) { return ubus_send_reply(c, req, msg), 0; }
HANDLER(status) { return code(msg); }
HANDLER(multi) { return reply(c, req, "{\"n\":1}"), reply(c, req, "{\"n\":2}"), code(msg); }
HANDLER(hang) { return ubus_defer_request(c, req, &deferred), 0; }
HANDLER(deferred_reply)	// answers from the loop after the handler returned
{
	ubus_defer_request(c, req, &deferred);
	timer.cb = [](uloop_timeout *) {
		reply(ctx, &deferred, "{\"late\":true}"), ubus_complete_deferred_request(ctx, &deferred, 0);
	};
	return uloop_timeout_set(&timer, 20), 0;
}
HANDLER(big) { return reply(c, req, "{\"s\":\"" + std::string(1100 * 1024, 'x') + "\"}"), 0; }	// above the limit
HANDLER(whoami)
{
	auto text = [](const char *s) { return "\"" + std::string(s ? s : "") + "\""; };
	return reply(c, req, "{\"user\":" + text(req->acl.user) + ",\"object\":" + text(req->acl.object) +
			     ",\"method\":" + text(method) + ",\"id\":" + (obj->id == req->object ? "true" : "false") +
			     ",\"added\":" + text(added.c_str()) + "}"), 0;
}
HANDLER(call)	// calls another object from inside the handler and passes its replies and status on
{
	blob_attr *tb[2];
	blobmsg_parse(call_policy, 2, tb, blob_data(msg), unsigned(blob_len(msg)));
	uint32_t id;
	if (int ret = ubus_lookup_id(c, blobmsg_get_string(tb[0]), &id))
		return ret;
	return ubus_invoke(c, id, blobmsg_get_string(tb[1]), nullptr, [](ubus_request *r, int, blob_attr *m) {
		ubus_send_reply(r->ctx, static_cast<ubus_request_data *>(r->priv), m);
	}, req, 2000);
}
HANDLER(notify)
{
	return reply(c, req, "{\"status\":" + std::to_string(ubus_notify(c, obj, "hello", msg, 1000)) + ",\"active\":" +
			     (obj->has_subscribers ? "true" : "false") + "}"), 0;
}
#undef HANDLER

const blobmsg_policy all_types[] = {
	{"a", BLOBMSG_TYPE_ARRAY}, {"t", BLOBMSG_TYPE_TABLE}, {"s", BLOBMSG_TYPE_STRING}, {"i64", BLOBMSG_TYPE_INT64},
	{"i", BLOBMSG_TYPE_INT32}, {"i16", BLOBMSG_TYPE_INT16}, {"b", BLOBMSG_TYPE_BOOL}, {"d", BLOBMSG_TYPE_DOUBLE},
	{"u", BLOBMSG_TYPE_UNSPEC}};
const ubus_method methods[] = {
	UBUS_METHOD("echo", echo, all_types), UBUS_METHOD_MASK("masked", echo, all_types, (1 << 2) | (1 << 4)),
	UBUS_METHOD("status", status, code_policy), UBUS_METHOD("multi", multi, code_policy),
	UBUS_METHOD_NOARG("hang", hang), UBUS_METHOD_NOARG("deferred", deferred_reply), UBUS_METHOD_NOARG("big", big),
	UBUS_METHOD("call", call, call_policy), UBUS_METHOD_NOARG("notify", notify)};
ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
ubus_object test = {.name = "test", .type = &type, .methods = methods, .n_methods = ARRAY_SIZE(methods)};
const ubus_method any_methods[] = {{.name = nullptr, .handler = whoami}};
ubus_object_type any_type = UBUS_OBJECT_TYPE("any", any_methods);
ubus_object any = {.name = "test.any", .type = &any_type, .methods = any_methods, .n_methods = 1};

int serve(const char *path)
{
	sock = path;
	prctl(PR_SET_PDEATHSIG, SIGTERM);
	for (int i = 0; !(ctx = ubus_connect(sock)); i++)
		if (i == 500 || usleep(10000))
			return 10;
	ctx->connection_lost = [](ubus_context *) {	// reconnect every 50 ms until the daemon takes us back
		timer.cb = [](uloop_timeout *t) {
			ubus_reconnect(ctx, sock) == UBUS_STATUS_OK ? ubus_add_uloop(ctx) : (void)uloop_timeout_set(t, 50);
		};
		uloop_timeout_set(&timer, 50);
	};
	if (const char *name = getenv("GWCONF_UBUS_TEST_NAME"))	// a second server: NAME and NAME.any
		test.name = name, any.name = strdup((std::string(name) + ".any").c_str());
	if (ubus_register_event_handler(ctx, &on_add, "ubus.object.add") || ubus_add_object(ctx, &any) ||
	    ubus_add_object(ctx, &test))	// "test" last: once it is seen, both are
		return 11;
	ubus_add_uloop(ctx);
	uloop_run();
	ubus_free(ctx);
	return 0;
}

const bool server = getenv("GWCONF_UBUS_TEST_SERVER") && (exit(serve(getenv("GWCONF_UBUS_TEST_SERVER"))), true);

// ---- the transcripts: cram writes NAME.t.err beside a transcript that fails, so it runs on a copy in the build
// folder (a failure prints the difference); what a transcript leaves running goes with its process group ----
class Transcript : public ::testing::TestWithParam<std::filesystem::path> {};

TEST_P(Transcript, Cram)
{
	namespace fs = std::filesystem;
	fs::path copy = fs::absolute("cram-compat") / GetParam().lexically_relative(GWCONF_TEST_DATA);
	fs::create_directories(copy.parent_path());
	fs::copy_file(GetParam(), copy, fs::copy_options::overwrite_existing);
	setenv("PATH", (GWCONF_BIN_DIR ":" + std::string(getenv("PATH"))).c_str(), 1);
	setenv("DATA", GWCONF_TEST_DATA, 1);
	setenv("TEST_SERVER", fs::read_symlink("/proc/self/exe").c_str(), 1);
	pid_t pid = fork();
	if (pid == 0)
		setpgid(0, 0), execlp("cram3", "cram3", copy.c_str(), nullptr), _exit(127);
	int st = -1;
	waitpid(pid, &st, 0);
	kill(-pid, SIGTERM);
	EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "cram (python3-cram) failed on " << copy;
}

std::vector<std::filesystem::path> transcripts()
{
	std::vector<std::filesystem::path> all;
	for (auto &e : std::filesystem::recursive_directory_iterator(GWCONF_TEST_DATA))
		if (e.path().extension() == ".t")
			all.push_back(e.path());
	return std::sort(all.begin(), all.end()), all;
}

INSTANTIATE_TEST_SUITE_P(Compat, Transcript, ::testing::ValuesIn(transcripts()), [](const auto &info) {
	return info.param.parent_path().filename().string() + "_" + info.param.stem().string();
});

} // namespace
