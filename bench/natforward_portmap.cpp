// Latency of RTPortMap through the bus, in the emulated router: getPortMapping with 32 stored port mappings in a
// firewall package of 500 sections, and adding one port mapping (31 stored, the same package size).
//
// Outside a sandbox the program runs itself again inside `sandbox/router --build <its build folder>`, which starts
// the bus daemon and gwconfd; inside it rewrites /etc/config/firewall (an in-memory overlay of the sandbox) before
// each benchmark. Each benchmark reports the median of its calls as "median_ms".
#include <benchmark/benchmark.h>

#include "sandbox_entry.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <libubus.h>

namespace {

constexpr int kPackageSections = 500;

// A firewall package of exactly kPackageSections sections: `mappings` port mappings (two sections each, IDs from
// 1) and plain rules for the rest.
void writeFirewall(int mappings)
{
    std::ofstream f("/etc/config/firewall", std::ios::trunc);
    f << "\nconfig defaults\n\toption input 'ACCEPT'\n\toption output 'ACCEPT'\n\toption forward 'REJECT'\n";
    int sections = 1;
    for (int i = 0; sections < kPackageSections - 2 * mappings; i++, sections++)
        f << "\nconfig rule\n\toption name 'rule" << i << "'\n\toption src 'wan'\n\toption proto 'tcp'\n"
          << "\toption dest_port '" << 20000 + i << "'\n\toption target 'ACCEPT'\n";
    for (const char *src : {"wan", "lan"})
        for (int id = 1; id <= mappings; id++, sections++)
            f << "\nconfig redirect\n\toption name 'map" << id << "'\n\toption PmapID '" << id
              << "'\n\tlist proto 'tcp'\n\toption src_dport '" << 10000 + id << "'\n\toption dest_port '80'\n"
              << "\toption dest_ip '192.168.1." << id << "'\n\toption target 'DNAT'\n\toption dest 'lan'\n"
              << "\toption src '" << src << "'\n";
}

class Bus {
public:
    Bus()
    {
        ctx_ = ubus_connect(nullptr);
        // gwconfd is started by the sandbox just before this program; wait for its object.
        for (int i = 0; ctx_ != nullptr && i < 200 && ubus_lookup_id(ctx_, "RTPortMap", &id_) != 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ~Bus()
    {
        if (ctx_ != nullptr)
            ubus_free(ctx_);
    }
    bool ready() const { return ctx_ != nullptr && id_ != 0; }
    // Calls a method; true when the reply holds "result" true.
    bool call(const char *method, blob_attr *msg)
    {
        bool ok = false;
        const int status = ubus_invoke(ctx_, id_, method, msg, onData, &ok, 10000);
        return status == 0 && ok;
    }

private:
    static void onData(ubus_request *req, int, blob_attr *msg)
    {
        blob_attr *attr;
        size_t rem;
        blobmsg_for_each_attr(attr, msg, rem)
        {
            if (blobmsg_type(attr) == BLOBMSG_TYPE_INT8 && std::string(blobmsg_name(attr)) == "result")
                *static_cast<bool *>(req->priv) = blobmsg_get_bool(attr);
        }
    }
    ubus_context *ctx_ = nullptr;
    uint32_t id_ = 0;
};

Bus &bus()
{
    static Bus b;
    return b;
}

void modRequest(blob_buf *b, int operation, uint32_t id)
{
    blob_buf_init(b, 0);
    void *list = blobmsg_open_array(b, "MapList");
    void *entry = blobmsg_open_table(b, nullptr);
    blobmsg_add_string(b, "Name", "bench");
    blobmsg_add_u32(b, "Protocol", 0);
    blobmsg_add_string(b, "InternalIP", "192.168.1.200");
    blobmsg_add_u32(b, "InternalPort", 80);
    blobmsg_add_u32(b, "ExternalPort", 9000);
    blobmsg_add_u32(b, "PmapID", id);
    blobmsg_close_table(b, entry);
    blobmsg_close_array(b, list);
    blobmsg_add_u32(b, "Operation", operation);
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

using Clock = std::chrono::steady_clock;

void BM_getPortMapping32of500(benchmark::State &state)
{
    writeFirewall(32);
    if (!bus().ready()) {
        state.SkipWithError("RTPortMap is not on the bus");
        return;
    }
    std::vector<double> ms;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        const bool ok = bus().call("getPortMapping", nullptr);
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        if (!ok) {
            state.SkipWithError("getPortMapping failed");
            break;
        }
    }
    state.counters["median_ms"] = median(ms);
}

void BM_addOnePortMapping31of500(benchmark::State &state)
{
    writeFirewall(31);
    if (!bus().ready()) {
        state.SkipWithError("RTPortMap is not on the bus");
        return;
    }
    blob_buf add{}, del{};
    modRequest(&add, 1, 0);
    modRequest(&del, 0, 32); // the add always gets ID 32: IDs 1..31 are stored
    std::vector<double> ms;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        const bool ok = bus().call("modPortMapping", add.head);
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        state.PauseTiming();
        const bool deleted = bus().call("modPortMapping", del.head);
        state.ResumeTiming();
        if (!ok || !deleted) {
            state.SkipWithError("add or delete failed");
            break;
        }
    }
    state.counters["median_ms"] = median(ms);
    blob_buf_free(&add);
    blob_buf_free(&del);
}

BENCHMARK(BM_getPortMapping32of500)->Unit(benchmark::kMillisecond)->Iterations(200);
BENCHMARK(BM_addOnePortMapping31of500)->Unit(benchmark::kMillisecond)->Iterations(100);

// Outside a sandbox, this program runs again inside the emulated router, with the bus daemon and gwconfd of this
// build, before any benchmark starts.
struct EnterSandbox {
    EnterSandbox() { gwbench::enterSandbox(false); }
} s_enterSandbox;

} // namespace

BENCHMARK_MAIN();
