// Fuzzes the reader of delta files: the input is written as the save-directory file of a small package,
// which is then loaded (every accepted line is applied), exported, reverted for one section and loaded
// again. Nothing may crash or hang; a revert of the whole package empties the file or leaves it alone.
#include <uci.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

std::string root;

void write_file(const std::string &path, const uint8_t *data, size_t size)
{
	FILE *f = fopen(path.c_str(), "w");
	if (!f)
		abort();
	if (size && fwrite(data, 1, size, f) != size)
		abort();
	fclose(f);
}

std::string read_file(const std::string &path)
{
	std::string r;
	FILE *f = fopen(path.c_str(), "r");
	if (!f)
		return r;
	char buf[4096];
	size_t n;
	while ((n = fread(buf, 1, sizeof buf, f)) > 0)
		r.append(buf, n);
	fclose(f);
	return r;
}

uci_context *context()
{
	uci_context *ctx = uci_alloc_context();
	uci_set_confdir(ctx, (root + "/conf").c_str());
	uci_set_savedir(ctx, (root + "/save").c_str());
	uci_set_conf2dir(ctx, nullptr);
	return ctx;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
	char tmpl[] = "/tmp/gwconf-fuzz-uci-delta-XXXXXX";
	if (!mkdtemp(tmpl))
		abort();
	root = tmpl;
	atexit([] { std::filesystem::remove_all(root); });
	mkdir((root + "/conf").c_str(), 0700);
	mkdir((root + "/save").c_str(), 0700);
	static const char config[] =
		"config a n\n\toption x 1\n\tlist l a\n\tlist l b\nconfig a m\nconfig b\n\toption z 3\n";
	write_file(root + "/conf/t", reinterpret_cast<const uint8_t *>(config), sizeof config - 1);
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size > 16384)
		return 0;
	write_file(root + "/save/t", data, size);

	uci_context *ctx = context();
	uci_package *p = nullptr;
	if (uci_load(ctx, "t", &p) != UCI_OK)
		abort();  // the config is valid: no delta line may make the load fail
	char *buf = nullptr;
	size_t len = 0;
	FILE *out = open_memstream(&buf, &len);
	uci_export(ctx, out, p, true);
	fclose(out);
	free(buf);

	char tuple[] = "t.n";
	uci_ptr ptr{};
	if (uci_lookup_ptr(ctx, &ptr, tuple, true) != UCI_OK || uci_revert(ctx, &ptr) != UCI_OK)
		abort();
	uci_free_context(ctx);
	std::string after_one = read_file(root + "/save/t");

	// Reverting everything empties the file, or leaves it exactly as it was when a line cannot be parsed.
	ctx = context();
	char all[] = "t";
	uci_ptr whole{};
	if (uci_lookup_ptr(ctx, &whole, all, true) != UCI_OK || uci_revert(ctx, &whole) != UCI_OK)
		abort();
	uci_free_context(ctx);
	std::string after_all = read_file(root + "/save/t");
	if (!after_all.empty() && after_all != after_one)
		abort();
	return 0;
}
