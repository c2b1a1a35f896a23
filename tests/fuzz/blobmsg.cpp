// Untrusted bytes through the blob/blobmsg checks, the parsers and the JSON
// printer; the same bytes as JSON text through the JSON reader, whose result
// must always pass the checks and print.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <libubox/blobmsg_json.h>

namespace {

const blobmsg_policy policy[] = {
	{"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32}, {"c", BLOBMSG_TYPE_TABLE},
	{"d", BLOBMSG_TYPE_ARRAY}, {"e", BLOBMSG_CAST_INT64}, {"", BLOBMSG_TYPE_UNSPEC},
};
constexpr int n_policy = sizeof(policy) / sizeof(policy[0]);

void check_binary(const uint8_t *data, size_t size)
{
	// exact copy: any read past size is caught by the sanitizer
	std::unique_ptr<uint8_t[]> buf(new uint8_t[size ? size : 1]);
	memcpy(buf.get(), data, size);
	auto *attr = reinterpret_cast<blob_attr *>(buf.get());
	blob_attr *tb[n_policy];
	blob_attr *ptb[8];
	blob_attr_info info[8] = {};
	info[1].type = BLOB_ATTR_INT32;
	info[2].type = BLOB_ATTR_STRING;
	info[3].type = BLOB_ATTR_NESTED;

	blob_parse_untrusted(attr, size, ptb, info, 8);
	blobmsg_parse(policy, n_policy, tb, size ? buf.get() : nullptr, (unsigned)size);
	blobmsg_parse_array(policy, n_policy, tb, buf.get(), (unsigned)size);

	if (!blobmsg_check_attr_len(attr, false, size))
		return;
	if (blobmsg_check_array_len(attr, BLOBMSG_TYPE_UNSPEC, size) >= 0)
		blobmsg_parse_attr(policy, n_policy, tb, attr);
	free(blobmsg_format_json(attr, true));
	free(blobmsg_format_json(attr, false));
	free(blobmsg_format_json_indent(attr, true, 0));
	free(blobmsg_format_json_value(attr));
}

// Every attribute the library builds passes the check, at every depth. Names
// are not required: a JSON object may have an empty key.
bool valid_tree(blob_attr *attr)
{
	if (!blobmsg_check_attr(attr, false))
		return false;
	if (blobmsg_type(attr) == BLOBMSG_TYPE_TABLE || blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY) {
		blob_attr *cur;
		size_t rem, seen = 0;

		blobmsg_for_each_attr(cur, attr, rem) {
			if (!valid_tree(cur))
				return false;
			seen += blob_pad_len(cur);
		}
		if (seen != blobmsg_data_len(attr))
			return false;
	}
	return true;
}

void check_json(const uint8_t *data, size_t size)
{
	std::unique_ptr<char[]> text(new char[size + 1]);
	memcpy(text.get(), data, size);
	text[size] = 0;

	blob_buf b{};
	blob_buf_init(&b, 0);
	if (blobmsg_add_json_from_string(&b, text.get())) {
		blob_attr *cur;
		size_t rem;
		blobmsg_for_each_attr(cur, b.head, rem) {
			if (!valid_tree(cur))
				abort();
		}
		char *out = blobmsg_format_json(b.head, true);
		if (!out)
			abort();
		// printing and reading back gives the same text again
		blob_buf b2{};
		blob_buf_init(&b2, 0);
		if (blobmsg_add_json_from_string(&b2, out)) {
			char *out2 = blobmsg_format_json(b2.head, true);
			if (!out2 || (strcmp(out, out2) != 0 && !strstr(out, "nan") && !strstr(out, "inf") &&
				      !strstr(out, "{,") && !strstr(out, ",,")))
				abort();
			free(out2);
		}
		blob_buf_free(&b2);
		free(out);
	}
	blob_buf_free(&b);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	check_binary(data, size);
	check_json(data, size);
	return 0;
}
