// An in-process bus client for the e2e tests: many calls from one connection, without a `ubus` process per call,
// and request texts of any bytes (a JSON text cannot carry bytes that are not UTF-8; a blob string can).
//
//   BusClient bus;
//   ASSERT_TRUE(bus.connect());
//   auto r = bus.call("RTUpnp", "setUpnpStatus", BusValue::table({{"Enable", BusValue::num(1)}}));
//   EXPECT_EQ(r.status, 0);                     // the bus status of the call
//   EXPECT_EQ(r.reply, R"({"result":true})");   // the reply as compact JSON, "" when there was none
//
// Object ids are looked up once and kept; forget() drops them (after gwconfd was restarted).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/router.h"

struct ubus_context;
struct blob_buf;

namespace gw::e2e {

// A request value: an INT32, a STRING (any bytes), a TABLE of named values or an ARRAY.
struct BusValue {
    enum Kind { Int, Str, Table, Array } kind = Table;
    int32_t number = 0;
    std::string text;
    std::vector<std::pair<std::string, BusValue>> items;   // names are ignored in an ARRAY

    static BusValue num(int32_t n);
    static BusValue str(std::string s);
    static BusValue table(std::vector<std::pair<std::string, BusValue>> fields = {});
    static BusValue array(std::vector<BusValue> elements = {});

    // Adds this value to b under `name` (nullptr inside an array).
    void addTo(blob_buf *b, const char *name) const;
};

class BusClient {
public:
    BusClient() = default;
    BusClient(const BusClient &) = delete;
    BusClient &operator=(const BusClient &) = delete;
    ~BusClient();

    bool connect(const char *socket = kBusSocket);
    void disconnect();
    void forget() { ids_.clear(); }

    // The object's id now, or 0 when it is not on the bus (not cached). A connection found dead (a restarted bus
    // daemon) is dropped and made again by the next look-up.
    uint32_t lookup(const std::string &object);
    // Waits until the object is on the bus with an id other than notId; its id, or 0 after timeoutMs.
    uint32_t waitObject(const std::string &object, uint32_t notId, int timeoutMs);
    // Waits until the object with that id has left the bus; false after timeoutMs.
    bool waitGone(const std::string &object, uint32_t id, int timeoutMs);

    // The call's bus status (UBUS_STATUS_NOT_FOUND when the object is not there) and reply.
    CallResult call(const std::string &object, const std::string &method, const BusValue &request,
                    int timeoutMs = 20000);
    // The same with a JSON request text ("" sends an empty message).
    CallResult callJson(const std::string &object, const std::string &method, const std::string &json,
                        int timeoutMs = 20000);

private:
    CallResult invoke(const std::string &object, const std::string &method, blob_buf *b, int timeoutMs);

    ubus_context *ctx_ = nullptr;
    std::map<std::string, uint32_t> ids_;
};

}  // namespace gw::e2e
