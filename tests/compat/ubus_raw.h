// Speaking the bus protocol by hand in tests: building messages from attributes, reading them back, and a
// client (or, from an accepted socket, a daemon) that sends and receives raw frames.
#pragma once

#include "ubus_harness.h"

#include <algorithm>
#include <cctype>
#include <poll.h>

namespace ubus_test {

using Bytes = std::vector<uint8_t>;

inline Bytes hex(const std::string &s)
{
	Bytes b;
	std::string digits;
	for (char c : s)
		if (isxdigit(static_cast<unsigned char>(c)))
			digits += c;
	for (size_t i = 0; i + 1 < digits.size(); i += 2)
		b.push_back(uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
	return b;
}

inline std::string to_hex(const Bytes &b)
{
	std::string s;
	char buf[3];
	for (uint8_t c : b) {
		snprintf(buf, sizeof(buf), "%02x", c);
		s += buf;
	}
	return s;
}

inline uint32_t be32(const uint8_t *p)
{
	return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

inline void put32(Bytes &b, uint32_t v)
{
	for (int s = 24; s >= 0; s -= 8)
		b.push_back(uint8_t(v >> s));
}

// A message from its header fields and plain attributes (id, payload).
inline Bytes message(uint8_t type, uint16_t seq, uint32_t peer, const std::vector<std::pair<uint8_t, Bytes>> &attrs)
{
	Bytes body;
	for (const auto &[id, data] : attrs) {
		put32(body, uint32_t(id) << 24 | uint32_t(4 + data.size()));
		body.insert(body.end(), data.begin(), data.end());
		body.resize((body.size() + 3) & ~size_t(3), 0);
	}
	Bytes m = {0, type, uint8_t(seq >> 8), uint8_t(seq)};
	put32(m, peer);
	put32(m, uint32_t(4 + body.size()));
	m.insert(m.end(), body.begin(), body.end());
	return m;
}

inline Bytes u32(uint32_t v)
{
	Bytes b;
	put32(b, v);
	return b;
}

inline Bytes str(const std::string &s)
{
	Bytes b(s.begin(), s.end());
	b.push_back(0);
	return b;
}

struct Msg {
	uint8_t type = 0xff;
	uint16_t seq = 0;
	uint32_t peer = 0;
	Bytes bytes;	// the whole message
	// Payload of the first attribute with this id (empty when absent).
	Bytes attr(uint8_t id) const
	{
		size_t end = std::min(bytes.size(), size_t(8 + (be32(&bytes[8]) & 0xffffff)));
		for (size_t p = 12; p + 4 <= end;) {
			uint32_t h = be32(&bytes[p]);
			size_t raw = h & 0xffffff;
			if (raw < 4 || p + raw > end)
				break;
			if (((h >> 24) & 0x7f) == id)
				return Bytes(bytes.begin() + long(p + 4), bytes.begin() + long(p + raw));
			p += (raw + 3) & ~size_t(3);
		}
		return {};
	}
	uint32_t attr32(uint8_t id) const
	{
		Bytes a = attr(id);
		return a.size() == 4 ? be32(a.data()) : 0xdeadbeef;
	}
};

// A client speaking the protocol by hand.
class Raw {
public:
	explicit Raw(const std::string &path) : fd(connect_unix(path)) {}
	explicit Raw(int sock) : fd(sock) {}
	~Raw()
	{
		if (fd >= 0)
			close(fd);
	}

	bool send(const Bytes &b) { return ::send(fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size()); }

	// Next message, or type 0xff when none came within timeout_ms (or the daemon closed the socket).
	Msg recv(int timeout_ms = 2000)
	{
		Msg m;
		if (!read_n(12, m.bytes, timeout_ms))
			return Msg();
		size_t raw = be32(&m.bytes[8]) & 0xffffff;
		if (raw > 4 && !read_n(raw - 4, m.bytes, timeout_ms))
			return Msg();
		m.type = m.bytes[1];
		m.seq = uint16_t(m.bytes[2] << 8 | m.bytes[3]);
		m.peer = be32(&m.bytes[4]);
		return m;
	}

	uint32_t hello()
	{
		Msg m = recv();
		EXPECT_EQ(m.type, UBUS_MSG_HELLO);
		return m.peer;
	}

	// True when the daemon closed the connection (end of file within timeout_ms).
	bool closed(int timeout_ms = 2000)
	{
		pollfd p{fd, POLLIN, 0};
		while (poll(&p, 1, timeout_ms) > 0) {
			char c[256];
			ssize_t n = ::recv(fd, c, sizeof(c), 0);
			if (n <= 0)
				return true;
		}
		return false;
	}

	int fd;

private:
	bool read_n(size_t n, Bytes &out, int timeout_ms)
	{
		while (n > 0) {
			pollfd p{fd, POLLIN, 0};
			if (poll(&p, 1, timeout_ms) <= 0)
				return false;
			uint8_t buf[65536];
			ssize_t got = ::recv(fd, buf, std::min(n, sizeof(buf)), 0);
			if (got <= 0)
				return false;
			out.insert(out.end(), buf, buf + got);
			n -= size_t(got);
		}
		return true;
	}
};

// The signature of one method "echo" with arguments id:INT32 and msg:STRING, as clients send it.
inline const char *const kEchoSignature = "8200002c 0004 6563686f 0000 "
					  "85000010 0002 6964 00 000000 00000005 "
					  "85000010 0003 6d7367 00 0000 00000003";

} // namespace ubus_test
