// Fuzzes the configuration parser: any input must parse or fail with a reason, never crash or hang. What
// parses is exported, and the export must read back to the same export (when the section types are ones
// that the unquoted writer can carry).
#include <uci.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

static std::string export_of(uci_context *ctx, uci_package *p)
{
	char *buf = nullptr;
	size_t size = 0;
	FILE *f = open_memstream(&buf, &size);
	if (uci_export(ctx, f, p, true) != UCI_OK)
		abort();
	fclose(f);
	std::string r(buf, size);
	free(buf);
	return r;
}

static uci_package *import_text(uci_context *ctx, const std::string &text, bool strict, int *rc)
{
	ctx->flags = static_cast<uci_flags>(strict ? (ctx->flags | UCI_FLAG_STRICT) : (ctx->flags & ~UCI_FLAG_STRICT));
	FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
	if (!f) {
		*rc = -1;
		return nullptr;
	}
	uci_package *p = nullptr;
	*rc = uci_import(ctx, f, "fuzz", &p, true);
	fclose(f);
	return p;
}

// Types holding a quote, a backslash, '#' or ';' are written unquoted and do not read back.
static bool writable_types(uci_package *p)
{
	uci_element *e;
	uci_foreach_element(&p->sections, e)
		if (strpbrk(uci_to_section(e)->type, "'\"\\#;"))
			return false;
	return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size == 0 || size > 16384)
		return 0;
	bool strict = data[0] & 1;
	std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);

	uci_context *ctx = uci_alloc_context();
	int rc = 0;
	uci_package *p = import_text(ctx, text, strict, &rc);
	if (rc == UCI_ERR_PARSE) {
		char *msg = nullptr;
		uci_get_errorstr(ctx, &msg, nullptr);
		if (!msg || !strstr(msg, ") at line "))
			abort();  // a parse error always says why and where
		free(msg);
	} else if (rc == UCI_OK && p) {
		std::string first = export_of(ctx, p);
		if (writable_types(p)) {
			uci_context *again = uci_alloc_context();
			int rc2 = 0;
			uci_package *q = import_text(again, first.substr(first.find('\n') + 1), true, &rc2);
			if (rc2 != UCI_OK || !q || export_of(again, q) != first)
				abort();
			uci_free_context(again);
		}
	}
	uci_free_context(ctx);
	return 0;
}
