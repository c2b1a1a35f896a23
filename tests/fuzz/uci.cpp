// libuci with any text; the first byte chooses. Bit 1 clear: a configuration file (strict when bit 0 is set) parses
// or says why and where it fails, and its export reads back to itself. Bit 1 set: the delta file of a valid package;
// the package still loads and exports, and after a section's revert a package's revert empties the file or keeps it.
#include <uci.h>

#include "fuzz.h"

namespace {

std::string g_root;

std::string exported(uci_context *ctx, uci_package *p)
{
    char *buf = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&buf, &size);
    FUZZ_CHECK(uci_export(ctx, f, p, true) == UCI_OK, "a loaded package does not export");
    fclose(f);
    const std::string text(buf, size);
    return free(buf), text;
}

uci_context *context(bool strict)
{
    uci_context *ctx = uci_alloc_context();
    uci_set_confdir(ctx, g_root.c_str());
    uci_set_savedir(ctx, (g_root + "/save").c_str());
    uci_set_conf2dir(ctx, nullptr);
    ctx->flags = uci_flags(strict ? ctx->flags | UCI_FLAG_STRICT : ctx->flags & ~UCI_FLAG_STRICT);
    return ctx;
}

// The text imported as package "fuzz": libuci's result, the package in *p.
int imported(uci_context *ctx, std::string text, uci_package **p)
{
    FILE *f = fmemopen(text.data(), text.size(), "r");
    const int rc = uci_import(ctx, f, "fuzz", p, true);
    return fclose(f), rc;
}

void parse(const std::string &text, bool strict)
{
    uci_context *ctx = context(strict), *again = context(true);
    uci_package *p = nullptr, *q = nullptr;
    const int rc = imported(ctx, text, &p);
    char *msg = nullptr;
    if (rc == UCI_ERR_PARSE)
        uci_get_errorstr(ctx, &msg, nullptr);
    FUZZ_CHECK(rc != UCI_ERR_PARSE || (msg && strstr(msg, ") at line ")), "a parse error without why and where");
    free(msg);
    if (rc == UCI_OK && p) {
        const std::string first = exported(ctx, p);
        bool writable = true;  // types holding a quote, a backslash, '#' or ';' are written unquoted
        uci_element *e;
        uci_foreach_element(&p->sections, e) writable = writable && !strpbrk(uci_to_section(e)->type, "'\"\\#;");
        FUZZ_CHECK(!writable || (imported(again, first.substr(first.find('\n') + 1), &q) == UCI_OK && q &&
                                 exported(again, q) == first), "an export does not read back to itself:\n" + first);
    }
    uci_free_context(again);
    uci_free_context(ctx);
}

void delta(const std::string &text)
{
    std::ofstream(g_root + "/save/t", std::ios::binary | std::ios::trunc) << text;
    uci_package *p = nullptr;
    uci_context *ctx = context(true);
    FUZZ_CHECK(uci_load(ctx, "t", &p) == UCI_OK, "a delta line made a valid package fail to load");
    exported(ctx, p);
    std::string after[2];  // the file after reverting one section, then the package
    for (std::string what : {"t.n", "t"}) {
        uci_ptr ptr{};
        FUZZ_CHECK(uci_lookup_ptr(ctx, &ptr, what.data(), true) == UCI_OK && uci_revert(ctx, &ptr) == UCI_OK,
                   "revert of " + what + " failed");
        std::ifstream in(g_root + "/save/t");
        after[what.size() == 1].assign(std::istreambuf_iterator<char>(in), {});
    }
    uci_free_context(ctx);
    FUZZ_CHECK(after[1].empty() || after[1] == after[0], "the package's revert changed the delta file:\n" + after[1]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_root = fuzz::scratch();
    std::filesystem::create_directories(g_root + "/save");
    std::ofstream(g_root + "/t") << "config a n\n\toption x 1\n\tlist l a\n\tlist l b\n"
                                          "config a m\nconfig b\n\toption z 3\n";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > 16384)
        return 0;
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    data[0] & 2 ? delta(text) : parse(text, data[0] & 1);
    return 0;
}
