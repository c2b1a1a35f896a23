// Prints the one table of bench/run from the figures the other benchmark programs wrote:
//   --bus FILE      Google Benchmark JSON of bench_ubus_roundtrip (repetitions with aggregates)
//   --bus-one-cpu FILE  the same, run with every process on one CPU
//   --uci FILE      Google Benchmark JSON of bench_uci_load_commit
//   --daemon FILE   the JSON object of bench_daemon
//   --process FILE  Google Benchmark JSON of bench_process_start
//   --size BYTES    the size of a stripped copy of gwconfd
// Every figure has a row: figure, value, target, verdict. A missing input gives rows that say so. The exit
// status is 0 when every figure with a target met it, 1 otherwise (2 for bad arguments).
#include "bench_util.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
}

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using gwbench::format;

// A JSON document held as blobmsg.
class Json {
public:
    Json() = default;
    Json(const Json &) = delete;
    Json &operator=(const Json &) = delete;
    ~Json() { blob_buf_free(&buf_); }
    bool load(const std::string &path)
    {
        if (path.empty())
            return false;
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        blob_buf_init(&buf_, 0);
        ok_ = in && blobmsg_add_json_from_string(&buf_, text.str().c_str());
        return ok_;
    }
    blob_attr *root() const { return ok_ ? buf_.head : nullptr; }

private:
    blob_buf buf_{};
    bool ok_ = false;
};

blob_attr *member(blob_attr *table, const char *name)
{
    if (table == nullptr)
        return nullptr;
    blob_attr *attr;
    size_t rem;
    blobmsg_for_each_attr(attr, table, rem)
    {
        if (strcmp(blobmsg_name(attr), name) == 0)
            return attr;
    }
    return nullptr;
}

bool number(blob_attr *attr, double *out)
{
    if (attr == nullptr)
        return false;
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT8:
        *out = blobmsg_get_u8(attr);
        return true;
    case BLOBMSG_TYPE_INT16:
        *out = int16_t(blobmsg_get_u16(attr));
        return true;
    case BLOBMSG_TYPE_INT32:
        *out = int32_t(blobmsg_get_u32(attr));
        return true;
    case BLOBMSG_TYPE_INT64:
        *out = double(int64_t(blobmsg_get_u64(attr)));
        return true;
    case BLOBMSG_TYPE_DOUBLE:
        *out = blobmsg_get_double(attr);
        return true;
    default:
        return false;
    }
}

double numberOr(blob_attr *table, const char *name, double fallback)
{
    double v;
    return number(member(table, name), &v) ? v : fallback;
}

std::string text(blob_attr *table, const char *name)
{
    blob_attr *a = member(table, name);
    return a != nullptr && blobmsg_type(a) == BLOBMSG_TYPE_STRING ? blobmsg_get_string(a) : "";
}

// The entry of one benchmark in a Google Benchmark document: its median aggregate when the run had
// repetitions, else its single run. `run` is the run name up to its first '/', or the whole run name.
blob_attr *benchmarkEntry(const Json &doc, const std::string &run)
{
    blob_attr *list = member(doc.root(), "benchmarks");
    blob_attr *single = nullptr;
    if (list == nullptr)
        return nullptr;
    blob_attr *b;
    size_t rem;
    blobmsg_for_each_attr(b, list, rem)
    {
        const std::string name = text(b, "run_name");
        if (name != run && name.compare(0, run.size() + 1, run + "/") != 0)
            continue;
        if (text(b, "run_type") == "aggregate" && text(b, "aggregate_name") == "median")
            return b;
        if (text(b, "run_type") == "iteration" && single == nullptr)
            single = b;
    }
    return single;
}

// real_time of an entry in the unit `unit` ("ns", "us", "ms", "s").
double realTime(blob_attr *entry, const char *unit)
{
    auto scale = [](const std::string &u) {
        return u == "ns" ? 1e-9 : u == "us" ? 1e-6 : u == "ms" ? 1e-3 : 1.0;
    };
    return numberOr(entry, "real_time", 0) * scale(text(entry, "time_unit")) / scale(unit);
}

struct Report {
    gwbench::Table table{{"figure", "value", "target", "verdict"}};
    int missed = 0;
    void row(const std::string &figure, const std::string &value, const std::string &target = "",
             const std::string &verdict = "")
    {
        table.add({figure, value, target, verdict});
    }
    // A figure with a target: verdict "ok" or "MISSED".
    void check(const std::string &figure, const std::string &value, const std::string &target, bool met)
    {
        row(figure, value, target, met ? "ok" : "MISSED");
        missed += met ? 0 : 1;
    }
    void absent(const std::string &figure, const std::string &why)
    {
        row(figure, "-", "", "NOT MEASURED (" + why + ")");
        missed++;
    }
};

// `where` names the placement of the processes in the row labels ("" for the free one). Both placements are
// judged: the free one is what a client sees, the one-CPU one leaves out the cost of waking a process on the
// other CPU, which on a busy virtual machine varies from run to run.
void busRows(Report &r, const std::string &path, const std::string &where)
{
    Json doc;
    const std::string tag = where.empty() ? "" : ", " + where;
    if (!doc.load(path)) {
        r.absent("bus: RTIptv test round trip" + tag, "no bus figures");
        return;
    }
    blob_attr *floor = benchmarkEntry(doc, "BM_RawSocketPingPong");
    blob_attr *call = benchmarkEntry(doc, "BM_DaemonCall");
    blob_attr *bare = benchmarkEntry(doc, "BM_BusCall");
    if (floor == nullptr || call == nullptr || !text(call, "error_message").empty()) {
        r.absent("bus: RTIptv test round trip" + tag, "the benchmark did not run");
        return;
    }
    const double callP50 = numberOr(call, "p50_us", 0), floorP50 = numberOr(floor, "p50_us", 0);
    r.row("bus: RTIptv test round trip, median / p99" + tag,
          format("%.1f / %.1f us", callP50, numberOr(call, "p99_us", 0)));
    r.row("bus: RTIptv test calls/s, one client" + tag, format("%.0f", numberOr(call, "items_per_second", 0)));
    r.row("bus: raw unix-socket ping-pong (floor), median / p99" + tag,
          format("%.1f / %.1f us", floorP50, numberOr(floor, "p99_us", 0)));
    const double ratio = floorP50 > 0 ? callP50 / floorP50 : 0;
    r.check("bus: round trip / floor, medians" + tag, format("%.2fx", ratio), "<= 3x", ratio > 0 && ratio <= 3.0);
    if (bare != nullptr && text(bare, "error_message").empty()) {
        const double bareP50 = numberOr(bare, "p50_us", 0);
        r.row("bus: minimal server instead of gwconfd, median" + tag,
              format("%.1f us (%.2fx floor)", bareP50, floorP50 > 0 ? bareP50 / floorP50 : 0));
    }
}

void uciRows(Report &r, const std::string &path)
{
    Json doc;
    if (!doc.load(path)) {
        r.absent("config: load+lookup and commit", "no configuration figures");
        return;
    }
    for (const auto &[run, label] : {std::pair{"LoadLookup", "load+lookup"}, std::pair{"CommitOne", "commit one change"}}) {
        std::vector<std::pair<long, double>> points;
        for (long n : {500L, 5000L, 50000L}) {
            blob_attr *e = benchmarkEntry(doc, std::string(run) + "/" + std::to_string(n));
            if (e == nullptr || !text(e, "error_message").empty()) {
                r.absent(format("config: %s, %ld sections", label, n), "the benchmark did not run");
                continue;
            }
            const double ms = realTime(e, "ms");
            points.emplace_back(n, ms);
            r.row(format("config: %s, %ld sections", label, n),
                  format("%.2f ms (%.2f us/section)", ms, ms * 1000.0 / double(n)));
        }
        if (points.size() == 3) {
            const double growth = gwbench::worstPerSectionGrowth(points);
            r.check(format("config: %s, time per section, worst step", label), format("%.2fx", growth),
                    "<= 1.5x (flat)", growth <= 1.5);
        }
    }
}

void daemonRows(Report &r, const std::string &path, const std::string &processPath, long strippedBytes)
{
    Json doc;
    if (!doc.load(path)) {
        r.absent("daemon: start, RSS, methods", "no daemon figures");
    } else {
        blob_attr *d = doc.root();
        int starts = 0;
        if (blob_attr *list = member(d, "start_stubbed_ms")) {
            blob_attr *a;
            size_t rem;
            blobmsg_for_each_attr(a, list, rem) starts++;
        }
        const double start = numberOr(d, "start_stubbed_median_ms", 0);
        const bool startOk = numberOr(d, "start_stubbed_failures", 1) == 0 && starts > 0;
        r.check(format("daemon: start to 8 objects, median of %d (commands stubbed)", starts),
                format("%.1f ms", start), "< 50 ms", startOk && start < 50);
        r.row("daemon:   of which its 4 start-up commands (RTUpnp to RTWanPortMap)",
              format("%.1f ms", numberOr(d, "start_stubbed_commands_median_ms", 0)));
        r.row("daemon:   gwconfd on a CPU / waiting for a CPU until then",
              format("%.1f / %.1f ms", numberOr(d, "start_stubbed_cpu_median_ms", 0),
                     numberOr(d, "start_stubbed_queued_median_ms", 0)));
        Json process;
        if (process.load(processPath)) {
            blob_attr *fork = benchmarkEntry(process, "BM_ForkExecWait");
            blob_attr *spawn = benchmarkEntry(process, "BM_PosixSpawnWait");
            if (fork != nullptr && spawn != nullptr)
                r.row("daemon:   one command on this machine: fork+exec+wait / posix_spawn+wait of /bin/true",
                      format("%.1f / %.1f ms", numberOr(fork, "p50_ms", 0), numberOr(spawn, "p50_ms", 0)));
        }
        r.row("daemon: start to 8 objects, median (sandbox shims, real iptables)",
              format("%.1f ms", numberOr(d, "start_shims_median_ms", 0)));

        // Memory: the idle figure right after a start; the calls must not make it grow. The first calls of each
        // handler bring its code and that of the libraries it uses in (file pages, shared with other processes),
        // so growth is judged from the first tenth of the calls on, and the anonymous part (heap, stack) from idle.
        const double idle = numberOr(d, "idle_rss_kib", -1), after = numberOr(d, "rss_after_calls_kib", -1);
        const double warm = numberOr(d, "rss_warm_kib", -1), warmCalls = numberOr(d, "warm_calls", 0);
        const double anonGrowth = numberOr(d, "rss_after_calls_anon_kib", -1) - numberOr(d, "idle_rss_anon_kib", 0);
        const double fileGrowth = numberOr(d, "rss_after_calls_file_kib", -1) - numberOr(d, "idle_rss_file_kib", 0);
        const double calls = numberOr(d, "calls", 0), failures = numberOr(d, "call_failures", 0);
        r.check("daemon: idle RSS", format("%.0f KiB", idle), "< 4096 KiB", idle > 0 && idle < 4096);
        r.check(format("daemon: RSS after %.0f calls", calls),
                format("%.0f KiB (anon %+.0f, file %+.0f KiB)", after, anonGrowth, fileGrowth), "< 4096 KiB",
                after > 0 && after < 4096 && failures == 0);
        r.check(format("daemon: RSS growth, call %.0f to call %.0f", warmCalls, calls), format("%+.0f KiB", after - warm),
                "<= +16 KiB (flat)", warm > 0 && after - warm <= 16);
        r.check(format("daemon: anonymous RSS growth, idle to %.0fth call", calls), format("%+.0f KiB", anonGrowth),
                "<= +64 KiB (flat)", anonGrowth <= 64);
        r.row(format("daemon: getter calls (%.0f, one client)", calls),
              format("%.0f calls/s, %.0f failed", calls / std::max(1e-9, numberOr(d, "calls_seconds", 0)), failures));
        r.row(format("daemon: firewall package for the method rows"),
              format("%.0f sections", numberOr(d, "firewall_sections", 0)));
    }
    if (strippedBytes > 0)
        r.row("daemon: gwconfd stripped size", format("%ld bytes", strippedBytes));
    else
        r.absent("daemon: gwconfd stripped size", "no size");
    if (doc.root() == nullptr)
        return;
    blob_attr *methods = member(doc.root(), "methods");
    if (methods == nullptr)
        return;
    blob_attr *m;
    size_t rem;
    blobmsg_for_each_attr(m, methods, rem)
    {
        std::string figure = "method: " + text(m, "object") + " " + text(m, "method");
        if (!text(m, "label").empty())
            figure += " (" + text(m, "label") + ")";
        const int n = int(numberOr(m, "n", 0)), failed = int(numberOr(m, "failures", 0));
        r.row(figure, format("%.2f ms", numberOr(m, "median_ms", 0)), format("median of %d", n),
              failed == 0 ? "ok" : format("FAILED %d of %d", failed, n));
        r.missed += failed == 0 ? 0 : 1;
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::string bus, busOneCpu, uci, daemon, process;
    long size = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--bus")
            bus = argv[i + 1];
        else if (a == "--bus-one-cpu")
            busOneCpu = argv[i + 1];
        else if (a == "--uci")
            uci = argv[i + 1];
        else if (a == "--daemon")
            daemon = argv[i + 1];
        else if (a == "--process")
            process = argv[i + 1];
        else if (a == "--size")
            size = std::atol(argv[i + 1]);
        else {
            std::fprintf(stderr, "usage: bench_report --bus FILE --bus-one-cpu FILE --uci FILE --daemon FILE --process FILE --size BYTES\n");
            return 2;
        }
    }
    Report r;
    busRows(r, bus, "");
    busRows(r, busOneCpu, "one CPU");
    uciRows(r, uci);
    daemonRows(r, daemon, process, size);
    std::fputs(r.table.text().c_str(), stdout);
    std::printf("%d figure(s) missed their target or were not measured\n", r.missed);
    return r.missed == 0 ? 0 : 1;
}
