// libuci cost against package size: a firewall package of 500, 5,000 and 50,000 sections (zones,
// forwardings, rules and redirects, named and anonymous), in a private temporary directory.
//   LoadLookup: load the package (file plus a few saved changes) and resolve a named section, an
//               @type[index] section and an option, then free everything.
//   CommitOne:  load, change one option, save and commit (the file is rewritten, synced and renamed).
// Both must grow linearly with the number of sections: the per_section column (CPU time per iteration
// divided by the number of sections, "u" = microseconds) should stay level from 500 to 50,000.
#include <benchmark/benchmark.h>

#include <uci.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

// CPU time per section and iteration: a rate of n per iteration, inverted.
void report_per_section(benchmark::State &state, int n)
{
	state.counters["per_section"] = benchmark::Counter(static_cast<double>(n),
		benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
	state.SetComplexityN(n);
}

struct Tree {
	std::string root, conf, save;
	explicit Tree(int sections)
	{
		char tmpl[] = "/tmp/gwconf-uci-bench-XXXXXX";
		if (!mkdtemp(tmpl))
			abort();
		root = tmpl;
		conf = root + "/conf";
		save = root + "/save";
		mkdir(conf.c_str(), 0700);
		mkdir(save.c_str(), 0700);
		FILE *f = fopen((conf + "/firewall").c_str(), "w");
		fputs("config defaults\n\toption input 'ACCEPT'\n\toption output 'ACCEPT'\n\toption forward 'REJECT'\n\n", f);
		for (int i = 0; i < sections; i++) {
			switch (i % 4) {
			case 0:
				fprintf(f, "config zone 'zone%d'\n\toption name 'z%d'\n\tlist network 'lan%d'\n\tlist network 'wan%d'\n"
					   "\toption input 'ACCEPT'\n\n", i, i, i, i);
				break;
			case 1:
				fprintf(f, "config forwarding\n\toption src 'z%d'\n\toption dest 'wan'\n\n", i - 1);
				break;
			case 2:
				fprintf(f, "config rule\n\toption name 'Allow-%d'\n\toption src 'wan'\n\toption proto 'udp'\n"
					   "\toption dest_port '%d'\n\toption target 'ACCEPT'\n\n", i, 1000 + i);
				break;
			default:
				fprintf(f, "config redirect 'fwd%d'\n\toption src 'wan'\n\toption src_dport '%d'\n"
					   "\toption dest_ip '192.168.1.%d'\n\toption target 'DNAT'\n\n", i, 2000 + i, i % 250 + 2);
			}
		}
		fclose(f);
		FILE *d = fopen((save + "/firewall").c_str(), "w");
		fputs("firewall.zone0.input='REJECT'\n|firewall.zone0.network='guest'\n", d);
		fclose(d);
	}
	~Tree() { std::filesystem::remove_all(root); }

	uci_context *context() const
	{
		uci_context *ctx = uci_alloc_context();
		uci_set_confdir(ctx, conf.c_str());
		uci_set_savedir(ctx, save.c_str());
		uci_set_conf2dir(ctx, nullptr);
		return ctx;
	}
};

void LoadLookup(benchmark::State &state)
{
	int n = static_cast<int>(state.range(0));
	Tree tree(n);
	// A redirect in the middle of the file (redirects are the sections numbered 3 mod 4).
	std::string named = "firewall.fwd" + std::to_string(n / 8 * 4 + 3) + ".dest_ip";
	for (auto _ : state) {
		uci_context *ctx = tree.context();
		uci_package *p = nullptr;
		if (uci_load(ctx, "firewall", &p) != UCI_OK)
			state.SkipWithError("load failed");
		std::string a = named, b = "firewall.@rule[-1].dest_port", c = "firewall.@zone[0].input";
		uci_ptr pa{}, pb{}, pc{};
		if (uci_lookup_ptr(ctx, &pa, a.data(), true) || uci_lookup_ptr(ctx, &pb, b.data(), true) ||
			uci_lookup_ptr(ctx, &pc, c.data(), true) || !pb.o || !pc.o)
			state.SkipWithError("lookup failed");
		benchmark::DoNotOptimize(pa.last);
		uci_free_context(ctx);
	}
	report_per_section(state, n);
}

void CommitOne(benchmark::State &state)
{
	int n = static_cast<int>(state.range(0));
	Tree tree(n);
	int round = 0;
	for (auto _ : state) {
		uci_context *ctx = tree.context();
		std::string tuple = "firewall.@rule[0].dest_port=" + std::to_string(round++);
		uci_ptr ptr{};
		if (uci_lookup_ptr(ctx, &ptr, tuple.data(), true) || uci_set(ctx, &ptr) || uci_save(ctx, ptr.p))
			state.SkipWithError("edit failed");
		uci_package *p = ptr.p;
		if (uci_commit(ctx, &p, false) != UCI_OK)
			state.SkipWithError("commit failed");
		uci_free_context(ctx);
	}
	report_per_section(state, n);
}

}  // namespace

BENCHMARK(LoadLookup)->Arg(500)->Arg(5000)->Arg(50000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);
BENCHMARK(CommitOne)->Arg(500)->Arg(5000)->Arg(50000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

BENCHMARK_MAIN();
