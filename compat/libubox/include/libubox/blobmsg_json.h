/*
 * JSON <-> blobmsg. Objects become tables, arrays arrays, strings strings,
 * booleans INT8, integers INT32 (INT64 outside the 32-bit range), other
 * numbers DOUBLE and null an empty UNSPEC. Printing is compact or indented
 * with tabs.
 */
#ifndef LIBUBOX_BLOBMSG_JSON_H
#define LIBUBOX_BLOBMSG_JSON_H

#include <stdbool.h>
#include "blobmsg.h"

#ifdef __cplusplus
extern "C" {
#endif

struct json_object;

bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj);
bool blobmsg_add_json_element(struct blob_buf *b, const char *name, struct json_object *obj);
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str);
bool blobmsg_add_json_from_file(struct blob_buf *b, const char *file);

/* returns a replacement text for attr's value, or NULL to print it normally */
typedef const char *(*blobmsg_json_format_t)(void *priv, struct blob_attr *attr);

char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list,
				  blobmsg_json_format_t cb, void *priv, int indent);

static inline char *
blobmsg_format_json(struct blob_attr *attr, bool list)
{
	return blobmsg_format_json_with_cb(attr, list, NULL, NULL, -1);
}

static inline char *
blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent)
{
	return blobmsg_format_json_with_cb(attr, list, NULL, NULL, indent);
}

char *blobmsg_format_json_value_with_cb(struct blob_attr *attr,
					blobmsg_json_format_t cb, void *priv, int indent);

static inline char *
blobmsg_format_json_value(struct blob_attr *attr)
{
	return blobmsg_format_json_value_with_cb(attr, NULL, NULL, -1);
}

static inline char *
blobmsg_format_json_value_indent(struct blob_attr *attr, int indent)
{
	return blobmsg_format_json_value_with_cb(attr, NULL, NULL, indent);
}

#ifdef __cplusplus
}
#endif

#endif
