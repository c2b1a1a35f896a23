/* JSON to blobmsg through json-c, and blobmsg back to JSON text. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include <json.h>

#include "libubox/blobmsg_json.h"

bool
blobmsg_add_object(struct blob_buf *b, json_object *obj)
{
	if (json_object_get_type(obj) != json_type_object)
		return false;

	json_object_object_foreach(obj, key, val) {
		if (!blobmsg_add_json_element(b, key, val))
			return false;
	}
	return true;
}

static bool
blobmsg_add_array(struct blob_buf *b, struct array_list *a)
{
	size_t i, len = array_list_length(a);

	for (i = 0; i < len; i++) {
		if (!blobmsg_add_json_element(b, NULL, (json_object *)array_list_get_idx(a, i)))
			return false;
	}
	return true;
}

bool
blobmsg_add_json_element(struct blob_buf *b, const char *name, json_object *obj)
{
	bool ret = true;
	void *c;

	switch (json_object_get_type(obj)) {
	case json_type_object:
		c = blobmsg_open_table(b, name);
		if (!c)
			return false;
		ret = blobmsg_add_object(b, obj);
		blobmsg_close_table(b, c);
		break;
	case json_type_array:
		c = blobmsg_open_array(b, name);
		if (!c)
			return false;
		ret = blobmsg_add_array(b, json_object_get_array(obj));
		blobmsg_close_array(b, c);
		break;
	case json_type_string:
		ret = !blobmsg_add_string(b, name, json_object_get_string(obj));
		break;
	case json_type_boolean:
		ret = !blobmsg_add_u8(b, name, json_object_get_boolean(obj) ? 1 : 0);
		break;
	case json_type_int: {
		int64_t v = json_object_get_int64(obj);

		if (v >= INT32_MIN && v <= INT32_MAX)
			ret = !blobmsg_add_u32(b, name, (uint32_t)(int32_t)v);
		else
			ret = !blobmsg_add_u64(b, name, (uint64_t)v);
		break;
	}
	case json_type_double:
		ret = !blobmsg_add_double(b, name, json_object_get_double(obj));
		break;
	case json_type_null:
		ret = !blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, NULL, 0);
		break;
	default:
		return false;
	}
	return ret;
}

static bool
blobmsg_add_json_top(struct blob_buf *b, json_object *obj)
{
	bool ret = false;

	if (!obj)
		return false;
	if (json_object_get_type(obj) == json_type_object)
		ret = blobmsg_add_object(b, obj);
	json_object_put(obj);
	return ret;
}

bool
blobmsg_add_json_from_string(struct blob_buf *b, const char *str)
{
	if (!str)
		return false;
	return blobmsg_add_json_top(b, json_tokener_parse(str));
}

bool
blobmsg_add_json_from_file(struct blob_buf *b, const char *file)
{
	if (!file)
		return false;
	return blobmsg_add_json_top(b, json_object_from_file(file));
}

/* ---- formatting ---- */

#define JSON_MAX_TABS 16

struct strbuf {
	char *buf;
	size_t len;
	size_t pos;
	bool failed;
	bool pretty;
	int level;
	blobmsg_json_format_t custom_format;
	void *priv;
};

static void
sb_add(struct strbuf *s, const char *data, size_t len)
{
	if (s->failed)
		return;
	if (s->pos + len + 1 > s->len) {
		size_t nlen = s->len ? s->len : 256;
		char *n;

		while (s->pos + len + 1 > nlen)
			nlen *= 2;
		n = (char *)realloc(s->buf, nlen);
		if (!n) {
			s->failed = true;
			return;
		}
		s->buf = n;
		s->len = nlen;
	}
	memcpy(s->buf + s->pos, data, len);
	s->pos += len;
	s->buf[s->pos] = 0;
}

static void
sb_puts(struct strbuf *s, const char *str)
{
	sb_add(s, str, strlen(str));
}

static void
sb_newline(struct strbuf *s, int level)
{
	static const char tabs[JSON_MAX_TABS] = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";

	if (!s->pretty)
		return;
	if (level > JSON_MAX_TABS)
		level = JSON_MAX_TABS;
	sb_add(s, "\n", 1);
	if (level > 0)
		sb_add(s, tabs, (size_t)level);
}

static void
sb_string(struct strbuf *s, const char *str)
{
	const unsigned char *p;

	sb_add(s, "\"", 1);
	for (p = (const unsigned char *)str; *p; p++) {
		char esc[8];
		const char *e = NULL;

		switch (*p) {
		case '\b': e = "\\b"; break;
		case '\n': e = "\\n"; break;
		case '\t': e = "\\t"; break;
		case '\r': e = "\\r"; break;
		case '"': e = "\\\""; break;
		case '\\': e = "\\\\"; break;
		default:
			if (*p < 0x20) {
				snprintf(esc, sizeof(esc), "\\u%04x", *p);
				e = esc;
			}
			break;
		}
		if (e)
			sb_puts(s, e);
		else
			sb_add(s, (const char *)p, 1);
	}
	sb_add(s, "\"", 1);
}

static void format_element(struct strbuf *s, struct blob_attr *attr, bool without_name);

/*
 * blobmsg_check_attr passes a non-extended attribute without looking at its
 * value, so the printer checks that the value really holds what its type needs.
 */
static bool
value_fits(int type, const void *data, size_t len)
{
	switch (type) {
	case BLOBMSG_TYPE_INT8:
		return len >= 1;
	case BLOBMSG_TYPE_INT16:
		return len >= 2;
	case BLOBMSG_TYPE_INT32:
		return len >= 4;
	case BLOBMSG_TYPE_INT64:
	case BLOBMSG_TYPE_DOUBLE:
		return len >= 8;
	case BLOBMSG_TYPE_STRING:
		return len >= 1 && memchr(data, 0, len) != NULL;
	default:
		return true;
	}
}

static void
format_list(struct strbuf *s, struct blob_attr *data, size_t len, bool array)
{
	struct blob_attr *pos;
	size_t rem = len;
	bool first = true;

	sb_add(s, array ? "[" : "{", 1);
	s->level++;
	sb_newline(s, s->level);
	__blob_for_each_attr(pos, data, rem) {
		if (!first) {
			sb_add(s, ",", 1);
			sb_newline(s, s->level);
		}
		first = false;
		format_element(s, pos, array);
	}
	s->level--;
	sb_newline(s, s->level);
	sb_add(s, array ? "]" : "}", 1);
}

static void
format_element(struct strbuf *s, struct blob_attr *attr, bool without_name)
{
	char num[400];	/* "%lf" of the largest double is 317 characters */
	const char *custom = NULL;
	void *data;
	size_t len;

	if (!blobmsg_check_attr(attr, false))
		return;
	data = blobmsg_data(attr);
	len = blobmsg_data_len(attr);
	if (!value_fits((int)blob_id(attr), data, len))
		return;

	if (!without_name && blob_is_extended(attr) && blobmsg_name(attr)[0]) {
		sb_string(s, blobmsg_name(attr));
		sb_puts(s, s->pretty ? ": " : ":");
	}

	if (s->custom_format)
		custom = s->custom_format(s->priv, attr);
	if (custom) {
		sb_puts(s, custom);
		return;
	}

	switch (blob_id(attr)) {
	case BLOBMSG_TYPE_UNSPEC:
		sb_puts(s, "null");
		break;
	case BLOBMSG_TYPE_INT8:
		sb_puts(s, *(uint8_t *)data ? "true" : "false");
		break;
	case BLOBMSG_TYPE_INT16:
		snprintf(num, sizeof(num), "%d", (int)(int16_t)blobmsg_get_u16(attr));
		sb_puts(s, num);
		break;
	case BLOBMSG_TYPE_INT32:
		snprintf(num, sizeof(num), "%" PRId32, (int32_t)blobmsg_get_u32(attr));
		sb_puts(s, num);
		break;
	case BLOBMSG_TYPE_INT64:
		snprintf(num, sizeof(num), "%" PRId64, (int64_t)blobmsg_get_u64(attr));
		sb_puts(s, num);
		break;
	case BLOBMSG_TYPE_DOUBLE:
		snprintf(num, sizeof(num), "%lf", blobmsg_get_double(attr));
		sb_puts(s, num);
		break;
	case BLOBMSG_TYPE_STRING:
		sb_string(s, (const char *)data);
		break;
	case BLOBMSG_TYPE_ARRAY:
		format_list(s, (struct blob_attr *)data, len, true);
		break;
	case BLOBMSG_TYPE_TABLE:
		format_list(s, (struct blob_attr *)data, len, false);
		break;
	default:
		break;
	}
}

static char *
sb_finish(struct strbuf *s)
{
	if (s->failed || !s->buf) {
		free(s->buf);
		return NULL;
	}
	return s->buf;
}

static void
sb_init(struct strbuf *s, blobmsg_json_format_t cb, void *priv, int indent)
{
	memset(s, 0, sizeof(*s));
	s->custom_format = cb;
	s->priv = priv;
	if (indent >= 0) {
		s->pretty = true;
		s->level = indent;
	}
}

char *
blobmsg_format_json_with_cb(struct blob_attr *attr, bool list, blobmsg_json_format_t cb,
			    void *priv, int indent)
{
	struct strbuf s;

	if (!attr)
		return NULL;
	sb_init(&s, cb, priv, indent);
	if (list) {
		bool array = blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY;

		format_list(&s, (struct blob_attr *)blobmsg_data(attr), blobmsg_data_len(attr), array);
	} else {
		format_element(&s, attr, false);
	}
	return sb_finish(&s);
}

char *
blobmsg_format_json_value_with_cb(struct blob_attr *attr, blobmsg_json_format_t cb,
				  void *priv, int indent)
{
	struct strbuf s;

	if (!attr)
		return NULL;
	sb_init(&s, cb, priv, indent);
	format_element(&s, attr, true);
	return sb_finish(&s);
}
