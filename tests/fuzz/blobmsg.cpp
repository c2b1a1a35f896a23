// Untrusted bytes through the blob/blobmsg checks, parsers and JSON printers; the same bytes as JSON text through
// the JSON reader, whose result passes the checks at every depth, prints, and prints the same once read back.
#include "fuzz.h"

namespace {

// The JSON text read and printed, or "" when it does not read.
std::string printed(const std::string &json)
{
    blob_buf b{};
    blob_buf_init(&b, 0);
    std::string out;
    if (blobmsg_add_json_from_string(&b, json.c_str())) {
        FUZZ_CHECK(fuzz::wellFormed(blob_data(b.head), blob_len(b.head), false), "JSON read into a malformed tree");
        char *text = blobmsg_format_json(b.head, true);
        FUZZ_CHECK(text, "JSON read does not print");
        out = text;
        free(text);
    }
    blob_buf_free(&b);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32},
        {"c", BLOBMSG_TYPE_TABLE}, {"d", BLOBMSG_TYPE_ARRAY}, {"e", BLOBMSG_CAST_INT64}, {"", BLOBMSG_TYPE_UNSPEC}};
    blob_attr *tb[6];
    blob_attr_info info[4] = {{}, {BLOB_ATTR_INT32}, {BLOB_ATTR_STRING}, {BLOB_ATTR_NESTED}};
    std::vector<uint8_t> buf(data, data + size);  // exactly the input: a read past it is caught
    auto *attr = reinterpret_cast<blob_attr *>(buf.data());
    if (size == 0)
        return 0;
    blob_parse_untrusted(attr, size, tb, info, 4);
    blobmsg_parse(policy, 6, tb, buf.data(), unsigned(size));
    blobmsg_parse_array(policy, 6, tb, buf.data(), unsigned(size));
    if (blobmsg_check_attr_len(attr, false, size)) {
        if (blobmsg_check_array_len(attr, BLOBMSG_TYPE_UNSPEC, size) >= 0)
            blobmsg_parse_attr(policy, 6, tb, attr);
        free(blobmsg_format_json(attr, true));
        free(blobmsg_format_json_indent(attr, false, 0));
        free(blobmsg_format_json_value(attr));
    }
    // A print that reads back prints the same again, but for what JSON cannot carry: nan, inf, and members that
    // print as nothing ("{," or ",,"). An empty name is not printed (as in libubox), so some prints do not read.
    const std::string once = printed(std::string(data, data + size).c_str()), twice = once.empty() ? "" : printed(once);
    for (const char *unreadable : {"nan", "inf", "{,", ",,"})
        if (once.find(unreadable) != std::string::npos)
            return 0;
    FUZZ_CHECK(twice.empty() || twice == once, "printed again otherwise:\n" + once + "\n" + twice);
    return 0;
}
