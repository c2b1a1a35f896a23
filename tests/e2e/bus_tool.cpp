// The e2e tests' own bus programs, run inside the emulated router.
//
//   bus_tool call                     reads requests "OBJECT METHOD JSON" from stdin, one a line, and answers each
//                                     with one line "STATUS REPLY": the bus status and the reply as compact JSON
//                                     ("-" for none). One connection for all, and texts of any bytes, not only UTF-8.
//   bus_tool rtsta FILE [MAC=NAME]... offers RTSta, the station daemon's object: getStaDevName answers the name
//                                     known for DevMac, setStaDevName stores one; each call is appended to FILE as
//                                     "METHOD MAC [NAME]".
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

namespace {

void collect(ubus_request *req, int, blob_attr *msg)
{
    char *json = msg ? blobmsg_format_json(msg, true) : nullptr;
    if (json)
        *static_cast<std::string *>(req->priv) = json;
    free(json);
}

int callLoop()
{
    ubus_context *ctx = ubus_connect(nullptr);
    if (!ctx)
        return std::fprintf(stderr, "bus_tool: cannot connect to the bus\n"), 1;
    for (std::string line; std::getline(std::cin, line);) {
        const size_t a = line.find(' '), b = line.find(' ', a + 1);
        const std::string object = line.substr(0, a), method = line.substr(a + 1, b - a - 1);
        blob_buf buf{};
        blob_buf_init(&buf, 0);
        std::string reply;
        uint32_t id = 0;
        int status = UBUS_STATUS_INVALID_ARGUMENT;
        if (b == std::string::npos || blobmsg_add_json_from_string(&buf, line.c_str() + b + 1))
            if ((status = ubus_lookup_id(ctx, object.c_str(), &id)) == UBUS_STATUS_OK)
                status = ubus_invoke(ctx, id, method.c_str(), buf.head, collect, &reply, 20000);
        blob_buf_free(&buf);
        std::printf("%d %s\n", status, reply.empty() ? "-" : reply.c_str());
        std::fflush(stdout);
    }
    ubus_free(ctx);
    return 0;
}

std::map<std::string, std::string> names;
FILE *record;
const blobmsg_policy policy[] = {{"DevMac", BLOBMSG_TYPE_STRING}, {"DevName", BLOBMSG_TYPE_STRING}};

int station(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg)
{
    blob_attr *tb[2];
    blobmsg_parse(policy, 2, tb, blob_data(msg), blob_len(msg));
    if (!tb[0])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const std::string mac = blobmsg_get_string(tb[0]);
    const bool set = std::strcmp(method, "setStaDevName") == 0 && tb[1];
    std::fprintf(record, "%s %s%s%s\n", method, mac.c_str(), set ? " " : "", set ? blobmsg_get_string(tb[1]) : "");
    std::fflush(record);
    if (set) {
        names[mac] = blobmsg_get_string(tb[1]);
    } else if (names.count(mac)) {
        static blob_buf b;
        blob_buf_init(&b, 0);
        void *params = blobmsg_open_table(&b, "params");
        blobmsg_add_string(&b, "DevName", names[mac].c_str());
        blobmsg_close_table(&b, params);
        ubus_send_reply(ctx, req, b.head);
    }
    return UBUS_STATUS_OK;
}

int serveStation(int argc, char **argv)
{
    record = std::fopen(argv[2], "a");
    for (int i = 3; i < argc; ++i)
        if (const char *eq = std::strchr(argv[i], '='))
            names[std::string(argv[i], static_cast<size_t>(eq - argv[i]))] = eq + 1;
    static const ubus_method methods[] = {{.name = "setStaDevName", .handler = station},
                                          {.name = "getStaDevName", .handler = station}};
    static ubus_object_type type = {"RTSta", 0, methods, 2};
    static ubus_object object = {.name = "RTSta", .type = &type, .methods = methods, .n_methods = 2};
    uloop_init();
    ubus_context *ctx = ubus_connect(nullptr);
    if (!record || !ctx || ubus_add_object(ctx, &object) != UBUS_STATUS_OK)
        return std::fprintf(stderr, "bus_tool: cannot offer RTSta\n"), 1;
    ubus_add_uloop(ctx);
    uloop_run();
    ubus_free(ctx);
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::strcmp(argv[1], "call") == 0)
        return callLoop();
    if (argc >= 3 && std::strcmp(argv[1], "rtsta") == 0)
        return serveStation(argc, argv);
    return std::fprintf(stderr, "usage: bus_tool call | bus_tool rtsta FILE [MAC=NAME]...\n"), 2;
}
