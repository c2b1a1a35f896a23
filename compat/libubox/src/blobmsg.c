/* blobmsg: building, checking and parsing named, typed attributes. */
#include <stdio.h>
#include <stdlib.h>

#include "libubox/blobmsg.h"

/* the blob type each blobmsg type is checked as */
static const int blob_type[__BLOBMSG_TYPE_LAST] = {
	[BLOBMSG_TYPE_UNSPEC] = BLOB_ATTR_BINARY,
	[BLOBMSG_TYPE_ARRAY] = BLOB_ATTR_NESTED,
	[BLOBMSG_TYPE_TABLE] = BLOB_ATTR_NESTED,
	[BLOBMSG_TYPE_STRING] = BLOB_ATTR_STRING,
	[BLOBMSG_TYPE_INT64] = BLOB_ATTR_INT64,
	[BLOBMSG_TYPE_INT32] = BLOB_ATTR_INT32,
	[BLOBMSG_TYPE_INT16] = BLOB_ATTR_INT16,
	[BLOBMSG_TYPE_INT8] = BLOB_ATTR_INT8,
	[BLOBMSG_TYPE_DOUBLE] = BLOB_ATTR_DOUBLE,
};

bool
blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len)
{
	const struct blobmsg_hdr *hdr;
	size_t raw, payload, hdrlen;
	uint16_t namelen;
	unsigned int id;

	if (!attr || len < sizeof(struct blob_attr))
		return false;
	raw = blob_raw_len(attr);
	if (raw < sizeof(struct blob_attr) || raw > len)
		return false;

	if (!blob_is_extended(attr))
		return !name;

	payload = blob_len(attr);
	if (payload < sizeof(struct blobmsg_hdr))
		return false;
	hdr = (const struct blobmsg_hdr *)blob_data(attr);
	namelen = blobmsg_namelen(hdr);
	if (name && !namelen)
		return false;
	hdrlen = (size_t)blobmsg_hdrlen(namelen);
	if (hdrlen > payload)
		return false;
	if (hdr->name[namelen] != 0)
		return false;

	id = blob_id(attr);
	if (id > BLOBMSG_TYPE_LAST)
		return false;

	return blob_check_type((const char *)hdr + hdrlen, (unsigned int)(payload - hdrlen), blob_type[id]);
}

bool
blobmsg_check_attr(const struct blob_attr *attr, bool name)
{
	if (!attr)
		return false;
	return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

/* The attribute after attr among the rem bytes that start at attr (rem shrinks), or NULL (rem 0) at the end. */
static struct blob_attr *
next_within(const struct blob_attr *attr, size_t *rem)
{
	size_t pad = blob_pad_len(attr);

	if (pad >= *rem) {
		*rem = 0;
		return NULL;
	}
	*rem -= pad;
	return blob_next(attr);
}

int
blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t blob_len)
{
	const struct blob_attr *cur;
	bool name;
	size_t rem;
	int size = 0;

	if (!blobmsg_check_attr_len(attr, false, blob_len))
		return -1;

	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_TABLE:
		name = true;
		break;
	case BLOBMSG_TYPE_ARRAY:
		name = false;
		break;
	default:
		return -1;
	}

	cur = (const struct blob_attr *)blobmsg_data(attr);
	rem = blobmsg_data_len(attr);
	while (rem >= sizeof(struct blob_attr)) {
		if (!blobmsg_check_attr_len(cur, name, rem))
			return -1;
		if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(cur) != type)
			return -1;
		size++;
		cur = next_within(cur, &rem);
	}
	return size;
}

int
blobmsg_check_array(const struct blob_attr *attr, int type)
{
	if (!attr)
		return -1;
	return blobmsg_check_array_len(attr, type, blob_raw_len(attr));
}

bool
blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t blob_len)
{
	return blobmsg_check_array_len(attr, type, blob_len) >= 0;
}

bool
blobmsg_check_attr_list(const struct blob_attr *attr, int type)
{
	return blobmsg_check_array(attr, type) >= 0;
}

static bool
blobmsg_policy_type_match(int policy_type, int type)
{
	if (policy_type == BLOBMSG_TYPE_UNSPEC)
		return true;
	if (policy_type == BLOBMSG_CAST_INT64)
		return type == BLOBMSG_TYPE_INT8 || type == BLOBMSG_TYPE_INT16 ||
		       type == BLOBMSG_TYPE_INT32 || type == BLOBMSG_TYPE_INT64;
	return policy_type == type;
}

int
blobmsg_parse(const struct blobmsg_policy *policy, int policy_len,
	      struct blob_attr **tb, void *data, unsigned int len)
{
	struct blob_attr *attr = (struct blob_attr *)data;
	size_t rem = len;
	int i;

	if (policy_len > 0)
		memset(tb, 0, (size_t)policy_len * sizeof(*tb));
	if (!data || !len)
		return -EINVAL;

	while (rem >= sizeof(struct blob_attr)) {
		if (!blobmsg_check_attr_len(attr, false, rem))
			return -1;

		if (blob_is_extended(attr)) {
			const char *name = blobmsg_name(attr);
			size_t namelen = blobmsg_namelen_attr(attr);
			int type = blobmsg_type(attr);

			for (i = 0; i < policy_len; i++) {
				if (!policy[i].name)
					continue;
				if (!blobmsg_policy_type_match(policy[i].type, type))
					continue;
				if (strlen(policy[i].name) != namelen)
					continue;
				if (memcmp(policy[i].name, name, namelen) != 0)
					continue;
				if (tb[i])
					continue;
				tb[i] = attr;
			}
		}

		attr = next_within(attr, &rem);
	}
	return 0;
}

int
blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len,
		    struct blob_attr **tb, void *data, unsigned int len)
{
	struct blob_attr *attr = (struct blob_attr *)data;
	size_t rem = len;
	int i = 0;

	if (policy_len > 0)
		memset(tb, 0, (size_t)policy_len * sizeof(*tb));
	if (!data)
		return 0;

	while (rem >= sizeof(struct blob_attr) && i < policy_len) {
		if (!blobmsg_check_attr_len(attr, false, rem))
			return -1;
		if (policy[i].type == BLOBMSG_TYPE_UNSPEC || blob_id(attr) == (unsigned int)policy[i].type)
			tb[i++] = attr;

		attr = next_within(attr, &rem);
	}
	return 0;
}

/* Appends an extended attribute with the name header written and the value left to the caller. */
static struct blob_attr *
blobmsg_new(struct blob_buf *buf, int type, const char *name, int payload_len, void **data)
{
	struct blob_attr *attr;
	struct blobmsg_hdr *hdr;
	size_t namelen;
	int hdrlen;
	uint16_t be_namelen;

	if (!name)
		name = "";
	namelen = strlen(name);
	if (namelen > 0xffff || payload_len < 0)
		return NULL;
	hdrlen = blobmsg_hdrlen((unsigned int)namelen);
	attr = blob_new(buf, type, hdrlen + payload_len);
	if (!attr)
		return NULL;

	attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
	hdr = (struct blobmsg_hdr *)blob_data(attr);
	memset(hdr, 0, (size_t)hdrlen);
	be_namelen = cpu_to_be16((uint16_t)namelen);
	memcpy(&hdr->namelen, &be_namelen, sizeof(be_namelen));
	memcpy(hdr->name, name, namelen);
	if (data)
		*data = (char *)hdr + hdrlen;
	return attr;
}

int
blobmsg_add_field(struct blob_buf *buf, int type, const char *name,
		  const void *data, unsigned int len)
{
	struct blob_attr *attr;
	void *data_dest;

	if (len > BLOB_ATTR_LEN_MASK)
		return -1;
	attr = blobmsg_new(buf, type, name, (int)len, &data_dest);
	if (!attr)
		return -1;
	if (len > 0)
		memcpy(data_dest, data, len);
	return 0;
}

void *
blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array)
{
	struct blob_attr *head, *attr;
	int type = array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE;
	unsigned long offset;
	int nlen;

	if (!name)
		name = "";
	offset = (unsigned long)((char *)buf->head - (char *)buf->buf);
	attr = blobmsg_new(buf, type, name, 0, NULL);
	if (!attr)
		return NULL;
	/*
	 * The container becomes the head. Its name header is taken back out of
	 * the parent's length here and counted again when the container closes.
	 */
	head = (struct blob_attr *)((char *)buf->buf + offset);
	nlen = blobmsg_hdrlen((unsigned int)strlen(name));
	blob_set_raw_len(head, (unsigned int)(blob_raw_len(head) - (size_t)nlen));
	buf->head = attr;
	return (void *)(offset + BLOB_COOKIE);
}

/*
 * A string buffer is an attribute written just past the head's end but not
 * yet counted in the head's length, so it can grow until it is committed.
 */
static struct blob_attr *
blobmsg_pending_attr(struct blob_buf *buf)
{
	return blob_next(buf->head);
}

void *
blobmsg_alloc_string_buffer(struct blob_buf *buf, const char *name, unsigned int maxlen)
{
	struct blob_attr *attr;
	size_t head_len;
	void *data_dest;

	if (maxlen >= BLOB_ATTR_LEN_MASK)
		return NULL;
	head_len = blob_raw_len(buf->head);
	attr = blobmsg_new(buf, BLOBMSG_TYPE_STRING, name, (int)maxlen + 1, &data_dest);
	if (!attr)
		return NULL;
	blob_set_raw_len(buf->head, (unsigned int)head_len);
	return data_dest;
}

void *
blobmsg_realloc_string_buffer(struct blob_buf *buf, unsigned int maxlen)
{
	struct blob_attr *attr = blobmsg_pending_attr(buf);
	int offset = (int)((char *)attr - (char *)buf->buf);
	long required;

	if (maxlen >= BLOB_ATTR_LEN_MASK)
		return NULL;
	required = (long)offset + (long)sizeof(struct blob_attr) +
		   blobmsg_hdrlen(blobmsg_namelen_attr(attr)) + (long)maxlen + 1 + 3 - buf->buflen;
	if (required > 0) {
		if (required > BLOB_ATTR_LEN_MASK || !blob_buf_grow(buf, (int)required))
			return NULL;
		attr = blobmsg_pending_attr(buf);
	}
	return blobmsg_data(attr);
}

void
blobmsg_add_string_buffer(struct blob_buf *buf)
{
	struct blob_attr *attr = blobmsg_pending_attr(buf);
	size_t len = strlen((const char *)blobmsg_data(attr)) + 1;
	size_t hdrlen = (size_t)blobmsg_hdrlen(blobmsg_namelen_attr(attr));

	blob_set_raw_len(attr, (unsigned int)(sizeof(struct blob_attr) + hdrlen + len));
	blob_fill_pad(attr);
	blob_set_raw_len(buf->head, (unsigned int)(blob_raw_len(buf->head) + blob_pad_len(attr)));
}

int
blobmsg_vprintf(struct blob_buf *buf, const char *name, const char *format, va_list arg)
{
	va_list arg2;
	char cbuf[1];
	char *sbuf;
	int len, ret;

	va_copy(arg2, arg);
	len = vsnprintf(cbuf, sizeof(cbuf), format, arg2);
	va_end(arg2);
	if (len < 0)
		return -1;

	sbuf = (char *)blobmsg_alloc_string_buffer(buf, name, (unsigned int)len + 1);
	if (!sbuf)
		return -1;
	ret = vsnprintf(sbuf, (size_t)len + 1, format, arg);
	if (ret < 0)
		return -1;
	blobmsg_add_string_buffer(buf);
	return ret;
}

int
blobmsg_printf(struct blob_buf *buf, const char *name, const char *format, ...)
{
	va_list ap;
	int ret;

	va_start(ap, format);
	ret = blobmsg_vprintf(buf, name, format, ap);
	va_end(ap);
	return ret;
}
