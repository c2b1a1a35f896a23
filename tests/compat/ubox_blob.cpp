// Byte layout of blob and blobmsg attributes, the blobmsg parse rules, and the
// check functions on malformed input. Every malformed case runs on a heap copy
// of exactly the stated size, so an overread shows up under AddressSanitizer.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <libubox/blobmsg.h>

namespace {

struct Buf {
	blob_buf b{};
	explicit Buf(int id = 0) { blob_buf_init(&b, id); }
	~Buf() { blob_buf_free(&b); }
	blob_buf *operator&() { return &b; }
};

// The padded bytes of an attribute as 32-bit words in hex, separated by blanks.
std::string hex(const blob_attr *a)
{
	const auto *p = reinterpret_cast<const unsigned char *>(a);
	std::string out;
	char tmp[3];
	for (size_t i = 0; i < blob_pad_len(a); i++) {
		if (i && i % 4 == 0)
			out += ' ';
		snprintf(tmp, sizeof(tmp), "%02x", p[i]);
		out += tmp;
	}
	return out;
}

std::vector<uint8_t> unhex(const std::string &s)
{
	std::vector<uint8_t> v;
	for (size_t i = 0; i < s.size();) {
		if (s[i] == ' ') {
			i++;
			continue;
		}
		v.push_back(static_cast<uint8_t>(std::stoi(s.substr(i, 2), nullptr, 16)));
		i += 2;
	}
	return v;
}

// Exactly-sized heap copy: reading one byte past it is an ASan error.
struct Exact {
	std::unique_ptr<uint8_t[]> p;
	size_t n;
	explicit Exact(const std::vector<uint8_t> &v) : p(new uint8_t[v.size() ? v.size() : 1]), n(v.size())
	{
		if (n)
			memcpy(p.get(), v.data(), n);
	}
	blob_attr *attr() { return reinterpret_cast<blob_attr *>(p.get()); }
};

TEST(UboxEncoding, BlobmsgScalarsAndContainersMatchReferenceBytes)
{
	struct Case {
		const char *what;
		void (*build)(blob_buf *);
		const char *bytes;
	};
	const Case cases[] = {
		// header only: id 0, not extended, raw length 4
		{"empty buffer", [](blob_buf *) {}, "00000004"},
		// u32 "id"=5: 0x85 = extended|INT32, raw 16 = 4 hdr + 8 name hdr (2+2+NUL, padded) + 4 value
		{"u32", [](blob_buf *b) { blobmsg_add_u32(b, "id", 5); },
		 "00000014 85000010 00026964 00000000 00000005"},
		// "hi" plus NUL is 3 value bytes: raw 15, padded to 16; the parent counts the padded 16
		{"string", [](blob_buf *b) { blobmsg_add_string(b, "msg", "hi"); },
		 "00000014 8300000f 00036d73 67000000 68690000"},
		// INT8 (=bool) is one byte: raw 9
		{"u8", [](blob_buf *b) { blobmsg_add_u8(b, "f", 1); }, "00000010 87000009 00016600 01000000"},
		// array elements are extended with an empty name: 4-byte name header
		{"array", [](blob_buf *b) {
			 void *c = blobmsg_open_array(b, "a");
			 blobmsg_add_u32(b, nullptr, 1);
			 blobmsg_close_array(b, c);
		 },
		 "00000018 81000014 00016100 8500000c 00000000 00000001"},
		// an empty table is just its name header
		{"empty table", [](blob_buf *b) { blobmsg_close_table(b, blobmsg_open_table(b, "t")); },
		 "0000000c 82000008 00017400"},
		// 1.5 = 0x3ff8000000000000, stored big-endian
		{"double", [](blob_buf *b) { blobmsg_add_double(b, "d", 1.5); },
		 "00000014 88000010 00016400 3ff80000 00000000"},
		// u64: high word first
		{"u64", [](blob_buf *b) { blobmsg_add_u64(b, "q", 1); },
		 "00000014 84000010 00017100 00000000 00000001"},
		// u16: raw 10, two bytes of padding
		{"u16", [](blob_buf *b) { blobmsg_add_u16(b, "s", 2); }, "00000010 8600000a 00017300 00020000"},
		// null: UNSPEC with no value
		{"null", [](blob_buf *b) { blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "n", nullptr, 0); },
		 "0000000c 80000008 00016e00"},
		// empty name: namelen 0 and the NUL fill the 4-byte header
		{"empty name", [](blob_buf *b) { blobmsg_add_string(b, "", "x"); },
		 "00000010 8300000a 00000000 78000000"},
		// {"o":{"x":[]}}: inner array 8 bytes, table 4+4+8 = 16, top 4+16
		{"nested", [](blob_buf *b) {
			 void *o = blobmsg_open_table(b, "o");
			 blobmsg_close_array(b, blobmsg_open_array(b, "x"));
			 blobmsg_close_table(b, o);
		 },
		 "00000014 82000010 00016f00 81000008 00017800"},
		// negative numbers are two's complement, big-endian
		{"u32 -2", [](blob_buf *b) { blobmsg_add_u32(b, "", (uint32_t)-2); },
		 "00000010 8500000c 00000000 fffffffe"},
		// plain blob attributes: no extended bit, no name header
		{"blob u32", [](blob_buf *b) { blob_put_u32(b, 3, 7); }, "0000000c 03000008 00000007"},
		{"blob string", [](blob_buf *b) { blob_put_string(b, 1, "ab"); }, "0000000c 01000007 61620000"},
		// a plain nest: child u8 raw 5 counts 8 in the nest, nest raw 12
		{"blob nest", [](blob_buf *b) {
			 void *c = blob_nest_start(b, 2);
			 blob_put_u8(b, 4, 1);
			 blob_nest_end(b, c);
		 },
		 "00000010 0200000c 04000005 01000000"},
	};
	for (const auto &c : cases) {
		Buf b;
		c.build(&b);
		EXPECT_EQ(hex(b.b.head), c.bytes) << c.what;
	}

	Buf t(BLOBMSG_TYPE_TABLE);
	EXPECT_EQ(hex(t.b.head), "02000004") << "blobmsg_buf_init top container";
}

TEST(UboxEncoding, NameAndValueLengthsHitEveryPadding)
{
	// Name header = pad4(2 + namelen + 1): 0-1 -> 4, 2-5 -> 8, 6-9 -> 12.
	const struct {
		const char *name;
		size_t hdrlen;
	} names[] = {{"", 4}, {"a", 4}, {"ab", 8}, {"abcde", 8}, {"abcdef", 12}, {"abcdefghi", 12}, {"abcdefghij", 16}};
	for (const auto &n : names) {
		EXPECT_EQ((size_t)blobmsg_hdrlen(strlen(n.name)), n.hdrlen) << n.name;
		// a string value of 1..4 bytes (with NUL): raw = 4 + hdr + len, padded to 4
		for (const char *v : {"", "a", "ab", "abc"}) {
			Buf b;
			blobmsg_add_string(&b, n.name, v);
			blob_attr *a = (blob_attr *)blob_data(b.b.head);
			size_t raw = 4 + n.hdrlen + strlen(v) + 1;
			EXPECT_EQ(blob_raw_len(a), raw) << n.name << "/" << v;
			EXPECT_EQ(blob_raw_len(b.b.head), 4 + ((raw + 3) & ~3u)) << n.name << "/" << v;
			EXPECT_STREQ(blobmsg_name(a), n.name);
			EXPECT_STREQ(blobmsg_get_string(a), v);
			EXPECT_EQ(blobmsg_data_len(a), strlen(v) + 1);
			// padding bytes are zero
			const uint8_t *p = (const uint8_t *)a;
			for (size_t i = raw; i < blob_pad_len(a); i++)
				EXPECT_EQ(p[i], 0) << n.name << "/" << v << " byte " << i;
			EXPECT_TRUE(blobmsg_check_attr(a, true) || !n.name[0]);
		}
	}
}

TEST(UboxEncoding, OtherBuildersProduceTheSameBytes)
{
	Buf ref;
	blobmsg_add_string(&ref, "p", "42-abc");
	blobmsg_add_u32(&ref, "n", 1);

	Buf pf;
	EXPECT_EQ(blobmsg_printf(&pf, "p", "%d-%s", 42, "abc"), 6);
	blobmsg_add_u32(&pf, "n", 1);
	EXPECT_EQ(hex(pf.b.head), hex(ref.b.head)) << "printf";

	// reserve small, grow past the buffer's first 256 bytes, then commit a shorter string
	Buf sb;
	char *s = (char *)blobmsg_alloc_string_buffer(&sb, "p", 2);
	ASSERT_NE(s, nullptr);
	s = (char *)blobmsg_realloc_string_buffer(&sb, 4000);
	ASSERT_NE(s, nullptr);
	memset(s, 'z', 3999);
	strcpy(s, "42-abc");
	blobmsg_add_string_buffer(&sb);
	blobmsg_add_u32(&sb, "n", 1);
	EXPECT_EQ(hex(sb.b.head), hex(ref.b.head)) << "string buffer";

	// copying every attribute reproduces the message
	Buf cp;
	blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, ref.b.head, rem) blobmsg_add_blob(&cp, cur);
	EXPECT_EQ(hex(cp.b.head), hex(ref.b.head)) << "add_blob";

	// raw put of a complete attribute
	Buf raw;
	blob_put_raw(&raw, blob_data(ref.b.head), blob_len(ref.b.head));
	EXPECT_EQ(hex(raw.b.head), hex(ref.b.head)) << "put_raw";
	EXPECT_TRUE(blob_attr_equal(raw.b.head, ref.b.head));
	EXPECT_FALSE(blob_attr_equal(raw.b.head, nullptr));
	EXPECT_TRUE(blob_attr_equal(nullptr, nullptr));

	blob_attr *dup = blob_memdup(ref.b.head);
	EXPECT_TRUE(blob_attr_equal(dup, ref.b.head));
	free(dup);
}

TEST(UboxEncoding, LargeMessagesSurviveBufferGrowth)
{
	// cookies are offsets, so containers opened before a realloc still close correctly
	Buf b;
	void *outer = blobmsg_open_array(&b, "big");
	for (int i = 0; i < 2000; i++) {
		void *t = blobmsg_open_table(&b, nullptr);
		blobmsg_add_u32(&b, "i", (uint32_t)i);
		blobmsg_close_table(&b, t);
	}
	blobmsg_close_array(&b, outer);
	blob_attr *arr = (blob_attr *)blob_data(b.b.head);
	EXPECT_EQ(blobmsg_check_array(arr, BLOBMSG_TYPE_TABLE), 2000);
	EXPECT_EQ(blob_raw_len(b.b.head), 4 + blob_pad_len(arr));
	blob_attr *cur;
	size_t rem;
	uint32_t expect = 0;
	blobmsg_for_each_attr(cur, arr, rem) {
		blob_attr *i = (blob_attr *)blobmsg_data(cur);
		EXPECT_EQ(blobmsg_get_u32(i), expect++);
	}
	EXPECT_EQ(expect, 2000u);

	// the length field has 24 bits: a value that cannot fit is refused
	Buf huge;
	std::vector<char> big(0x1000000, 'x');
	EXPECT_EQ(blobmsg_add_field(&huge, BLOBMSG_TYPE_STRING, "s", big.data(), (unsigned)big.size()), -1);
	EXPECT_EQ(blob_raw_len(huge.b.head), 4u);
}

TEST(UboxEncoding, AccessorsDecodeSignAndNonExtendedContainers)
{
	Buf b;
	blobmsg_add_u8(&b, "a", 0xff);
	blobmsg_add_u16(&b, "b", 0xfffe);
	blobmsg_add_u32(&b, "c", 0xfffffffd);
	blobmsg_add_u64(&b, "d", 0xfffffffffffffffcull);
	blobmsg_add_double(&b, "e", -2.25);
	blobmsg_add_string(&b, "f", "s");
	std::vector<blob_attr *> v;
	blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, b.b.head, rem) v.push_back(cur);
	ASSERT_EQ(v.size(), 6u);
	EXPECT_EQ(blobmsg_cast_s64(v[0]), -1);
	EXPECT_EQ(blobmsg_cast_u64(v[0]), 0xffu);
	EXPECT_EQ(blobmsg_cast_s64(v[1]), -2);
	EXPECT_EQ(blobmsg_cast_u64(v[1]), 0xfffeu);
	EXPECT_EQ(blobmsg_cast_s64(v[2]), -3);
	EXPECT_EQ(blobmsg_cast_s64(v[3]), -4);
	EXPECT_EQ(blobmsg_get_double(v[4]), -2.25);
	EXPECT_EQ(blobmsg_cast_s64(v[4]), 0) << "a double is not cast";
	EXPECT_EQ(blobmsg_cast_u64(v[5]), 0u) << "a string is not cast";
	EXPECT_TRUE(blobmsg_get_bool(v[0]));
	EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
	EXPECT_EQ(blobmsg_data(nullptr), nullptr);
	EXPECT_EQ(blobmsg_data_len(nullptr), 0u);

	// the top container is not extended: its data is the payload itself
	EXPECT_EQ(blobmsg_data(b.b.head), blob_data(b.b.head));
	EXPECT_EQ(blobmsg_data_len(b.b.head), blob_len(b.b.head));

	blobmsg_clear_name(v[5]);
	EXPECT_STREQ(blobmsg_name(v[5]), "");
	EXPECT_STREQ(blobmsg_get_string(v[5]), "s") << "clearing the name keeps the value where it was";
}

// ---- parse rules ----

std::string describe(blob_attr *a)
{
	if (!a)
		return "-";
	switch (blobmsg_type(a)) {
	case BLOBMSG_TYPE_STRING:
		return std::string("s:") + blobmsg_get_string(a);
	case BLOBMSG_TYPE_INT32:
		return "i32:" + std::to_string((int32_t)blobmsg_get_u32(a));
	case BLOBMSG_TYPE_INT8:
		return "i8:" + std::to_string(blobmsg_get_u8(a));
	case BLOBMSG_TYPE_INT16:
		return "i16:" + std::to_string(blobmsg_get_u16(a));
	case BLOBMSG_TYPE_INT64:
		return "i64:" + std::to_string((int64_t)blobmsg_get_u64(a));
	default:
		return "t" + std::to_string(blobmsg_type(a));
	}
}

// an INT32 attribute named "k" whose value has only 2 bytes
const char bad_int[] = "8500000a 00016b00 00010000";
// a STRING "k" of two bytes with no terminating NUL
const char unterminated[] = "8300000a 00016b00 78790000";

void put_hex(blob_buf *b, const char *h)
{
	auto v = unhex(h);
	blob_attr *a = reinterpret_cast<blob_attr *>(v.data());
	blob_put_raw(b, v.data(), (unsigned)blob_raw_len(a));
}

TEST(UboxParse, BlobmsgParseRules)
{
	struct Case {
		const char *what;
		void (*build)(blob_buf *);
		std::vector<blobmsg_policy> policy;
		int cut;	// bytes removed from the end of the input
		int ret;
		std::vector<std::string> tb;
	};
	const std::vector<Case> cases = {
		{"first match wins", [](blob_buf *b) { blobmsg_add_u32(b, "k", 1); blobmsg_add_u32(b, "k", 2); },
		 {{"k", BLOBMSG_TYPE_INT32}}, 0, 0, {"i32:1"}},
		{"wrong type counts as absent", [](blob_buf *b) { blobmsg_add_string(b, "k", "str"); },
		 {{"k", BLOBMSG_TYPE_INT32}}, 0, 0, {"-"}},
		{"a later attribute of the right type still fills the slot",
		 [](blob_buf *b) { blobmsg_add_string(b, "k", "str"); blobmsg_add_u32(b, "k", 9); },
		 {{"k", BLOBMSG_TYPE_INT32}, {"k", BLOBMSG_TYPE_UNSPEC}}, 0, 0, {"i32:9", "s:str"}},
		{"two entries with one name both match",
		 [](blob_buf *b) { blobmsg_add_u32(b, "k", 3); },
		 {{"k", BLOBMSG_TYPE_INT32}, {"k", BLOBMSG_TYPE_INT32}}, 0, 0, {"i32:3", "i32:3"}},
		{"cast int64 takes every integer width and nothing else",
		 [](blob_buf *b) {
			 blobmsg_add_string(b, "a", "1");
			 blobmsg_add_double(b, "b", 1.0);
			 blobmsg_add_u8(b, "c", 1);
			 blobmsg_add_u16(b, "d", 2);
			 blobmsg_add_u32(b, "e", 3);
			 blobmsg_add_u64(b, "f", 4);
		 },
		 {{"a", BLOBMSG_CAST_INT64}, {"b", BLOBMSG_CAST_INT64}, {"c", BLOBMSG_CAST_INT64},
		  {"d", BLOBMSG_CAST_INT64}, {"e", BLOBMSG_CAST_INT64}, {"f", BLOBMSG_CAST_INT64}},
		 0, 0, {"-", "-", "i8:1", "i16:2", "i32:3", "i64:4"}},
		{"names match exactly and case-sensitively",
		 [](blob_buf *b) { blobmsg_add_u32(b, "K", 1); blobmsg_add_u32(b, "kk", 2); blobmsg_add_u32(b, "", 3); },
		 {{"k", BLOBMSG_TYPE_UNSPEC}, {"kk", BLOBMSG_TYPE_UNSPEC}, {"", BLOBMSG_TYPE_UNSPEC}}, 0, 0,
		 {"-", "i32:2", "i32:3"}},
		{"a policy entry without a name is skipped", [](blob_buf *b) { blobmsg_add_u32(b, "k", 1); },
		 {{nullptr, BLOBMSG_TYPE_UNSPEC}, {"k", BLOBMSG_TYPE_UNSPEC}}, 0, 0, {"-", "i32:1"}},
		{"non-extended attributes are skipped",
		 [](blob_buf *b) { blob_put_u32(b, BLOBMSG_TYPE_INT32, 5); blobmsg_add_u32(b, "k", 6); },
		 {{"k", BLOBMSG_TYPE_INT32}}, 0, 0, {"i32:6"}},
		{"an invalid attribute stops with -1, earlier slots stay",
		 [](blob_buf *b) { blobmsg_add_u32(b, "a", 1); put_hex(b, bad_int); blobmsg_add_u32(b, "b", 2); },
		 {{"a", BLOBMSG_TYPE_INT32}, {"b", BLOBMSG_TYPE_INT32}, {"k", BLOBMSG_TYPE_UNSPEC}}, 0, -1,
		 {"i32:1", "-", "-"}},
		{"an unterminated string is invalid",
		 [](blob_buf *b) { put_hex(b, unterminated); },
		 {{"k", BLOBMSG_TYPE_UNSPEC}}, 0, -1, {"-"}},
		{"an attribute running past the end is invalid",
		 [](blob_buf *b) { blobmsg_add_u32(b, "a", 1); blobmsg_add_string(b, "k", "long value"); },
		 {{"a", BLOBMSG_TYPE_INT32}, {"k", BLOBMSG_TYPE_STRING}}, 4, -1, {"i32:1", "-"}},
		{"empty input is -EINVAL", [](blob_buf *) {}, {{"k", BLOBMSG_TYPE_UNSPEC}}, 0, -EINVAL, {"-"}},
	};
	for (const auto &c : cases) {
		Buf b;
		c.build(&b);
		std::vector<uint8_t> bytes((uint8_t *)blob_data(b.b.head),
					   (uint8_t *)blob_data(b.b.head) + blob_len(b.b.head) - c.cut);
		Exact in(bytes);
		std::vector<blob_attr *> tb(c.policy.size(), (blob_attr *)1);
		int ret = blobmsg_parse(c.policy.data(), (int)c.policy.size(), tb.data(),
					in.n ? in.p.get() : nullptr, (unsigned)in.n);
		EXPECT_EQ(ret, c.ret) << c.what;
		for (size_t i = 0; i < tb.size(); i++)
			EXPECT_EQ(describe(tb[i]), c.tb[i]) << c.what << " slot " << i;
	}

	// the container form reads the children of a table
	Buf b;
	void *t = blobmsg_open_table(&b, "t");
	blobmsg_add_u32(&b, "k", 4);
	blobmsg_close_table(&b, t);
	blobmsg_policy p[] = {{"k", BLOBMSG_TYPE_INT32}};
	blob_attr *tb[1];
	EXPECT_EQ(blobmsg_parse_attr(p, 1, tb, (blob_attr *)blob_data(b.b.head)), 0);
	EXPECT_EQ(describe(tb[0]), "i32:4");
}

TEST(UboxParse, BlobmsgParseArrayRules)
{
	struct Case {
		const char *what;
		void (*build)(blob_buf *);
		std::vector<blobmsg_policy> policy;
		int ret;
		std::vector<std::string> tb;
	};
	const std::vector<Case> cases = {
		{"a mismatching element is skipped and the slot waits",
		 [](blob_buf *b) { blobmsg_add_string(b, nullptr, "s"); blobmsg_add_u32(b, nullptr, 3); blobmsg_add_u32(b, nullptr, 4); },
		 {{nullptr, BLOBMSG_TYPE_INT32}, {nullptr, BLOBMSG_TYPE_STRING}}, 0, {"i32:3", "-"}},
		{"names are ignored, unspec takes anything",
		 [](blob_buf *b) { blobmsg_add_u32(b, "x", 1); blobmsg_add_string(b, "y", "v"); },
		 {{"y", BLOBMSG_TYPE_UNSPEC}, {"x", BLOBMSG_TYPE_UNSPEC}}, 0, {"i32:1", "s:v"}},
		{"stops once every slot is filled, even before a broken element",
		 [](blob_buf *b) { blobmsg_add_u32(b, nullptr, 1); put_hex(b, bad_int); },
		 {{nullptr, BLOBMSG_TYPE_UNSPEC}}, 0, {"i32:1"}},
		{"an invalid element is -1",
		 [](blob_buf *b) { blobmsg_add_u32(b, nullptr, 1); put_hex(b, unterminated); },
		 {{nullptr, BLOBMSG_TYPE_UNSPEC}, {nullptr, BLOBMSG_TYPE_UNSPEC}}, -1, {"i32:1", "-"}},
		{"empty input is not an error", [](blob_buf *) {}, {{nullptr, BLOBMSG_TYPE_UNSPEC}}, 0, {"-"}},
	};
	for (const auto &c : cases) {
		Buf b;
		c.build(&b);
		std::vector<uint8_t> bytes((uint8_t *)blob_data(b.b.head),
					   (uint8_t *)blob_data(b.b.head) + blob_len(b.b.head));
		Exact in(bytes);
		std::vector<blob_attr *> tb(c.policy.size(), (blob_attr *)1);
		EXPECT_EQ(blobmsg_parse_array(c.policy.data(), (int)c.policy.size(), tb.data(), in.p.get(),
					      (unsigned)in.n), c.ret) << c.what;
		for (size_t i = 0; i < tb.size(); i++)
			EXPECT_EQ(describe(tb[i]), c.tb[i]) << c.what << " slot " << i;
	}
}

// ---- check functions on malformed input ----

TEST(UboxCheck, CheckAttrRefusesMalformedAttributes)
{
	struct Case {
		const char *what;
		const char *bytes;
		bool named_ok;		// blobmsg_check_attr(.., true)
		bool unnamed_ok;	// blobmsg_check_attr(.., false)
	};
	const Case cases[] = {
		{"valid u32", "85000010 00026964 00000000 00000005", true, true},
		{"valid empty-name string", "8300000a 00000000 78000000", false, true},
		{"not extended", "05000008 00000005", false, true},
		{"raw length below the header", "85000002", false, false},
		{"raw length past the buffer", "85000014 00026964 00000000 00000005", false, false},
		{"payload shorter than namelen field", "85000005 00", false, false},
		{"name longer than the payload", "8500000c 00206964 00000000", false, false},
		{"name without its NUL", "85000010 00026964 ff000000 00000005", false, false},
		{"type above the last", "89000008 00016e00", false, false},
		{"int32 with two bytes", bad_int, false, false},
		{"int8 with two bytes", "8700000a 00016600 01010000", false, false},
		{"double with four bytes", "8800000c 00016400 3ff80000", false, false},
		{"unterminated string", unterminated, false, false},
		{"empty string value", "83000008 00016b00", false, false},
		{"nameless header cut short", "80000004", false, false},
	};
	for (const auto &c : cases) {
		auto v = unhex(c.bytes);
		Exact e(v);
		EXPECT_EQ(blobmsg_check_attr_len(e.attr(), true, e.n), c.named_ok) << c.what;
		EXPECT_EQ(blobmsg_check_attr_len(e.attr(), false, e.n), c.unnamed_ok) << c.what;
		// a bound shorter than the header is always refused
		EXPECT_FALSE(blobmsg_check_attr_len(e.attr(), false, 3)) << c.what;
	}
}

TEST(UboxCheck, CheckArrayValidatesEveryChildWithinBounds)
{
	struct Case {
		const char *what;
		const char *bytes;
		int type;
		int count;
	};
	const Case cases[] = {
		// table "t" with "a":1 and "b":2: each child 4 + 4 name header + 4 = 12, table 4 + 4 + 24
		{"table", "82000020 00017400 8500000c 00016100 00000001 8500000c 00016200 00000002",
		 BLOBMSG_TYPE_UNSPEC, 2},
		{"table, all int32", "82000020 00017400 8500000c 00016100 00000001 8500000c 00016200 00000002",
		 BLOBMSG_TYPE_INT32, 2},
		{"table, wrong element type", "82000020 00017400 8500000c 00016100 00000001 8500000c 00016200 00000002",
		 BLOBMSG_TYPE_STRING, -1},
		// array [1, "x"]: 4 + 4 + 12 + pad(10)
		{"array", "81000020 00016100 8500000c 00000000 00000001 8300000a 00000000 78000000",
		 BLOBMSG_TYPE_UNSPEC, 2},
		{"table child without a name", "82000014 00017400 8500000c 00000000 00000001", BLOBMSG_TYPE_UNSPEC, -1},
		{"array child with a name is fine", "81000014 00016100 8500000c 00016100 00000001",
		 BLOBMSG_TYPE_UNSPEC, 1},
		{"child running past its parent", "81000014 00016100 85000010 00000000 00000001",
		 BLOBMSG_TYPE_UNSPEC, -1},
		{"child with a broken value", "81000014 00016100 8500000a 00000000 00010000", BLOBMSG_TYPE_UNSPEC, -1},
		{"not a container", "85000010 00026964 00000000 00000005", BLOBMSG_TYPE_UNSPEC, -1},
		{"empty array", "81000008 00016100", BLOBMSG_TYPE_INT32, 0},
		{"parent longer than the buffer", "81000020 00016100 8500000c 00000000 00000001", BLOBMSG_TYPE_UNSPEC, -1},
	};
	for (const auto &c : cases) {
		auto v = unhex(c.bytes);
		Exact e(v);
		EXPECT_EQ(blobmsg_check_array_len(e.attr(), c.type, e.n), c.count) << c.what;
		EXPECT_EQ(blobmsg_check_attr_list_len(e.attr(), c.type, e.n), c.count >= 0) << c.what;
	}
}

TEST(UboxCheck, BlobParseUntrustedLastWinsAndStaysInBounds)
{
	// plain attributes: id 1 twice (last wins), id 2 a string, id 9 beyond max
	Buf b;
	blob_put_u32(&b, 1, 10);
	blob_put_u32(&b, 1, 11);
	blob_put_string(&b, 2, "x");
	blob_put_u32(&b, 9, 1);
	blob_put_u8(&b, 3, 1);	// fails its info type below: skipped as if absent
	std::vector<uint8_t> all((uint8_t *)b.b.head, (uint8_t *)b.b.head + blob_raw_len(b.b.head));

	const blob_attr_info info[4] = {
		{}, {BLOB_ATTR_INT32, 0, 0, nullptr}, {BLOB_ATTR_STRING, 0, 0, nullptr}, {BLOB_ATTR_INT32, 0, 0, nullptr}};
	blob_attr *tb[4];

	Exact e(all);
	EXPECT_EQ(blob_parse_untrusted(e.attr(), e.n, tb, info, 4), 2);
	ASSERT_NE(tb[1], nullptr);
	EXPECT_EQ(blob_get_u32(tb[1]), 11u);
	EXPECT_STREQ(blob_get_string(tb[2]), "x");
	EXPECT_EQ(tb[3], nullptr);
	EXPECT_EQ(tb[0], nullptr);

	// the trusted form gives the same answer
	EXPECT_EQ(blob_parse(b.b.head, tb, info, 4), 2);
	EXPECT_EQ(blob_get_u32(tb[1]), 11u);

	// outer attribute longer than what was received: nothing is parsed
	std::vector<uint8_t> cut(all.begin(), all.end() - 4);
	Exact c(cut);
	EXPECT_EQ(blob_parse_untrusted(c.attr(), c.n, tb, info, 4), 0);
	EXPECT_EQ(tb[1], nullptr);
	Exact tiny(std::vector<uint8_t>{0, 0});
	EXPECT_EQ(blob_parse_untrusted(tiny.attr(), tiny.n, tb, info, 4), 0);

	// a child whose length is impossible ends the walk; earlier children count
	auto lie = unhex("00000014 01000008 00000007 02000040 78000000");
	Exact l(lie);
	EXPECT_EQ(blob_parse_untrusted(l.attr(), l.n, tb, nullptr, 4), 1);
	EXPECT_EQ(blob_get_u32(tb[1]), 7u);
	EXPECT_EQ(tb[2], nullptr);
	// a zero-length child cannot be stepped over either
	auto zero = unhex("0000000c 00000000 01000008");
	Exact z(zero);
	EXPECT_EQ(blob_parse_untrusted(z.attr(), z.n, tb, nullptr, 4), 0);

	// a child shorter than its own header ends the walk before its type is checked
	auto shorty = unhex("0000000c 02000002 00000000");
	Exact sh(shorty);
	EXPECT_EQ(blob_parse_untrusted(sh.attr(), sh.n, tb, info, 4), 0);

	// blob_check_type: exact integer widths, double at least 8, string NUL-terminated
	const uint8_t bytes[9] = {1, 2, 3, 4, 5, 6, 7, 8, 0};
	EXPECT_TRUE(blob_check_type(bytes, 1, BLOB_ATTR_INT8));
	EXPECT_FALSE(blob_check_type(bytes, 2, BLOB_ATTR_INT8));
	EXPECT_TRUE(blob_check_type(bytes, 8, BLOB_ATTR_INT64));
	EXPECT_FALSE(blob_check_type(bytes, 9, BLOB_ATTR_INT64));
	EXPECT_TRUE(blob_check_type(bytes, 9, BLOB_ATTR_DOUBLE));
	EXPECT_FALSE(blob_check_type(bytes, 7, BLOB_ATTR_DOUBLE));
	EXPECT_TRUE(blob_check_type(bytes, 9, BLOB_ATTR_STRING));
	EXPECT_FALSE(blob_check_type(bytes, 8, BLOB_ATTR_STRING));
	EXPECT_FALSE(blob_check_type(bytes, 0, BLOB_ATTR_STRING));
	EXPECT_TRUE(blob_check_type(bytes, 0, BLOB_ATTR_BINARY));
	EXPECT_FALSE(blob_check_type(bytes, 1, BLOB_ATTR_LAST));
}

TEST(UboxCheck, IterationNeverLeavesTheParent)
{
	// the second child claims 0x40 bytes inside a 0x14-byte parent: iteration stops before it
	auto v = unhex("00000014 85000008 00000000 85000040 00000000");
	Exact e(v);
	blob_attr *cur;
	size_t rem;
	int n = 0;
	blob_for_each_attr(cur, e.attr(), rem) n++;
	EXPECT_EQ(n, 1);
	n = 0;
	blob_for_each_attr_len(cur, e.attr(), e.n - 8, rem) n++;
	EXPECT_EQ(n, 1) << "the extra bound cuts the walk to the first child";
	n = 0;
	blob_for_each_attr_len(cur, e.attr(), 7, rem) n++;
	EXPECT_EQ(n, 0);
}

} // namespace
