// JSON to blobmsg and back: type mapping, json-c leniencies, printing rules.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>
#include <string>

#include <unistd.h>

#include <libubox/blobmsg_json.h>

namespace {

struct Buf {
	blob_buf b{};
	Buf() { blob_buf_init(&b, 0); }
	~Buf() { blob_buf_free(&b); }
	blob_buf *operator&() { return &b; }
};

std::string take(char *s)
{
	std::string out = s ? s : "<null>";
	free(s);
	return out;
}

std::string compact(blob_attr *a, bool list = true) { return take(blobmsg_format_json(a, list)); }
std::string pretty(blob_attr *a, int indent, bool list = true) { return take(blobmsg_format_json_indent(a, list, indent)); }

std::string reformat(const char *json)
{
	Buf b;
	if (!blobmsg_add_json_from_string(&b, json))
		return "<rejected>";
	return compact(b.b.head);
}

TEST(UboxJson, TypeMapping)
{
	Buf b;
	ASSERT_TRUE(blobmsg_add_json_from_string(&b,
		"{\"s\":\"x\",\"t\":true,\"f\":false,\"i\":-5,\"big\":4294967296,"
		"\"huge\":99999999999999999999,\"d\":1.0,\"e\":1e3,\"n\":null,\"o\":{\"k\":1},\"a\":[1,\"x\"],"
		"\"min\":-2147483648,\"over\":2147483648}"));
	struct Want {
		const char *name;
		int type;
	};
	const Want want[] = {{"s", BLOBMSG_TYPE_STRING}, {"t", BLOBMSG_TYPE_INT8}, {"f", BLOBMSG_TYPE_INT8},
			     {"i", BLOBMSG_TYPE_INT32}, {"big", BLOBMSG_TYPE_INT64}, {"huge", BLOBMSG_TYPE_INT64},
			     {"d", BLOBMSG_TYPE_DOUBLE}, {"e", BLOBMSG_TYPE_DOUBLE}, {"n", BLOBMSG_TYPE_UNSPEC},
			     {"o", BLOBMSG_TYPE_TABLE}, {"a", BLOBMSG_TYPE_ARRAY}, {"min", BLOBMSG_TYPE_INT32},
			     {"over", BLOBMSG_TYPE_INT64}};
	blob_attr *cur;
	size_t rem;
	size_t i = 0;
	blobmsg_for_each_attr(cur, b.b.head, rem) {
		ASSERT_LT(i, std::size(want));
		EXPECT_STREQ(blobmsg_name(cur), want[i].name);
		EXPECT_EQ(blobmsg_type(cur), want[i].type) << want[i].name;
		EXPECT_TRUE(blobmsg_check_attr(cur, true)) << want[i].name;
		i++;
	}
	EXPECT_EQ(i, std::size(want)) << "members keep object order";

	blobmsg_policy p[] = {{"t", BLOBMSG_TYPE_BOOL}, {"f", BLOBMSG_TYPE_BOOL}, {"i", BLOBMSG_TYPE_INT32},
			      {"huge", BLOBMSG_TYPE_INT64}, {"e", BLOBMSG_TYPE_DOUBLE}, {"n", BLOBMSG_TYPE_UNSPEC},
			      {"a", BLOBMSG_TYPE_ARRAY}};
	blob_attr *tb[7];
	ASSERT_EQ(blobmsg_parse(p, 7, tb, blob_data(b.b.head), blob_len(b.b.head)), 0);
	EXPECT_EQ(blobmsg_get_u8(tb[0]), 1);
	EXPECT_EQ(blobmsg_get_u8(tb[1]), 0);
	EXPECT_EQ((int32_t)blobmsg_get_u32(tb[2]), -5);
	EXPECT_EQ(blobmsg_get_u64(tb[3]), 9223372036854775807ull) << "json-c clamps beyond int64";
	EXPECT_EQ(blobmsg_get_double(tb[4]), 1000.0);
	EXPECT_EQ(blobmsg_data_len(tb[5]), 0u);
	EXPECT_EQ(blobmsg_check_array(tb[6], BLOBMSG_TYPE_UNSPEC), 2);
	blob_attr *el = (blob_attr *)blobmsg_data(tb[6]);
	EXPECT_STREQ(blobmsg_name(el), "") << "array elements have empty names";
}

TEST(UboxJson, AcceptsAndRejectsLikeJsonC)
{
	struct Case {
		const char *in;
		const char *out;
	};
	const Case cases[] = {
		{"{}", "{}"},
		{"{'a':'b'}", "{\"a\":\"b\"}"},
		{"{\"a\":1,}", "{\"a\":1}"},
		{"{/* c */\"a\":1}", "{\"a\":1}"},
		{"{\"a\":1} xyz", "{\"a\":1}"},
		{"{\"a\":1}{\"b\":2}", "{\"a\":1}"},
		{"{\"a\":1,\"b\":2,\"a\":3}", "{\"a\":3,\"b\":2}"},	// last value, first position
		{"{\"s\":\"ab\\u0000cd\"}", "{\"s\":\"ab\"}"},		// NUL cuts the string
		{"[1]", "<rejected>"},
		{"1", "<rejected>"},
		{"\"s\"", "<rejected>"},
		{"", "<rejected>"},
		{"{\"a\":", "<rejected>"},
		{"{a:1}", "<rejected>"},
		{"null", "<rejected>"},
	};
	for (const auto &c : cases)
		EXPECT_EQ(reformat(c.in), c.out) << c.in;

	// a refused document adds nothing
	Buf b;
	blobmsg_add_u32(&b, "keep", 1);
	size_t before = blob_raw_len(b.b.head);
	EXPECT_FALSE(blobmsg_add_json_from_string(&b, "[1,2]"));
	EXPECT_EQ(blob_raw_len(b.b.head), before);
	EXPECT_FALSE(blobmsg_add_json_from_string(&b, nullptr));
}

TEST(UboxJson, FromFile)
{
	char dir[] = "/tmp/ubox-json-XXXXXX";
	ASSERT_NE(mkdtemp(dir), nullptr);
	std::string path = std::string(dir) + "/in.json";
	std::ofstream(path) << "{\"a\": [true, {\"b\": -1}]}\n";
	Buf b;
	EXPECT_TRUE(blobmsg_add_json_from_file(&b, path.c_str()));
	EXPECT_EQ(compact(b.b.head), "{\"a\":[true,{\"b\":-1}]}");
	EXPECT_FALSE(blobmsg_add_json_from_file(&b, (std::string(dir) + "/missing.json").c_str()));
	unlink(path.c_str());
	rmdir(dir);
}

TEST(UboxJson, ScalarPrinting)
{
	Buf b;
	blobmsg_add_u8(&b, "b5", 5);
	blobmsg_add_u8(&b, "b0", 0);
	blobmsg_add_u16(&b, "s", 65535);
	blobmsg_add_u32(&b, "i", 0xffffffff);
	blobmsg_add_u64(&b, "l", 0x8000000000000000ull);
	blobmsg_add_double(&b, "d1", 1.5);
	blobmsg_add_double(&b, "d2", 1000);
	blobmsg_add_double(&b, "d3", -0.0);
	blobmsg_add_double(&b, "d4", NAN);
	blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "n", "raw", 3);
	blobmsg_add_string(&b, "e", "\b\n\t\r\"\\\f\x01\x1f/\x7f\xc3\xa9");
	EXPECT_EQ(compact(b.b.head),
		  "{\"b5\":true,\"b0\":false,\"s\":-1,\"i\":-1,\"l\":-9223372036854775808,"
		  "\"d1\":1.500000,\"d2\":1000.000000,\"d3\":-0.000000,\"d4\":nan,\"n\":null,"
		  "\"e\":\"\\b\\n\\t\\r\\\"\\\\\\u000c\\u0001\\u001f/\x7f\xc3\xa9\"}");
}

TEST(UboxJson, LargeDoublesPrintInFull)
{
	Buf b;
	blobmsg_add_double(&b, "d", 1e300);
	std::string out = compact(b.b.head);
	// 301 integer digits and six decimals, never cut short
	ASSERT_EQ(out.size(), std::string("{\"d\":").size() + 301 + 7 + 1) << out;
	EXPECT_EQ(out.substr(out.size() - 8), ".000000}");
	EXPECT_EQ(out.substr(0, 6), "{\"d\":1");
}

TEST(UboxJson, ListAndElementForms)
{
	Buf b;
	blobmsg_add_u32(&b, "", 7);
	blobmsg_add_u32(&b, "k", 8);
	void *a = blobmsg_open_array(&b, "arr");
	blobmsg_add_string(&b, "ignored", "v");
	blobmsg_close_array(&b, a);
	// an empty name inside a table prints its value without a key
	EXPECT_EQ(compact(b.b.head), "{7,\"k\":8,\"arr\":[\"v\"]}");

	blob_attr *cur;
	size_t rem;
	std::vector<blob_attr *> v;
	blobmsg_for_each_attr(cur, b.b.head, rem) v.push_back(cur);
	ASSERT_EQ(v.size(), 3u);
	EXPECT_EQ(compact(v[1], false), "\"k\":8") << "a member on its own";
	EXPECT_EQ(compact(v[0], false), "7");
	EXPECT_EQ(compact(v[2], true), "[\"v\"]") << "the children of an array";
	EXPECT_EQ(compact(v[2], false), "\"arr\":[\"v\"]");
	EXPECT_EQ(take(blobmsg_format_json_value(v[2])), "[\"v\"]") << "value only, never the name";
	EXPECT_EQ(take(blobmsg_format_json_value(v[1])), "8");

	// a non-extended id-0 attribute alone is null; as a list it is an object
	Buf e;
	EXPECT_EQ(compact(e.b.head, false), "null");
	EXPECT_EQ(compact(e.b.head, true), "{}");
}

TEST(UboxJson, PrettyPrinting)
{
	Buf e;
	EXPECT_EQ(pretty(e.b.head, 0), "{\n\t\n}") << "the empty form at level 0";
	EXPECT_EQ(pretty(e.b.head, 1), "{\n\t\t\n\t}") << "the empty form at level 1";

	Buf b;
	ASSERT_TRUE(blobmsg_add_json_from_string(&b, "{\"a\":1,\"b\":[1,{}],\"c\":\"x\"}"));
	EXPECT_EQ(pretty(b.b.head, 0),
		  "{\n"
		  "\t\"a\": 1,\n"
		  "\t\"b\": [\n"
		  "\t\t1,\n"
		  "\t\t{\n"
		  "\t\t\t\n"
		  "\t\t}\n"
		  "\t],\n"
		  "\t\"c\": \"x\"\n"
		  "}");

	// nesting deeper than 16 levels never writes more than 16 tabs
	Buf d;
	std::string json = "{\"x\":";
	for (int i = 0; i < 20; i++)
		json += "[";
	json += "1";
	for (int i = 0; i < 20; i++)
		json += "]";
	json += "}";
	ASSERT_TRUE(blobmsg_add_json_from_string(&d, json.c_str()));
	std::string out = pretty(d.b.head, 0);
	size_t longest = 0, run = 0;
	for (char c : out) {
		run = c == '\t' ? run + 1 : 0;
		longest = std::max(longest, run);
	}
	EXPECT_EQ(longest, 16u);
	EXPECT_EQ(compact(d.b.head), json) << "the compact form has no limit";
}

TEST(UboxJson, RoundTripAndCallback)
{
	const char *doc = "{\"name\":\"gw\",\"ports\":[80,443],\"on\":true,\"ratio\":0.250000,"
			  "\"nested\":{\"deep\":{\"list\":[[],{},null,\"s\"]}},\"neg\":-42,\"big\":-4294967296}";
	EXPECT_EQ(reformat(doc), doc);

	// the callback sees every element, containers included, and can replace its value
	Buf b;
	ASSERT_TRUE(blobmsg_add_json_from_string(&b, "{\"a\":1,\"t\":{\"b\":2},\"s\":\"x\"}"));
	int calls = 0;
	auto cb = [](void *priv, blob_attr *attr) -> const char * {
		++*(int *)priv;
		if (blobmsg_type(attr) == BLOBMSG_TYPE_INT32 && blobmsg_get_u32(attr) == 2)
			return "\"two\"";
		if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING)
			return "0";
		return nullptr;
	};
	EXPECT_EQ(take(blobmsg_format_json_with_cb(b.b.head, true, cb, &calls, -1)),
		  "{\"a\":1,\"t\":{\"b\":\"two\"},\"s\":0}");
	EXPECT_EQ(calls, 4);
}

TEST(UboxJson, InvalidElementsAreLeftOut)
{
	Buf b;
	blobmsg_add_u32(&b, "a", 1);
	// INT32 "k" with a two-byte value
	const uint8_t bad[] = {0x85, 0, 0, 0x0a, 0, 1, 'k', 0, 0, 1, 0, 0};
	blob_put_raw(&b, bad, 10);
	blobmsg_add_u32(&b, "b", 2);
	std::string out = compact(b.b.head);
	EXPECT_NE(out.find("\"a\":1"), std::string::npos) << out;
	EXPECT_NE(out.find("\"b\":2"), std::string::npos) << out;
	EXPECT_EQ(out.find("\"k\""), std::string::npos) << out;

	// a non-extended INT16 with no value passes the attribute check but cannot be printed
	Buf n;
	const uint8_t empty16[] = {0x06, 0, 0, 4};
	blob_put_raw(&n, empty16, 4);
	std::vector<uint8_t> exact((uint8_t *)n.b.head, (uint8_t *)n.b.head + blob_raw_len(n.b.head));
	std::unique_ptr<uint8_t[]> heap(new uint8_t[exact.size()]);
	memcpy(heap.get(), exact.data(), exact.size());
	EXPECT_EQ(compact((blob_attr *)heap.get()), "{}");
}

} // namespace
