/* Building, checking and parsing blob attributes. */
#include <stdlib.h>

#include "libubox/blob.h"

static bool
blob_buffer_grow(struct blob_buf *buf, int minlen)
{
	int delta = ((minlen / 256) + 1) * 256;
	void *n = realloc(buf->buf, (size_t)buf->buflen + (size_t)delta);

	if (!n)
		return false;
	buf->buf = n;
	memset((char *)buf->buf + buf->buflen, 0, (size_t)delta);
	buf->buflen += delta;
	return true;
}

static void
blob_init(struct blob_attr *attr, int id, unsigned int len)
{
	len &= BLOB_ATTR_LEN_MASK;
	len |= ((unsigned int)id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;
	attr->id_len = cpu_to_be32(len);
}

static inline struct blob_attr *
offset_to_attr(struct blob_buf *buf, int offset)
{
	return (struct blob_attr *)((char *)buf->buf + offset);
}

static inline int
attr_to_offset(struct blob_buf *buf, struct blob_attr *attr)
{
	return (int)((char *)attr - (char *)buf->buf);
}

bool
blob_buf_grow(struct blob_buf *buf, int required)
{
	int offset_head = attr_to_offset(buf, buf->head);

	if (required <= 0)
		return true;
	if ((long)buf->buflen + required > BLOB_ATTR_LEN_MASK)
		return false;
	if (!buf->grow || !buf->grow(buf, required))
		return false;
	buf->head = offset_to_attr(buf, offset_head);
	return true;
}

/* Places a header for an attribute of payload bytes at pos, growing the buffer as needed. */
static struct blob_attr *
blob_add(struct blob_buf *buf, struct blob_attr *pos, int id, int payload)
{
	int offset = attr_to_offset(buf, pos);
	long total = (long)offset + (long)((sizeof(struct blob_attr) + (size_t)payload + 3) & ~(size_t)3);
	long required = total - buf->buflen;
	struct blob_attr *attr;

	if (payload < 0 || total > BLOB_ATTR_LEN_MASK)
		return NULL;
	if (required > 0) {
		if (!blob_buf_grow(buf, (int)required))
			return NULL;
	}
	attr = offset_to_attr(buf, offset);
	blob_init(attr, id, (unsigned int)(payload + sizeof(struct blob_attr)));
	blob_fill_pad(attr);
	return attr;
}

int
blob_buf_init(struct blob_buf *buf, int id)
{
	if (!buf->grow)
		buf->grow = blob_buffer_grow;

	buf->head = (struct blob_attr *)buf->buf;
	if (blob_add(buf, (struct blob_attr *)buf->buf, id, 0) == NULL)
		return -ENOMEM;
	return 0;
}

void
blob_buf_free(struct blob_buf *buf)
{
	free(buf->buf);
	buf->buf = NULL;
	buf->head = NULL;
	buf->buflen = 0;
}

void
blob_fill_pad(struct blob_attr *attr)
{
	char *buf = (char *)attr;
	size_t len = blob_pad_len(attr);
	size_t delta = len - blob_raw_len(attr);

	if (delta > 0)
		memset(buf + len - delta, 0, delta);
}

void
blob_set_raw_len(struct blob_attr *attr, unsigned int len)
{
	len &= BLOB_ATTR_LEN_MASK;
	attr->id_len &= ~cpu_to_be32(BLOB_ATTR_LEN_MASK);
	attr->id_len |= cpu_to_be32(len);
}

struct blob_attr *
blob_new(struct blob_buf *buf, int id, int payload)
{
	struct blob_attr *attr;

	attr = blob_add(buf, blob_next(buf->head), id, payload);
	if (!attr)
		return NULL;
	blob_set_raw_len(buf->head, (unsigned int)(blob_pad_len(buf->head) + blob_pad_len(attr)));
	return attr;
}

struct blob_attr *
blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len)
{
	struct blob_attr *attr;

	if (len < sizeof(struct blob_attr) || !ptr)
		return NULL;
	attr = blob_new(buf, 0, (int)(len - sizeof(struct blob_attr)));
	if (!attr)
		return NULL;
	memcpy(attr, ptr, len);
	return attr;
}

struct blob_attr *
blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len)
{
	struct blob_attr *attr;

	attr = blob_new(buf, id, (int)len);
	if (!attr)
		return NULL;
	if (ptr && len)
		memcpy(blob_data(attr), ptr, len);
	return attr;
}

void *
blob_nest_start(struct blob_buf *buf, int id)
{
	unsigned long offset = (unsigned long)attr_to_offset(buf, buf->head);

	buf->head = blob_new(buf, id, 0);
	if (!buf->head) {
		buf->head = offset_to_attr(buf, (int)offset);
		return NULL;
	}
	return (void *)(offset + BLOB_COOKIE);
}

void
blob_nest_end(struct blob_buf *buf, void *cookie)
{
	struct blob_attr *attr = offset_to_attr(buf, (int)((unsigned long)cookie - BLOB_COOKIE));

	blob_set_raw_len(attr, (unsigned int)(blob_pad_len(attr) + blob_len(buf->head)));
	buf->head = attr;
}

static const size_t blob_type_minlen[BLOB_ATTR_LAST] = {
	[BLOB_ATTR_STRING] = 1,
	[BLOB_ATTR_INT8] = sizeof(uint8_t),
	[BLOB_ATTR_INT16] = sizeof(uint16_t),
	[BLOB_ATTR_INT32] = sizeof(uint32_t),
	[BLOB_ATTR_INT64] = sizeof(uint64_t),
	[BLOB_ATTR_DOUBLE] = sizeof(double),
};

bool
blob_check_type(const void *ptr, unsigned int len, int type)
{
	const char *data = (const char *)ptr;

	if (type < 0 || type >= BLOB_ATTR_LAST)
		return false;

	if (type >= BLOB_ATTR_INT8 && type <= BLOB_ATTR_INT64) {
		if (len != blob_type_minlen[type])
			return false;
	} else {
		if (len < blob_type_minlen[type])
			return false;
	}

	if (type == BLOB_ATTR_STRING && data[len - 1] != 0)
		return false;

	return true;
}

static bool
blob_check_info(const struct blob_attr_info *info, struct blob_attr *attr)
{
	size_t len = blob_raw_len(attr);

	if (!blob_check_type(blob_data(attr), (unsigned int)blob_len(attr), (int)info->type))
		return false;
	if (info->minlen && len < info->minlen)
		return false;
	if (info->maxlen && len > info->maxlen)
		return false;
	if (info->validate && !info->validate(info, attr))
		return false;
	return true;
}

static int
blob_parse_region(struct blob_attr *attr, size_t rem, struct blob_attr **data,
		  const struct blob_attr_info *info, int max)
{
	struct blob_attr *pos;
	int found = 0;

	__blob_for_each_attr(pos, blob_data(attr), rem) {
		int id = (int)blob_id(pos);

		/* shorter than its own header: nothing after it can be trusted */
		if (blob_raw_len(pos) < sizeof(struct blob_attr))
			break;
		if (id >= max)
			continue;
		if (info && !blob_check_info(&info[id], pos))
			continue;
		if (!data[id])
			found++;
		data[id] = pos;
	}
	return found;
}

int
blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max)
{
	if (max > 0)
		memset(data, 0, sizeof(struct blob_attr *) * (size_t)max);
	if (!attr || blob_raw_len(attr) < sizeof(struct blob_attr))
		return 0;
	return blob_parse_region(attr, blob_len(attr), data, info, max);
}

int
blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
		     const struct blob_attr_info *info, int max)
{
	size_t len;

	if (max > 0)
		memset(data, 0, sizeof(struct blob_attr *) * (size_t)max);
	if (!attr || attr_len < sizeof(struct blob_attr))
		return 0;
	len = blob_raw_len(attr);
	if (len < sizeof(struct blob_attr) || len > attr_len)
		return 0;
	return blob_parse_region(attr, len - sizeof(struct blob_attr), data, info, max);
}

struct blob_attr *
blob_memdup(struct blob_attr *attr)
{
	size_t size = blob_pad_len(attr);
	struct blob_attr *ret = (struct blob_attr *)malloc(size);

	if (!ret)
		return NULL;
	memcpy(ret, attr, size);
	return ret;
}

bool
blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2)
{
	if (!a1 && !a2)
		return true;
	if (!a1 || !a2)
		return false;
	if (blob_pad_len(a1) != blob_pad_len(a2))
		return false;
	return !memcmp(a1, a2, blob_pad_len(a1));
}
