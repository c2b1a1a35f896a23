// The in-process bus client of the e2e tests.
#include "support/bus_client.h"

#include <chrono>
#include <cstdlib>
#include <thread>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

namespace gw::e2e {

BusValue BusValue::num(int32_t n)
{
    BusValue v;
    v.kind = Int;
    v.number = n;
    return v;
}

BusValue BusValue::str(std::string s)
{
    BusValue v;
    v.kind = Str;
    v.text = std::move(s);
    return v;
}

BusValue BusValue::table(std::vector<std::pair<std::string, BusValue>> fields)
{
    BusValue v;
    v.kind = Table;
    v.items = std::move(fields);
    return v;
}

BusValue BusValue::array(std::vector<BusValue> elements)
{
    BusValue v;
    v.kind = Array;
    for (auto &e : elements)
        v.items.emplace_back(std::string(), std::move(e));
    return v;
}

void BusValue::addTo(blob_buf *b, const char *name) const
{
    switch (kind) {
    case Int:
        blobmsg_add_u32(b, name, static_cast<uint32_t>(number));
        break;
    case Str:
        // The bytes as they are, then the terminating NUL a blob string carries.
        blobmsg_add_field(b, BLOBMSG_TYPE_STRING, name, text.c_str(), static_cast<unsigned>(text.size() + 1));
        break;
    case Table:
    case Array: {
        void *c = kind == Table ? blobmsg_open_table(b, name) : blobmsg_open_array(b, name);
        for (const auto &[n, v] : items)
            v.addTo(b, kind == Table ? n.c_str() : nullptr);
        kind == Table ? blobmsg_close_table(b, c) : blobmsg_close_array(b, c);
        break;
    }
    }
}

BusClient::~BusClient() { disconnect(); }

bool BusClient::connect(const char *socket)
{
    disconnect();
    ctx_ = ubus_connect(socket);
    return ctx_ != nullptr;
}

void BusClient::disconnect()
{
    if (ctx_ != nullptr)
        ubus_free(ctx_);
    ctx_ = nullptr;
    ids_.clear();
}

uint32_t BusClient::lookup(const std::string &object)
{
    if (!ctx_ && !connect())
        return 0;
    uint32_t id = 0;
    int rc = ubus_lookup_id(ctx_, object.c_str(), &id);
    if (rc == UBUS_STATUS_OK)
        return id;
    if (rc != UBUS_STATUS_NOT_FOUND)
        disconnect();   // the connection is gone (a restarted bus daemon): connect again next time
    return 0;
}

uint32_t BusClient::waitObject(const std::string &object, uint32_t notId, int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        uint32_t id = lookup(object);
        if (id != 0 && id != notId)
            return id;
        if (std::chrono::steady_clock::now() >= end)
            return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool BusClient::waitGone(const std::string &object, uint32_t id, int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (lookup(object) != id)
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}


namespace {

void collectReply(ubus_request *req, int, blob_attr *msg)
{
    auto *out = static_cast<std::string *>(req->priv);
    if (msg == nullptr)
        return;
    char *json = blobmsg_format_json(msg, true);
    if (json != nullptr) {
        if (!out->empty())
            *out += '\n';
        *out += json;
        free(json);
    }
}

}  // namespace

CallResult BusClient::invoke(const std::string &object, const std::string &method, blob_buf *b, int timeoutMs)
{
    CallResult r;
    if (ctx_ == nullptr) {
        r.status = UBUS_STATUS_CONNECTION_FAILED;
        return r;
    }
    auto it = ids_.find(object);
    if (it == ids_.end()) {
        uint32_t id = 0;
        int st = ubus_lookup_id(ctx_, object.c_str(), &id);
        if (st != UBUS_STATUS_OK) {
            r.status = st;
            return r;
        }
        it = ids_.emplace(object, id).first;
    }
    r.status = ubus_invoke(ctx_, it->second, method.c_str(), b->head, collectReply, &r.reply, timeoutMs);
    return r;
}

CallResult BusClient::call(const std::string &object, const std::string &method, const BusValue &request,
                           int timeoutMs)
{
    blob_buf b{};
    blob_buf_init(&b, 0);
    for (const auto &[name, v] : request.items)
        v.addTo(&b, name.c_str());
    CallResult r = invoke(object, method, &b, timeoutMs);
    blob_buf_free(&b);
    return r;
}

CallResult BusClient::callJson(const std::string &object, const std::string &method, const std::string &json,
                               int timeoutMs)
{
    blob_buf b{};
    blob_buf_init(&b, 0);
    if (!json.empty() && !blobmsg_add_json_from_string(&b, json.c_str())) {
        blob_buf_free(&b);
        ADD_FAILURE() << "not a JSON object: " << json;
        return {};
    }
    CallResult r = invoke(object, method, &b, timeoutMs);
    blob_buf_free(&b);
    return r;
}

}  // namespace gw::e2e
