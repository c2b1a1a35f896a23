// ubus: command-line client of the bus. Lists objects, calls methods with JSON arguments, sends and listens for
// events, waits for objects, subscribes to notifications and monitors the traffic. Output and exit codes follow
// what scripts written for the router's own tool expect.
extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const char *progname = "ubus";
int timeout = -1;	// seconds; -1 = not given on the command line
bool simple = false;
int verbose = 0;
unsigned monitor_types = 0;	// bit per message type; 0 = all
int monitor_dir = -1;		// -1 both, 0 received by the daemon only, 1 sent by it only
blob_buf b;

const char *const msg_type_names[] = {
	"hello", "status", "data", "ping", "lookup", "invoke", "add_object", "remove_object", "subscribe",
	"unsubscribe", "notify",
};

void usage()
{
	fprintf(stderr,
		"Usage: %s [<options>] <command> [arguments...]\n"
		"Options:\n"
		" -s <socket>:\t\tConnect to this unix socket instead of the default\n"
		" -t <timeout>:\t\tSeconds to wait for a command to finish\n"
		" -S:\t\t\tSimple output for scripts\n"
		" -v:\t\t\tVerbose output\n"
		" -m <type>:\t\t(monitor) show only this message type; may be repeated\n"
		" -M <r|t>:\t\t(monitor) show only received or only transmitted messages\n"
		"\n"
		"Commands:\n"
		" - list [<path>]\t\t\tList objects\n"
		" - call <path> <method> [<message>]\tCall a method of an object\n"
		" - subscribe <path> [<path>...]\tPrint the notifications of objects\n"
		" - listen [<path>...]\t\t\tPrint events\n"
		" - send <type> [<message>]\t\tSend an event\n"
		" - wait_for <object> [<object>...]\tWait until the objects exist\n"
		" - monitor\t\t\t\tPrint the bus traffic\n"
		"\n",
		progname);
}

const char *type_name(uint32_t t)
{
	switch (t) {
	case BLOBMSG_TYPE_ARRAY: return "Array";
	case BLOBMSG_TYPE_TABLE: return "Table";
	case BLOBMSG_TYPE_STRING: return "String";
	case BLOBMSG_TYPE_INT32: return "Integer";
	case BLOBMSG_TYPE_INT8: return "Boolean";
	default: return "(unknown)";
	}
}

void print_object(ubus_context *ctx, ubus_object_data *obj, void *priv)
{
	(void)ctx;
	(void)priv;
	if (!verbose || simple) {
		printf("%s\n", obj->path);
		return;
	}
	printf("'%s' @%08x\n", obj->path, obj->id);
	if (!obj->signature)
		return;
	blob_attr *method;
	size_t rem;
	blob_for_each_attr(method, obj->signature, rem) {
		// One line per method: "name":{"arg":"Type",...}
		static blob_buf line;
		blob_buf_init(&line, 0);
		void *t = blobmsg_open_table(&line, blobmsg_name(method));
		blob_attr *arg;
		size_t arem;
		blobmsg_for_each_attr(arg, method, arem) {
			if (blobmsg_type(arg) != BLOBMSG_TYPE_INT32)
				continue;
			blobmsg_add_string(&line, blobmsg_name(arg), type_name(blobmsg_get_u32(arg)));
		}
		blobmsg_close_table(&line, t);
		char *s = blobmsg_format_json(static_cast<blob_attr *>(blob_data(line.head)), false);
		if (s) {
			printf("\t%s\n", s);
			free(s);
		}
	}
}

int cmd_list(ubus_context *ctx, int argc, char **argv)
{
	if (argc > 1)
		return -2;
	return ubus_lookup(ctx, argc ? argv[0] : nullptr, print_object, nullptr);
}

void print_reply(ubus_request *req, int type, blob_attr *msg)
{
	(void)req;
	(void)type;
	if (!msg)
		return;
	char *s = blobmsg_format_json_indent(msg, true, simple ? -1 : 0);
	if (s) {
		printf("%s\n", s);
		free(s);
	}
}

// A failure after the lookup: scripts (stderr not a terminal) get the whole command line and an exit code that
// cannot be mistaken for the status itself.
int call_failed(int argc, char **argv, int status)
{
	if (simple || isatty(STDERR_FILENO))
		return status;
	fprintf(stderr, "Command failed: ubus ");
	for (int i = 0; i < argc; i++)
		fprintf(stderr, "%s ", argv[i]);
	fprintf(stderr, "(%s)\n", ubus_strerror(status));
	return -status;
}

int cmd_call(ubus_context *ctx, int argc, char **argv)
{
	if (argc < 2 || argc > 3)
		return -2;
	blob_buf_init(&b, 0);
	if (argc == 3 && !blobmsg_add_json_from_string(&b, argv[2]))
		return call_failed(argc + 1, argv - 1, UBUS_STATUS_PARSE_ERROR);
	uint32_t id;
	int ret = ubus_lookup_id(ctx, argv[0], &id);
	if (ret)
		return ret;
	int ms = timeout < 0 ? 30000 : timeout * 1000;
	ret = ubus_invoke(ctx, id, argv[1], b.head, print_reply, nullptr, ms);
	if (ret)
		return call_failed(argc + 1, argv - 1, ret);
	return 0;
}

int cmd_send(ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1 || argc > 2)
		return -2;
	blob_buf_init(&b, 0);
	if (argc == 2 && !blobmsg_add_json_from_string(&b, argv[1]))
		return UBUS_STATUS_PARSE_ERROR;
	return ubus_send_event(ctx, argv[0], b.head);
}

void stop_loop(uloop_timeout *t)
{
	(void)t;
	uloop_end();
}

// Runs the loop until a signal, or until `seconds` pass when positive.
void run_loop(ubus_context *ctx, int seconds)
{
	uloop_timeout limit{};
	limit.cb = stop_loop;
	ubus_add_uloop(ctx);
	if (seconds > 0)
		uloop_timeout_set(&limit, seconds * 1000);
	uloop_run();
	uloop_timeout_cancel(&limit);
}

void print_event(ubus_context *ctx, ubus_event_handler *ev, const char *type, blob_attr *msg)
{
	(void)ctx;
	(void)ev;
	char *s = blobmsg_format_json(msg, true);
	printf("{ \"%s\": %s }\n", type, s ? s : "{}");
	fflush(stdout);
	free(s);
}

int cmd_listen(ubus_context *ctx, int argc, char **argv)
{
	static ubus_event_handler listener;
	memset(&listener, 0, sizeof(listener));
	listener.cb = print_event;
	const char *all[] = {"*"};
	const char *const *patterns = argc ? const_cast<const char *const *>(argv) : all;
	int n = argc ? argc : 1;
	for (int i = 0; i < n; i++) {
		int ret = ubus_register_event_handler(ctx, &listener, patterns[i]);
		if (ret) {
			fprintf(stderr, "Error while registering for event '%s': %s\n", patterns[i], ubus_strerror(ret));
			return -1;
		}
	}
	run_loop(ctx, timeout);
	return 0;
}

int print_notification(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
		       blob_attr *msg)
{
	(void)ctx;
	(void)obj;
	(void)req;
	char *s = blobmsg_format_json(msg, true);
	printf("{ \"%s\": %s }\n", method, s ? s : "{}");
	fflush(stdout);
	free(s);
	return 0;
}

int cmd_subscribe(ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1) {
		fprintf(stderr, "You need to specify an object to subscribe to\n");
		return -1;
	}
	static ubus_subscriber sub;
	memset(&sub, 0, sizeof(sub));
	sub.cb = print_notification;
	int ret = ubus_register_subscriber(ctx, &sub);
	for (int i = 0; !ret && i < argc; i++) {
		uint32_t id;
		ret = ubus_lookup_id(ctx, argv[i], &id);
		if (!ret)
			ret = ubus_subscribe(ctx, &sub, id);
	}
	if (ret)
		return ret;
	run_loop(ctx, timeout);
	return 0;
}

struct WaitFor {
	ubus_event_handler ev;
	std::vector<std::string> missing;
};

void seen_object(WaitFor &w, const char *path)
{
	for (size_t i = 0; i < w.missing.size(); i++) {
		if (w.missing[i] == path) {
			w.missing.erase(w.missing.begin() + long(i));
			break;
		}
	}
	if (w.missing.empty())
		uloop_end();
}

void wait_event(ubus_context *ctx, ubus_event_handler *ev, const char *type, blob_attr *msg)
{
	(void)ctx;
	(void)type;
	static const blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
	blob_attr *path;
	blobmsg_parse(&policy, 1, &path, blob_data(msg), unsigned(blob_len(msg)));
	if (path)
		seen_object(*container_of(ev, WaitFor, ev), blobmsg_get_string(path));
}

void wait_lookup(ubus_context *ctx, ubus_object_data *obj, void *priv)
{
	(void)ctx;
	seen_object(*static_cast<WaitFor *>(priv), obj->path);
}

int cmd_wait_for(ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1)
		return -2;
	static WaitFor w;
	memset(&w.ev, 0, sizeof(w.ev));
	w.ev.cb = wait_event;
	w.missing.assign(argv, argv + argc);
	// Listen first, then look: an object added in between is not missed.
	int ret = ubus_register_event_handler(ctx, &w.ev, "ubus.object.add");
	if (ret)
		return ret;
	ret = ubus_lookup(ctx, nullptr, wait_lookup, &w);
	if (ret && ret != UBUS_STATUS_NOT_FOUND)
		return ret;
	if (w.missing.empty())
		return 0;
	int seconds = timeout < 0 ? 30 : timeout;
	if (seconds == 0)
		return UBUS_STATUS_TIMEOUT;
	run_loop(ctx, seconds);
	return w.missing.empty() ? 0 : UBUS_STATUS_TIMEOUT;
}

void add_monitor_field(blob_attr *a, int id)
{
	switch (id) {
	case UBUS_ATTR_STATUS:
		blobmsg_add_u32(&b, "status", blob_get_u32(a));
		break;
	case UBUS_ATTR_OBJPATH:
		blobmsg_add_string(&b, "objpath", blob_get_string(a));
		break;
	case UBUS_ATTR_OBJID:
		blobmsg_add_u32(&b, "objid", blob_get_u32(a));
		break;
	case UBUS_ATTR_METHOD:
		blobmsg_add_string(&b, "method", blob_get_string(a));
		break;
	case UBUS_ATTR_OBJTYPE:
		blobmsg_add_u32(&b, "objtype", blob_get_u32(a));
		break;
	case UBUS_ATTR_SIGNATURE:
	case UBUS_ATTR_DATA: {
		void *t = blobmsg_open_table(&b, id == UBUS_ATTR_DATA ? "data" : "signature");
		blob_attr *cur;
		size_t rem;
		blob_for_each_attr(cur, a, rem)
			if (blobmsg_check_attr(cur, false))
				blobmsg_add_blob(&b, cur);
		blobmsg_close_table(&b, t);
		break;
	}
	case UBUS_ATTR_ACTIVE:
		blobmsg_add_u8(&b, "active", blob_get_u8(a));
		break;
	case UBUS_ATTR_NO_REPLY:
		blobmsg_add_u8(&b, "no_reply", blob_get_u8(a));
		break;
	case UBUS_ATTR_USER:
		blobmsg_add_string(&b, "user", blob_get_string(a));
		break;
	case UBUS_ATTR_GROUP:
		blobmsg_add_string(&b, "group", blob_get_string(a));
		break;
	}
}

void print_monitor(ubus_context *ctx, uint32_t seq, blob_attr *msg)
{
	(void)ctx;
	(void)seq;
	blob_attr *tb[UBUS_MONITOR_DATA + 1] = {};
	blob_attr *cur;
	size_t rem;
	blob_for_each_attr(cur, msg, rem)
		if (blob_id(cur) <= UBUS_MONITOR_DATA)
			tb[blob_id(cur)] = cur;
	if (!tb[UBUS_MONITOR_CLIENT] || !tb[UBUS_MONITOR_PEER] || !tb[UBUS_MONITOR_SEND] || !tb[UBUS_MONITOR_TYPE] ||
	    !tb[UBUS_MONITOR_DATA])
		return;
	bool send = blob_get_u8(tb[UBUS_MONITOR_SEND]);
	uint32_t type = blob_get_u32(tb[UBUS_MONITOR_TYPE]);
	if (monitor_dir >= 0 && int(send) != monitor_dir)
		return;
	if (monitor_types && (type >= 32 || !(monitor_types & (1u << type))))
		return;
	blob_buf_init(&b, 0);
	blob_attr *field;
	size_t frem;
	blob_for_each_attr(field, tb[UBUS_MONITOR_DATA], frem)
		add_monitor_field(field, int(blob_id(field)));
	char *s = blobmsg_format_json(b.head, true);
	std::string tname = type < ARRAY_SIZE(msg_type_names) ? msg_type_names[type] : std::to_string(type);
	printf("%s %08x #%08x %14s: %s\n", send ? "->" : "<-", blob_get_u32(tb[UBUS_MONITOR_CLIENT]),
	       blob_get_u32(tb[UBUS_MONITOR_PEER]), tname.c_str(), s ? s : "{}");
	fflush(stdout);
	free(s);
}

int cmd_monitor(ubus_context *ctx, int argc, char **argv)
{
	(void)argc;
	(void)argv;
	ctx->monitor_cb = print_monitor;
	int ret = ubus_monitor_start(ctx);
	if (ret)
		return ret;
	run_loop(ctx, timeout);
	ubus_monitor_stop(ctx);
	return 0;
}

struct Command {
	const char *name;
	int (*run)(ubus_context *ctx, int argc, char **argv);
};

const Command commands[] = {
	{"list", cmd_list}, {"call", cmd_call}, {"listen", cmd_listen}, {"send", cmd_send},
	{"subscribe", cmd_subscribe}, {"wait_for", cmd_wait_for}, {"monitor", cmd_monitor},
};

} // namespace

int main(int argc, char **argv)
{
	progname = argv[0];
	const char *socket = nullptr;
	int ch;
	while ((ch = getopt(argc, argv, "m:M:vs:t:S")) != -1) {
		switch (ch) {
		case 's':
			socket = optarg;
			break;
		case 't':
			timeout = atoi(optarg);
			break;
		case 'S':
			simple = true;
			break;
		case 'v':
			verbose++;
			break;
		case 'm': {
			unsigned i = 0;
			while (i < ARRAY_SIZE(msg_type_names) && strcmp(msg_type_names[i], optarg))
				i++;
			if (i == ARRAY_SIZE(msg_type_names)) {
				usage();
				return 1;
			}
			monitor_types |= 1u << i;
			break;
		}
		case 'M':
			if (!strcmp(optarg, "r"))
				monitor_dir = 0;
			else if (!strcmp(optarg, "t"))
				monitor_dir = 1;
			else {
				usage();
				return 1;
			}
			break;
		default:
			usage();
			return 1;
		}
	}
	argc -= optind;
	argv += optind;

	ubus_context *ctx = ubus_connect(socket);
	if (!ctx) {
		if (!simple)
			fprintf(stderr, "Failed to connect to ubus\n");
		return 255;
	}

	int ret;
	if (argc < 1) {
		usage();
		ret = 1;
	} else {
		ret = -2;
		for (const Command &c : commands)
			if (!strcmp(c.name, argv[0]))
				ret = c.run(ctx, argc - 1, argv + 1);
		if (ret > 0 && !simple)
			fprintf(stderr, "Command failed: %s\n", ubus_strerror(ret));
		else if (ret == -2)
			usage();
	}
	ubus_free(ctx);
	blob_buf_free(&b);
	return ret & 0xff;
}
