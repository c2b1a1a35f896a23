// The bus daemon's blob codec. See ubusd_blob.h.
#include "ubusd_blob.h"

#include <libubox/blobmsg.h>

namespace ubusd {

namespace {

void append_be32(std::vector<uint8_t> &b, uint32_t v)
{
	uint8_t w[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
	b.insert(b.end(), w, w + 4);
}

} // namespace

uint32_t get_be32(const uint8_t *p)
{
	return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint16_t get_be16(const uint8_t *p)
{
	return uint16_t(p[0] << 8 | p[1]);
}

void set_be32(std::vector<uint8_t> &b, size_t at, uint32_t v)
{
	b[at] = uint8_t(v >> 24);
	b[at + 1] = uint8_t(v >> 16);
	b[at + 2] = uint8_t(v >> 8);
	b[at + 3] = uint8_t(v);
}

Builder::Builder(uint8_t type, uint16_t seq, uint32_t peer)
{
	b_.reserve(64);
	b_.push_back(0);
	b_.push_back(type);
	b_.push_back(uint8_t(seq >> 8));
	b_.push_back(uint8_t(seq));
	append_be32(b_, peer);
	append_be32(b_, 4);	// container, length fixed in finish()
}

void Builder::put(uint8_t id, const void *data, size_t len)
{
	append_be32(b_, uint32_t(id) << BLOB_ATTR_ID_SHIFT | uint32_t(4 + len));
	const uint8_t *p = static_cast<const uint8_t *>(data);
	if (len)
		b_.insert(b_.end(), p, p + len);
	b_.resize(pad4(b_.size()), 0);
}

void Builder::put_u32(uint8_t id, uint32_t v)
{
	uint8_t w[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
	put(id, w, 4);
}

size_t Builder::nest_start(uint8_t id)
{
	size_t at = b_.size();
	append_be32(b_, uint32_t(id) << BLOB_ATTR_ID_SHIFT | 4);
	return at;
}

void Builder::nest_end(size_t at)
{
	uint32_t hdr = get_be32(&b_[at]) & ~uint32_t(BLOB_ATTR_LEN_MASK);
	set_be32(b_, at, hdr | uint32_t(b_.size() - at));
}

void Builder::put_blobmsg(uint8_t type, const std::string &name, const void *value, size_t len)
{
	size_t at = b_.size();
	append_be32(b_, 0);
	b_.push_back(uint8_t(name.size() >> 8));
	b_.push_back(uint8_t(name.size()));
	b_.insert(b_.end(), name.begin(), name.end());
	b_.push_back(0);
	b_.resize(pad4(b_.size()), 0);
	const uint8_t *p = static_cast<const uint8_t *>(value);
	if (len)
		b_.insert(b_.end(), p, p + len);
	set_be32(b_, at, BLOB_ATTR_EXTENDED | uint32_t(type) << BLOB_ATTR_ID_SHIFT | uint32_t(b_.size() - at));
	b_.resize(pad4(b_.size()), 0);
}

std::vector<uint8_t> Builder::finish()
{
	set_be32(b_, kHeaderLen, uint32_t(b_.size() - kHeaderLen));
	return std::move(b_);
}

bool blobmsg_field(const uint8_t *p, size_t raw, bool need_name, BlobmsgField &f)
{
	uint32_t hdr = get_be32(p);
	if (!(hdr & BLOB_ATTR_EXTENDED) || raw < 6)
		return false;
	size_t namelen = get_be16(p + 4);
	size_t hdrlen = pad4(2 + namelen + 1);
	if (need_name && namelen == 0)
		return false;
	if (raw - 4 < hdrlen || p[4 + 2 + namelen] != 0)
		return false;
	f.type = (hdr >> BLOB_ATTR_ID_SHIFT) & 0x7f;
	f.name = std::string_view(reinterpret_cast<const char *>(p + 6), namelen);
	f.value = p + 4 + hdrlen;
	f.len = raw - 4 - hdrlen;
	switch (f.type) {
	case BLOBMSG_TYPE_INT64: return f.len == 8;
	case BLOBMSG_TYPE_INT32: return f.len == 4;
	case BLOBMSG_TYPE_INT16: return f.len == 2;
	case BLOBMSG_TYPE_INT8: return f.len == 1;
	case BLOBMSG_TYPE_DOUBLE: return f.len >= 8;
	case BLOBMSG_TYPE_STRING: return f.len >= 1 && f.value[f.len - 1] == 0;
	default: return f.type <= BLOBMSG_TYPE_LAST;
	}
}

uint32_t Message::u32(int a) const
{
	return get_be32(attr[a]);
}

size_t frame_length(const uint8_t *prefix)
{
	size_t raw = get_be32(prefix + kHeaderLen) & BLOB_ATTR_LEN_MASK;
	if (raw < 4 || pad4(raw) > UBUS_MAX_MSGLEN)
		return 0;
	return kHeaderLen + raw;
}

bool parse_message(const uint8_t *frame, size_t len, Message &m)
{
	if (len < kPrefixLen)
		return false;
	size_t total = frame_length(frame);
	if (!total || total > len)
		return false;
	m = Message();
	m.version = frame[0];
	m.type = frame[1];
	m.seq = get_be16(frame + 2);
	m.peer = get_be32(frame + 4);
	m.frame = frame;
	m.frame_len = total;
	// Attributes that fail their size check count as absent; a repeated id keeps the last one.
	for_each_child(frame + kPrefixLen, total - kPrefixLen, [&](const uint8_t *p, size_t raw) {
		unsigned id = (get_be32(p) >> 24) & 0x7f;
		const uint8_t *payload = p + 4;
		size_t plen = raw - 4;
		bool ok;
		switch (id) {
		case UBUS_ATTR_STATUS: case UBUS_ATTR_OBJID: case UBUS_ATTR_OBJTYPE: case UBUS_ATTR_TARGET:
			ok = plen == 4;
			break;
		case UBUS_ATTR_OBJPATH: case UBUS_ATTR_METHOD: case UBUS_ATTR_USER: case UBUS_ATTR_GROUP:
			ok = plen >= 1 && payload[plen - 1] == 0;
			break;
		case UBUS_ATTR_ACTIVE: case UBUS_ATTR_NO_REPLY:
			ok = plen == 1;
			break;
		default:
			ok = id < UBUS_ATTR_MAX;
		}
		if (ok) {
			m.attr[id] = payload;
			m.attr_len[id] = plen;
		}
		return true;
	});
	return true;
}

} // namespace ubusd
