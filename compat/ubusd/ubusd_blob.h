// The bus daemon's blob codec: reading a received message into a view of its attributes, and building the
// messages it sends. Plain bytes in and out; the daemon links no libubox, and takes only the wire format from
// ubusmsg.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <ubus_common.h>
#include <ubusmsg.h>

namespace ubusd {

constexpr size_t kHeaderLen = sizeof(ubus_msghdr);		// version, type, seq, peer
constexpr size_t kPrefixLen = kHeaderLen + sizeof(blob_attr);	// plus the container's blob header

// A view of one received message: the header fields and the protocol attributes found in the container.
struct Message {
	uint8_t version = 0, type = 0;
	uint16_t seq = 0;
	uint32_t peer = 0;
	const uint8_t *frame = nullptr;		// the whole message as received
	size_t frame_len = 0;
	const uint8_t *attr[UBUS_ATTR_MAX] = {};	// payload of each attribute, nullptr when absent or malformed
	size_t attr_len[UBUS_ATTR_MAX] = {};
	int fd = -1;

	bool has(int a) const { return attr[a] != nullptr; }
	uint32_t u32(int a) const;
	const char *str(int a) const { return reinterpret_cast<const char *>(attr[a]); }
};

// Splits a complete message (header, container) into a Message. Returns false when the container length is
// impossible (shorter than a blob header, longer than the buffer, or above the message limit).
bool parse_message(const uint8_t *frame, size_t len, Message &out);

// Length of the whole message announced by a 12-byte prefix, or 0 when the announced container is too short or
// too long to be accepted.
size_t frame_length(const uint8_t *prefix);

uint32_t get_be32(const uint8_t *p);
uint16_t get_be16(const uint8_t *p);
void set_be32(std::vector<uint8_t> &b, size_t at, uint32_t v);

inline size_t pad4(size_t n)
{
	return (n + 3) & ~size_t(3);
}

// Builds one outgoing message: header, container, plain attributes (with blobmsg helpers for event payloads).
class Builder {
public:
	Builder(uint8_t type, uint16_t seq, uint32_t peer);

	void put(uint8_t id, const void *data, size_t len);
	void put_u32(uint8_t id, uint32_t v);
	void put_u8(uint8_t id, uint8_t v) { put(id, &v, 1); }
	void put_string(uint8_t id, const std::string &s) { put(id, s.c_str(), s.size() + 1); }

	// A nested plain attribute: start returns a cookie for end, which fixes the length.
	size_t nest_start(uint8_t id);
	void nest_end(size_t at);

	// A named blobmsg attribute (extended header, name header padded to 4).
	void put_blobmsg(uint8_t type, const std::string &name, const void *value, size_t len);

	std::vector<uint8_t> finish();

private:
	std::vector<uint8_t> b_;
};

// One blobmsg attribute found while walking a container's children.
struct BlobmsgField {
	unsigned type;
	std::string_view name;
	const uint8_t *value;
	size_t len;
};

// Checks one blobmsg attribute of raw length `raw` at p (the rules of a named, extended attribute) and
// describes it. The value must fit the type: integers exactly, strings NUL-terminated.
bool blobmsg_field(const uint8_t *p, size_t raw, bool need_name, BlobmsgField &f);

// Walks the children of a region of blob attributes, stopping at the first impossible length or when fn
// returns false.
template <class F> void for_each_child(const uint8_t *p, size_t len, F &&fn)
{
	while (len >= sizeof(blob_attr)) {
		size_t raw = get_be32(p) & BLOB_ATTR_LEN_MASK;
		if (raw < sizeof(blob_attr) || pad4(raw) > len)
			return;
		if (!fn(p, raw))
			return;
		p += pad4(raw);
		len -= pad4(raw);
	}
}

} // namespace ubusd
