// blob and blobmsg on the wire: what each builder encodes (bytes worked out by hand), what the parsers and checks
// make of given bytes (each input on a heap copy of exactly its size, so an overread is an AddressSanitizer
// error), and JSON in and out.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <libubox/blobmsg_json.h>

namespace {

struct Buf {
	blob_buf b{};
	explicit Buf(int id = 0) { blob_buf_init(&b, id); }
	~Buf() { blob_buf_free(&b); }
	blob_buf *operator&() { return &b; }
};

std::string hex(const blob_attr *a)	// the padded bytes, in 32-bit words
{
	std::string out;
	char tmp[4];
	for (size_t i = 0; i < blob_pad_len(a); i++)
		out += (snprintf(tmp, sizeof(tmp), i && i % 4 == 0 ? " %02x" : "%02x", reinterpret_cast<const uint8_t *>(a)[i]), tmp);
	return out;
}

struct Exact {	// the bytes of a hex text on the heap, exactly sized
	std::unique_ptr<uint8_t[]> p;
	size_t n = 0;
	explicit Exact(const std::string &h) : p(new uint8_t[h.size() / 2 + 1])
	{
		for (size_t i = 0; i + 1 < h.size(); i += h[i] == ' ' ? 1 : 2)
			if (h[i] != ' ')
				p[n++] = uint8_t(std::stoi(h.substr(i, 2), nullptr, 16));
	}
	Exact(const uint8_t *data, size_t len) : p(new uint8_t[len ? len : 1]), n(len) { memcpy(p.get(), data, len); }
	blob_attr *attr() const { return reinterpret_cast<blob_attr *>(p.get()); }
};

std::string take(char *s) { std::string out = s ? s : "<null>"; return free(s), out; }

std::string describe(blob_attr *a)	// type and value; "-" for none
{
	static const char *const types[] = {"null", "array", "table", "s", "i64", "i32", "i16", "i8", "d"};
	return a ? std::string(types[blobmsg_type(a)]) + ":" + take(blobmsg_format_json_value(a)) : "-";
}

void put_hex(blob_buf *b, const char *h) { Exact e(h); blob_put_raw(b, e.p.get(), unsigned(e.n)); }


// Header word: id (0x80 = extended, i.e. named blobmsg) and raw length; a name header is its length (16 bits),
// the name and a NUL, padded to 4; values are big endian and padded to 4, the parent counting the padding.
TEST(Blob, BuildersEncode)
{
	const std::pair<void (*)(blob_buf *), const char *> cases[] = {
		{[](blob_buf *) {}, "00000004"},
		{[](blob_buf *b) { blobmsg_add_u32(b, "id", 5); }, "00000014 85000010 00026964 00000000 00000005"},
		{[](blob_buf *b) { blobmsg_add_string(b, "msg", "hi"); }, "00000014 8300000f 00036d73 67000000 68690000"},
		{[](blob_buf *b) { blobmsg_add_u8(b, "f", 1); }, "00000010 87000009 00016600 01000000"},
		{[](blob_buf *b) { blobmsg_add_u16(b, "s", 2); }, "00000010 8600000a 00017300 00020000"},
		{[](blob_buf *b) { blobmsg_add_u64(b, "q", 1); }, "00000014 84000010 00017100 00000000 00000001"},
		{[](blob_buf *b) { blobmsg_add_double(b, "d", 1.5); }, "00000014 88000010 00016400 3ff80000 00000000"},
		{[](blob_buf *b) { blobmsg_add_u32(b, "", uint32_t(-2)); }, "00000010 8500000c 00000000 fffffffe"},
		{[](blob_buf *b) { blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "n", nullptr, 0); }, "0000000c 80000008 00016e00"},
		{[](blob_buf *b) { blobmsg_add_string(b, "abcdef", ""); }, "00000018 83000011 00066162 63646566 00000000 00000000"},
		{[](blob_buf *b) { void *c = blobmsg_open_array(b, "a"); blobmsg_add_u32(b, nullptr, 1); blobmsg_close_array(b, c); },
		 "00000018 81000014 00016100 8500000c 00000000 00000001"},	// array elements: nameless
		{[](blob_buf *b) { void *o = blobmsg_open_table(b, "o"); blobmsg_close_array(b, blobmsg_open_array(b, "x"));
			 blobmsg_close_table(b, o); }, "00000014 82000010 00016f00 81000008 00017800"},
		{[](blob_buf *b) { blob_put_u32(b, 3, 7); }, "0000000c 03000008 00000007"},	// plain blob attributes
		{[](blob_buf *b) { blob_put_string(b, 1, "ab"); }, "0000000c 01000007 61620000"},
		{[](blob_buf *b) { void *c = blob_nest_start(b, 2); blob_put_u8(b, 4, 1); blob_nest_end(b, c); },
		 "00000010 0200000c 04000005 01000000"},
		{[](blob_buf *b) { blobmsg_printf(b, "p", "%d-%s", 4, "a"); }, "00000010 8300000c 00017000 342d6100"},
		{[](blob_buf *b) {	// a string buffer grown, then cut
			 memset(blobmsg_alloc_string_buffer(b, "p", 2), 0, 2);
			 strcpy(static_cast<char *>(memset(blobmsg_realloc_string_buffer(b, 4000), 'z', 3999)), "4-a");
			 blobmsg_add_string_buffer(b);
		 }, "00000010 8300000c 00017000 342d6100"},
		{[](blob_buf *b) {	// copies of an attribute
			 Buf src;
			 blobmsg_add_u8(&src, "f", 1);
			 blobmsg_add_blob(b, static_cast<blob_attr *>(blob_data(src.b.head)));
			 blob_put_raw(b, blob_data(src.b.head), unsigned(blob_len(src.b.head)));
		 }, "0000001c 87000009 00016600 01000000 87000009 00016600 01000000"},
	};
	for (const auto &[build, bytes] : cases) {
		Buf b;
		build(&b);
		EXPECT_EQ(hex(b.b.head), bytes);
	}
	EXPECT_EQ(hex(Buf(BLOBMSG_TYPE_TABLE).b.head), "02000004");

	// Containers opened before the buffer grows close right; a value too long for 24 bits is refused.
	Buf big;
	void *outer = blobmsg_open_array(&big, "big");
	for (uint32_t i = 0; i < 2000; i++)
		blobmsg_add_u32(&big, nullptr, i);
	blobmsg_close_array(&big, outer);
	auto *arr = static_cast<blob_attr *>(blob_data(big.b.head));
	EXPECT_EQ(blobmsg_check_array(arr, BLOBMSG_TYPE_INT32), 2000);
	EXPECT_EQ(blob_raw_len(big.b.head), 4 + blob_pad_len(arr));
	std::vector<char> huge(0x1000000, 'x');
	EXPECT_EQ(blobmsg_add_field(&big, BLOBMSG_TYPE_STRING, "s", huge.data(), unsigned(huge.size())), -1);
}

// blobmsg_parse: one slot per policy entry, filled by the first attribute of its name and type; blobmsg_parse_array
// (array): by position, names ignored. cut: bytes taken off the end of the input.
TEST(Blob, ParseRules)
{
	const struct {
		void (*build)(blob_buf *);
		std::vector<blobmsg_policy> policy;
		int cut, ret;
		std::vector<std::string> tb;
		bool array = false;
	} cases[] = {
		{[](blob_buf *b) { blobmsg_add_u32(b, "k", 1); blobmsg_add_u32(b, "k", 2); },
		 {{"k", BLOBMSG_TYPE_INT32}}, 0, 0, {"i32:1"}},
		{[](blob_buf *b) { blobmsg_add_string(b, "k", "str"); blobmsg_add_u32(b, "k", 9); },	// another type: absent
		 {{"k", BLOBMSG_TYPE_INT32}, {"k", BLOBMSG_TYPE_UNSPEC}}, 0, 0, {"i32:9", "s:\"str\""}},
		{[](blob_buf *b) { blobmsg_add_string(b, "a", "1"); blobmsg_add_u8(b, "c", 1); blobmsg_add_u16(b, "d", 2); },
		 {{"a", BLOBMSG_CAST_INT64}, {"c", BLOBMSG_CAST_INT64}, {"d", BLOBMSG_CAST_INT64}}, 0, 0, {"-", "i8:true", "i16:2"}},
		{[](blob_buf *b) { blobmsg_add_u32(b, "K", 1); blob_put_u32(b, BLOBMSG_TYPE_INT32, 5); blobmsg_add_u32(b, "", 3); },
		 {{"k", BLOBMSG_TYPE_UNSPEC}, {nullptr, BLOBMSG_TYPE_UNSPEC}, {"", BLOBMSG_TYPE_INT32}}, 0, 0, {"-", "-", "i32:3"}},
		{[](blob_buf *b) { blobmsg_add_u32(b, "a", 1); put_hex(b, "8500000a 00016b00 00010000"); blobmsg_add_u32(b, "b", 9); },
		 {{"a", BLOBMSG_TYPE_INT32}, {"b", BLOBMSG_TYPE_INT32}}, 0, -1, {"i32:1", "-"}},	// stops at an invalid one
		{[](blob_buf *b) { put_hex(b, "8300000a 00016b00 78790000"); }, {{"k", BLOBMSG_TYPE_UNSPEC}}, 0, -1, {"-"}},
		{[](blob_buf *b) { blobmsg_add_u32(b, "a", 1); blobmsg_add_string(b, "k", "long value"); },
		 {{"a", BLOBMSG_TYPE_INT32}, {"k", BLOBMSG_TYPE_STRING}}, 4, -1, {"i32:1", "-"}},
		{[](blob_buf *) {}, {{"k", BLOBMSG_TYPE_UNSPEC}}, 0, -EINVAL, {"-"}},
		{[](blob_buf *b) { blobmsg_add_string(b, "x", "s"); blobmsg_add_u32(b, "y", 3); },
		 {{nullptr, BLOBMSG_TYPE_INT32}, {"y", BLOBMSG_TYPE_STRING}}, 0, 0, {"i32:3", "-"}, true},
		{[](blob_buf *b) { blobmsg_add_u32(b, nullptr, 1); put_hex(b, "8500000a 00016b00 00010000"); },
		 {{nullptr, BLOBMSG_TYPE_UNSPEC}}, 0, 0, {"i32:1"}, true},	// all slots filled before the broken one
		{[](blob_buf *b) { blobmsg_add_u32(b, nullptr, 1); put_hex(b, "8300000a 00016b00 78790000"); },
		 {{nullptr, BLOBMSG_TYPE_UNSPEC}, {nullptr, BLOBMSG_TYPE_UNSPEC}}, 0, -1, {"i32:1", "-"}, true},
	};
	for (const auto &c : cases) {
		Buf b;
		c.build(&b);
		Exact in(static_cast<uint8_t *>(blob_data(b.b.head)), blob_len(b.b.head) - size_t(c.cut));
		std::vector<blob_attr *> tb(c.policy.size(), reinterpret_cast<blob_attr *>(1));
		auto parse = c.array ? blobmsg_parse_array : blobmsg_parse;
		EXPECT_EQ(parse(c.policy.data(), int(c.policy.size()), tb.data(), in.n ? in.p.get() : nullptr, unsigned(in.n)), c.ret)
			<< "case " << &c - cases;
		for (size_t i = 0; i < tb.size(); i++)
			EXPECT_EQ(describe(tb[i]), c.tb[i]) << "case " << &c - cases << ", slot " << i;
	}
}

// The checks on untrusted bytes: an attribute with or without a name, a container with its children.
TEST(Blob, ChecksRefuseMalformedInput)
{
	// blobmsg_check_attr_len with and without a name required; blobmsg_check_array_len: the number of children,
	// -1 for an invalid container or none.
	const struct {
		const char *bytes;
		bool named, unnamed;
		int type, count;
	} cases[] = {
		{"85000010 00026964 00000000 00000005", true, true, BLOBMSG_TYPE_UNSPEC, -1},
		{"8300000a 00000000 78000000", false, true, BLOBMSG_TYPE_UNSPEC, -1},	// empty name
		{"85000002", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// shorter than its header
		{"85000014 00026964 00000000 00000005", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// longer than the buffer
		{"8500000c 00206964 00000000", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// name longer than the payload
		{"85000010 00026964 ff000000 00000005", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// name without its NUL
		{"89000008 00016e00", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// type after the last
		{"8500000a 00016b00 00010000", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// int32 of 2 bytes
		{"8300000a 00016b00 78790000", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// unterminated string
		{"82000020 00017400 8500000c 00016100 00000001 8500000c 00016200 00000002", true, true, BLOBMSG_TYPE_INT32, 2},
		{"81000020 00016100 8500000c 00000000 00000001 8300000a 00000000 78000000", true, true, BLOBMSG_TYPE_INT32,
		 -1},	// a string among int32
		{"82000014 00017400 8500000c 00000000 00000001", true, true, BLOBMSG_TYPE_UNSPEC, -1},	// a nameless table child
		{"81000014 00016100 85000010 00000000 00000001", true, true, BLOBMSG_TYPE_UNSPEC, -1},	// child past its parent
		{"81000014 00016100 8500000a 00000000 00010000", true, true, BLOBMSG_TYPE_UNSPEC, -1},	// a broken child
		{"81000008 00016100", true, true, BLOBMSG_TYPE_INT32, 0},
		{"81000020 00016100 8500000c 00000000 00000001", false, false, BLOBMSG_TYPE_UNSPEC, -1},	// parent past the buffer
	};
	for (const auto &c : cases) {
		Exact e(c.bytes);
		EXPECT_EQ(blobmsg_check_attr_len(e.attr(), true, e.n), c.named) << c.bytes;
		EXPECT_EQ(blobmsg_check_attr_len(e.attr(), false, e.n), c.unnamed) << c.bytes;
		EXPECT_FALSE(blobmsg_check_attr_len(e.attr(), false, 3)) << c.bytes;
		EXPECT_EQ(blobmsg_check_array_len(e.attr(), c.type, e.n), c.count) << c.bytes;
		EXPECT_EQ(blobmsg_check_attr_list_len(e.attr(), c.type, e.n), c.count >= 0) << c.bytes;
	}

	// Plain attributes: the last of an id wins, ids past the table and wrong types are left out, a child with an
	// impossible length ends the walk, a parent longer than what came is not read at all.
	const blob_attr_info info[4] = {{}, {BLOB_ATTR_INT32, 0, 0, nullptr}, {BLOB_ATTR_STRING, 0, 0, nullptr},
					{BLOB_ATTR_INT32, 0, 0, nullptr}};
	blob_attr *tb[4];
	Exact plain("0000002c 01000008 0000000a 01000008 0000000b 02000006 78000000 09000008 00000001 03000005 01000000");
	EXPECT_EQ(blob_parse_untrusted(plain.attr(), plain.n, tb, info, 4), 2);
	EXPECT_EQ(blob_get_u32(tb[1]), 11u);
	EXPECT_STREQ(blob_get_string(tb[2]), "x");
	EXPECT_EQ(tb[3], nullptr);
	EXPECT_EQ(blob_parse(plain.attr(), tb, info, 4), 2) << "the trusted form";
	blob_attr *dup = blob_memdup(plain.attr());
	EXPECT_TRUE(blob_attr_equal(dup, plain.attr()) && !blob_attr_equal(dup, nullptr) && blob_attr_equal(nullptr, nullptr));
	free(dup);
	for (auto [bad, count] : {std::pair{"00000014 01000008 00000007 02000040 78000000", 1},
				  {"0000000c 00000000 01000008", 0}, {"00000030 01000008 0000000a", 0}}) {
		Exact e(bad);
		EXPECT_EQ(blob_parse_untrusted(e.attr(), e.n, tb, nullptr, 4), count) << bad;
	}
}

// JSON as json-c reads it (compact form printed back), the types it maps to, and the printing rules.
TEST(Blob, Json)
{
	const struct {
		const char *in, *out;
	} docs[] = {
		{"{'a':'b',/* c */\"n\":[],}", "{\"a\":\"b\",\"n\":[]}"},
		{"{\"a\":1} xyz", "{\"a\":1}"},
		{"{\"a\":1,\"b\":2,\"a\":3}", "{\"a\":3,\"b\":2}"},	// last value, first place
		{"{\"s\":\"ab\\u0000cd\"}", "{\"s\":\"ab\"}"},
		{"{\"t\":{\"l\":[[],{},null,\"s\",0.25,-4294967296]}}", "{\"t\":{\"l\":[[],{},null,\"s\",0.250000,-4294967296]}}"},
		{"[1]", "-"}, {"1", "-"}, {"", "-"}, {"{\"a\":", "-"}, {"{a:1}", "-"}, {"null", "-"},
	};
	for (const auto &d : docs) {
		Buf b;
		EXPECT_EQ(blobmsg_add_json_from_string(&b, d.in) ? take(blobmsg_format_json(b.b.head, true)) : "-", d.out) << d.in;
	}
	Buf b;
	ASSERT_TRUE(blobmsg_add_json_from_string(&b, "{\"t\":true,\"i\":-2147483648,\"l\":2147483648,\"h\":1e3,"
						       "\"x\":99999999999999999999,\"n\":null,\"a\":[1]}"));
	std::string types;
	blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, b.b.head, rem) types += describe(cur) + " ";
	EXPECT_EQ(types, "i8:true i32:-2147483648 i64:2147483648 d:1000.000000 i64:9223372036854775807 null:null array:[1] ");
	EXPECT_FALSE(blobmsg_add_json_from_string(&b, "[1,2]"));

	Buf s;
	blobmsg_add_u8(&s, "b", 5);
	blobmsg_add_u16(&s, "s", 65535);
	blobmsg_add_u32(&s, "i", 0xffffffff);
	blobmsg_add_u64(&s, "l", 0x8000000000000000ull);
	blobmsg_add_double(&s, "d", -0.0);
	blobmsg_add_double(&s, "nan", NAN);
	blobmsg_add_field(&s, BLOBMSG_TYPE_UNSPEC, "n", "raw", 3);
	blobmsg_add_string(&s, "", "\b\n\t\r\"\\\f\x01/\x7f\xc3\xa9");
	put_hex(&s, "8500000a 00016b00 00010000");	// invalid: left out, but the comma before it stays
	EXPECT_EQ(take(blobmsg_format_json(s.b.head, true)), "{\"b\":true,\"s\":-1,\"i\":-1,\"l\":-9223372036854775808,"
		  "\"d\":-0.000000,\"nan\":nan,\"n\":null,\"\\b\\n\\t\\r\\\"\\\\\\u000c\\u0001/\x7f\xc3\xa9\",}");
	Buf e;
	EXPECT_EQ(take(blobmsg_format_json(e.b.head, false)), "null");
	blobmsg_add_double(&e, "d", 1e300);	// 301 digits, never cut short
	EXPECT_EQ(take(blobmsg_format_json(e.b.head, true)).size(), 5 + 301 + 7 + 1);
}

} // namespace
