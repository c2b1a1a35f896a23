// Message handling of the bus daemon. See ubusd_bus.h for how it is driven.
#include "ubusd_bus.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <fcntl.h>
#include <unistd.h>

namespace ubusd {

namespace {

uint32_t get_be32(const uint8_t *p)
{
	return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint16_t get_be16(const uint8_t *p)
{
	return uint16_t(p[0] << 8 | p[1]);
}

void append_be32(std::vector<uint8_t> &b, uint32_t v)
{
	uint8_t w[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
	b.insert(b.end(), w, w + 4);
}

void set_be32(std::vector<uint8_t> &b, size_t at, uint32_t v)
{
	b[at] = uint8_t(v >> 24);
	b[at + 1] = uint8_t(v >> 16);
	b[at + 2] = uint8_t(v >> 8);
	b[at + 3] = uint8_t(v);
}

size_t pad4(size_t n)
{
	return (n + 3) & ~size_t(3);
}

constexpr uint32_t kExtended = 0x80000000u;
constexpr uint32_t kLenMask = 0x00ffffffu;

// Builds one outgoing message: header, container, plain attributes (with blobmsg helpers for event payloads).
class Builder {
public:
	Builder(uint8_t type, uint16_t seq, uint32_t peer)
	{
		b_.reserve(64);
		b_.push_back(0);
		b_.push_back(type);
		b_.push_back(uint8_t(seq >> 8));
		b_.push_back(uint8_t(seq));
		append_be32(b_, peer);
		append_be32(b_, 4);	// container, length fixed in finish()
	}

	void put(uint8_t id, const void *data, size_t len)
	{
		append_be32(b_, uint32_t(id) << 24 | uint32_t(4 + len));
		const uint8_t *p = static_cast<const uint8_t *>(data);
		if (len)
			b_.insert(b_.end(), p, p + len);
		b_.resize(pad4(b_.size()), 0);
	}
	void put_u32(uint8_t id, uint32_t v)
	{
		uint8_t w[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
		put(id, w, 4);
	}
	void put_u8(uint8_t id, uint8_t v) { put(id, &v, 1); }
	void put_string(uint8_t id, const std::string &s) { put(id, s.c_str(), s.size() + 1); }

	size_t nest_start(uint8_t id)
	{
		size_t at = b_.size();
		append_be32(b_, uint32_t(id) << 24 | 4);
		return at;
	}
	void nest_end(size_t at)
	{
		uint32_t hdr = get_be32(&b_[at]) & ~kLenMask;
		set_be32(b_, at, hdr | uint32_t(b_.size() - at));
	}

	// A named blobmsg attribute (extended header, name header padded to 4).
	void put_blobmsg(uint8_t type, const std::string &name, const void *value, size_t len)
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
		set_be32(b_, at, kExtended | uint32_t(type) << 24 | uint32_t(b_.size() - at));
		b_.resize(pad4(b_.size()), 0);
	}

	std::vector<uint8_t> finish()
	{
		set_be32(b_, kHeaderLen, uint32_t(b_.size() - kHeaderLen));
		return std::move(b_);
	}

private:
	std::vector<uint8_t> b_;
};

enum { BLOBMSG_ARRAY = 1, BLOBMSG_TABLE = 2, BLOBMSG_STRING = 3, BLOBMSG_INT32 = 5 };

// One blobmsg attribute found while walking a container's children.
struct BlobmsgField {
	unsigned type;
	std::string_view name;
	const uint8_t *value;
	size_t len;
};

// Checks one blobmsg attribute of raw length `raw` at p (the rules of a named, extended attribute) and
// describes it. The value must fit the type: integers exactly, strings NUL-terminated.
bool blobmsg_field(const uint8_t *p, size_t raw, bool need_name, BlobmsgField &f)
{
	uint32_t hdr = get_be32(p);
	if (!(hdr & kExtended) || raw < 6)
		return false;
	size_t namelen = get_be16(p + 4);
	size_t hdrlen = pad4(2 + namelen + 1);
	if (need_name && namelen == 0)
		return false;
	if (raw - 4 < hdrlen || p[4 + 2 + namelen] != 0)
		return false;
	f.type = (hdr >> 24) & 0x7f;
	f.name = std::string_view(reinterpret_cast<const char *>(p + 6), namelen);
	f.value = p + 4 + hdrlen;
	f.len = raw - 4 - hdrlen;
	switch (f.type) {
	case 4: return f.len == 8;		// INT64
	case 5: return f.len == 4;		// INT32
	case 6: return f.len == 2;		// INT16
	case 7: return f.len == 1;		// INT8
	case 8: return f.len >= 8;		// DOUBLE
	case 3: return f.len >= 1 && f.value[f.len - 1] == 0;
	default: return f.type <= 8;
	}
}

// Walks the children of a region of blob attributes, stopping at the first impossible length.
template <class F> void for_each_child(const uint8_t *p, size_t len, F &&fn)
{
	while (len >= 4) {
		size_t raw = get_be32(p) & kLenMask;
		if (raw < 4 || pad4(raw) > len)
			return;
		if (!fn(p, raw))
			return;
		p += pad4(raw);
		len -= pad4(raw);
	}
}

bool pattern_matches(const std::string &pattern, const std::string &name)
{
	if (!pattern.empty() && pattern.back() == '*')
		return name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
	return pattern == name;
}

void close_fd(int &fd)
{
	if (fd >= 0)
		::close(fd);
	fd = -1;
}

} // namespace

uint32_t Message::u32(int a) const
{
	return get_be32(attr[a]);
}

size_t frame_length(const uint8_t *prefix)
{
	size_t raw = get_be32(prefix + kHeaderLen) & kLenMask;
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

Bus::Bus(uint64_t seed) : rng_state_(seed)
{
	if (!seed)
		urandom_ = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
	if (!rng_state_)
		rng_state_ = 0x9e3779b97f4a7c15ull ^ uint64_t(::getpid());
}

Bus::~Bus()
{
	while (!clients_.empty())
		remove_client(clients_.begin()->second.get());
	if (urandom_ >= 0)
		::close(urandom_);
}

uint32_t Bus::random_u32()
{
	uint32_t v;
	if (urandom_ >= 0 && ::read(urandom_, &v, sizeof(v)) == sizeof(v))
		return v;
	// xorshift64*: reproducible ids for a seeded bus, and a fallback when /dev/urandom is unreadable
	rng_state_ ^= rng_state_ >> 12;
	rng_state_ ^= rng_state_ << 25;
	rng_state_ ^= rng_state_ >> 27;
	return uint32_t((rng_state_ * 0x2545f4914f6cdd1dull) >> 32);
}

template <class Map> uint32_t Bus::new_id(const Map &taken)
{
	for (;;) {
		uint32_t id = random_u32();
		if (id >= UBUS_SYSTEM_OBJECT_MAX && !taken.count(id))
			return id;
	}
}

Client *Bus::client(uint32_t id)
{
	auto it = clients_.find(id);
	return it == clients_.end() ? nullptr : it->second.get();
}

Object *Bus::object(uint32_t id)
{
	auto it = objects_.find(id);
	return it == objects_.end() ? nullptr : it->second.get();
}

Client *Bus::add_client(uint32_t uid, uint32_t gid, std::string user, std::string group, int sock)
{
	auto cl = std::make_unique<Client>();
	cl->id = new_id(clients_);
	cl->uid = uid;
	cl->gid = gid;
	cl->user = std::move(user);
	cl->group = std::move(group);
	cl->sock = sock;
	Client *c = cl.get();
	clients_.emplace(c->id, std::move(cl));
	queue(*c, Builder(UBUS_MSG_HELLO, 0, c->id).finish());
	return c;
}

void Bus::remove_client(Client *cl)
{
	std::vector<uint32_t> owned = cl->objects;
	for (uint32_t id : owned)
		if (Object *obj = object(id))
			delete_object(obj, nullptr);
	for (Frame &f : cl->txq)
		close_fd(f.fd);
	close_fd(cl->rx_fd);
	clients_.erase(cl->id);
}

void Bus::queue(Client &cl, std::vector<uint8_t> bytes, int fd)
{
	if (!cl.txq.empty() && cl.txq_bytes + bytes.size() > kMaxTxQueue) {
		// A client that does not read loses what does not fit; the bus itself carries on.
		int dropped = fd;
		close_fd(dropped);
		return;
	}
	monitor(cl, true, bytes.data(), bytes.size());
	cl.txq_bytes += bytes.size();
	cl.txq.push_back(Frame{std::move(bytes), fd});
	if (on_output)
		on_output(cl);
}

void Bus::send_status(Client &cl, const Message &req, int32_t status)
{
	Builder b(UBUS_MSG_STATUS, req.seq, req.peer);
	b.put_u32(UBUS_ATTR_STATUS, uint32_t(status));
	queue(cl, b.finish());
}

void Bus::monitor(Client &cl, bool send, const uint8_t *frame, size_t len)
{
	if (frame[1] == UBUS_MSG_MONITOR)
		return;
	for (auto &[id, mon] : clients_) {
		if (!mon->monitor)
			continue;
		Builder b(UBUS_MSG_MONITOR, 0, 0);
		b.put_u32(UBUS_MONITOR_CLIENT, cl.id);
		b.put_u32(UBUS_MONITOR_PEER, get_be32(frame + 4));
		b.put_u8(UBUS_MONITOR_SEND, send);
		b.put_u32(UBUS_MONITOR_SEQ, get_be16(frame + 2));
		b.put_u32(UBUS_MONITOR_TYPE, frame[1]);
		size_t raw = get_be32(frame + kHeaderLen) & kLenMask;
		size_t body = std::min(len, kHeaderLen + raw);
		b.put(UBUS_MONITOR_DATA, frame + kPrefixLen, body > kPrefixLen ? body - kPrefixLen : 0);
		std::vector<uint8_t> bytes = b.finish();
		if (!mon->txq.empty() && mon->txq_bytes + bytes.size() > kMaxTxQueue)
			continue;
		mon->txq_bytes += bytes.size();
		mon->txq.push_back(Frame{std::move(bytes), -1});
		if (on_output)
			on_output(*mon);
	}
}

bool Bus::receive(Client &cl, const uint8_t *data, size_t len, int fd)
{
	if (fd >= 0) {
		close_fd(cl.rx_fd);
		cl.rx_fd = fd;
	}
	uint32_t id = cl.id;
	auto still_here = [&] { return clients_.count(id) != 0; };
	while (len > 0) {
		if (cl.rx.empty() && len >= kPrefixLen) {
			// Whole messages straight from the read buffer, without a copy.
			size_t total = frame_length(data);
			if (!total)
				return false;
			if (total <= len) {
				Message m;
				parse_message(data, total, m);
				m.fd = cl.rx_fd;
				cl.rx_fd = -1;
				dispatch(cl, m);
				if (!still_here())
					return true;
				data += total;
				len -= total;
				continue;
			}
		}
		// Gather the 12-byte prefix, then the rest of the container it announces.
		size_t want = cl.rx.size() < kPrefixLen ? kPrefixLen : frame_length(cl.rx.data());
		size_t take = std::min(len, want - cl.rx.size());
		cl.rx.insert(cl.rx.end(), data, data + take);
		data += take;
		len -= take;
		if (cl.rx.size() < kPrefixLen)
			continue;
		size_t total = frame_length(cl.rx.data());
		if (!total)
			return false;
		if (cl.rx.size() == total) {
			std::vector<uint8_t> whole;
			whole.swap(cl.rx);
			Message m;
			parse_message(whole.data(), whole.size(), m);
			m.fd = cl.rx_fd;
			cl.rx_fd = -1;
			dispatch(cl, m);
			if (!still_here())
				return true;
		}
	}
	return true;
}

void Bus::dispatch(Client &cl, const Message &m)
{
	monitor(cl, false, m.frame, m.frame_len);
	// Only calls and their final status may carry a descriptor; any other one is closed.
	int stray = (m.type == UBUS_MSG_INVOKE || m.type == UBUS_MSG_STATUS) ? -1 : m.fd;
	close_fd(stray);

	switch (m.type) {
	case UBUS_MSG_PING: {
		std::vector<uint8_t> echo(m.frame, m.frame + m.frame_len);
		echo[1] = UBUS_MSG_DATA;
		queue(cl, std::move(echo));
		send_status(cl, m, UBUS_STATUS_OK);
		break;
	}
	case UBUS_MSG_LOOKUP:
		handle_lookup(cl, m);
		break;
	case UBUS_MSG_ADD_OBJECT:
		handle_add_object(cl, m);
		break;
	case UBUS_MSG_REMOVE_OBJECT:
		handle_remove_object(cl, m);
		break;
	case UBUS_MSG_INVOKE:
		handle_invoke(cl, m);
		break;
	case UBUS_MSG_STATUS:
	case UBUS_MSG_DATA:
		handle_reply(cl, m);
		break;
	case UBUS_MSG_SUBSCRIBE:
		handle_subscribe(cl, m, true);
		break;
	case UBUS_MSG_UNSUBSCRIBE:
		handle_subscribe(cl, m, false);
		break;
	case UBUS_MSG_NOTIFY:
		handle_notify(cl, m);
		break;
	default:	// HELLO and MONITOR are never sent by clients; anything else is unknown
		send_status(cl, m, UBUS_STATUS_INVALID_COMMAND);
		break;
	}
}

void Bus::handle_lookup(Client &cl, const Message &m)
{
	std::string pattern;
	bool all = !m.has(UBUS_ATTR_OBJPATH);
	if (!all) {
		pattern = m.str(UBUS_ATTR_OBJPATH);
		if (pattern.empty()) {
			send_status(cl, m, UBUS_STATUS_INVALID_ARGUMENT);
			return;
		}
	}
	bool prefix = !all && pattern.back() == '*';
	if (prefix)
		pattern.pop_back();

	auto begin = all ? paths_.begin() : paths_.lower_bound(pattern);
	bool found = false;
	for (auto it = begin; it != paths_.end(); ++it) {
		if (!all) {
			if (prefix ? it->first.compare(0, pattern.size(), pattern) != 0 : it->first != pattern)
				break;
		}
		found = true;
		const Object &obj = *it->second;
		if (!obj.type)
			continue;
		Builder b(UBUS_MSG_DATA, m.seq, m.peer);
		b.put_string(UBUS_ATTR_OBJPATH, obj.path);
		b.put_u32(UBUS_ATTR_OBJID, obj.id);
		b.put_u32(UBUS_ATTR_OBJTYPE, obj.type->id);
		b.put(UBUS_ATTR_SIGNATURE, obj.type->signature.data(), obj.type->signature.size());
		queue(cl, b.finish());
	}
	send_status(cl, m, found ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
}

void Bus::handle_add_object(Client &cl, const Message &m)
{
	Type *type = nullptr;
	bool new_type = false;
	if (m.has(UBUS_ATTR_OBJTYPE)) {
		auto it = types_.find(m.u32(UBUS_ATTR_OBJTYPE));
		if (it != types_.end())
			type = it->second.get();	// an unknown type id leaves the object without a type
	} else if (m.has(UBUS_ATTR_SIGNATURE)) {
		// Every method must be a named blobmsg attribute; otherwise the object gets no type.
		bool valid = true;
		for_each_child(m.attr[UBUS_ATTR_SIGNATURE], m.attr_len[UBUS_ATTR_SIGNATURE], [&](const uint8_t *p, size_t raw) {
			BlobmsgField f;
			if (!blobmsg_field(p, raw, true, f))
				valid = false;
			return valid;
		});
		if (valid) {
			auto t = std::make_unique<Type>();
			t->id = new_id(types_);
			t->signature.assign(m.attr[UBUS_ATTR_SIGNATURE], m.attr[UBUS_ATTR_SIGNATURE] + m.attr_len[UBUS_ATTR_SIGNATURE]);
			type = t.get();
			types_.emplace(t->id, std::move(t));
			new_type = true;
		}
	}

	std::string path = m.has(UBUS_ATTR_OBJPATH) ? m.str(UBUS_ATTR_OBJPATH) : "";
	if (!path.empty() && paths_.count(path)) {
		if (new_type)
			types_.erase(type->id);
		send_status(cl, m, UBUS_STATUS_INVALID_ARGUMENT);
		return;
	}

	auto obj = std::make_unique<Object>();
	obj->id = new_id(objects_);
	obj->owner = &cl;
	obj->path = path;
	obj->type = type;
	if (type)
		type->refs++;
	Object *o = obj.get();
	objects_.emplace(o->id, std::move(obj));
	cl.objects.push_back(o->id);
	if (!path.empty())
		paths_.emplace(path, o);

	Builder b(UBUS_MSG_DATA, m.seq, m.peer);
	b.put_u32(UBUS_ATTR_OBJID, o->id);
	if (m.has(UBUS_ATTR_SIGNATURE) && !m.has(UBUS_ATTR_OBJTYPE) && type)
		b.put_u32(UBUS_ATTR_OBJTYPE, type->id);
	queue(cl, b.finish());
	send_status(cl, m, UBUS_STATUS_OK);
	if (!path.empty())
		object_event("ubus.object.add", *o);
}

void Bus::handle_remove_object(Client &cl, const Message &m)
{
	if (!m.has(UBUS_ATTR_OBJID)) {
		send_status(cl, m, UBUS_STATUS_INVALID_ARGUMENT);
		return;
	}
	Object *obj = object(m.u32(UBUS_ATTR_OBJID));
	if (!obj) {
		send_status(cl, m, UBUS_STATUS_NOT_FOUND);
		return;
	}
	if (obj->owner != &cl) {
		send_status(cl, m, UBUS_STATUS_PERMISSION_DENIED);
		return;
	}
	uint32_t id = obj->id;
	std::vector<uint8_t> removed_type;
	delete_object(obj, &removed_type);
	Builder b(UBUS_MSG_DATA, m.seq, m.peer);
	b.put_u32(UBUS_ATTR_OBJID, id);
	if (!removed_type.empty())
		b.put(UBUS_ATTR_OBJTYPE, removed_type.data(), removed_type.size());
	queue(cl, b.finish());
	send_status(cl, m, UBUS_STATUS_OK);
}

void Bus::delete_object(Object *obj, std::vector<uint8_t> *removed_type)
{
	uint32_t id = obj->id;
	if (!obj->path.empty())
		object_event("ubus.object.remove", *obj);

	// Subscribers of this object learn that it went away; its own subscriptions end.
	std::vector<uint32_t> subs = obj->subscribers;
	for (uint32_t sid : subs) {
		Object *sub = object(sid);
		if (!sub)
			continue;
		Builder b(UBUS_MSG_UNSUBSCRIBE, ++event_seq_, 0);
		b.put_u32(UBUS_ATTR_OBJID, sid);
		b.put_u32(UBUS_ATTR_TARGET, id);
		sub->targets.erase(std::remove(sub->targets.begin(), sub->targets.end(), id), sub->targets.end());
		queue(*sub->owner, b.finish());
	}
	obj->subscribers.clear();
	std::vector<uint32_t> targets = obj->targets;
	for (uint32_t tid : targets)
		if (Object *t = object(tid))
			unsubscribe(obj, t);

	listeners_.erase(id);
	if (!obj->path.empty())
		paths_.erase(obj->path);
	if (obj->type && --obj->type->refs == 0) {
		if (removed_type) {
			uint32_t tid = obj->type->id;
			uint8_t w[4] = {uint8_t(tid >> 24), uint8_t(tid >> 16), uint8_t(tid >> 8), uint8_t(tid)};
			removed_type->assign(w, w + 4);
		}
		types_.erase(obj->type->id);
	}
	auto &owned = obj->owner->objects;
	owned.erase(std::remove(owned.begin(), owned.end(), id), owned.end());
	objects_.erase(id);
}

void Bus::handle_invoke(Client &cl, const Message &m)
{
	int fd = m.fd;
	if (!m.has(UBUS_ATTR_METHOD) || !m.has(UBUS_ATTR_OBJID)) {
		close_fd(fd);
		send_status(cl, m, UBUS_STATUS_INVALID_ARGUMENT);
		return;
	}
	uint32_t id = m.u32(UBUS_ATTR_OBJID);
	if (id == UBUS_SYSTEM_OBJECT_EVENT || id == UBUS_SYSTEM_OBJECT_ACL || id == UBUS_SYSTEM_OBJECT_MONITOR) {
		close_fd(fd);
		int32_t status;
		if (id == UBUS_SYSTEM_OBJECT_EVENT)
			status = handle_event_call(cl, m);
		else if (id == UBUS_SYSTEM_OBJECT_MONITOR)
			status = handle_monitor_call(cl, m);
		else	// access lists are not kept: every client is allowed, and there is nothing to report
			status = !strcmp(m.str(UBUS_ATTR_METHOD), "query") ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_COMMAND;
		send_status(cl, m, status);
		return;
	}
	Object *obj = object(id);
	if (!obj) {
		close_fd(fd);
		send_status(cl, m, UBUS_STATUS_NOT_FOUND);
		return;
	}
	Builder b(UBUS_MSG_INVOKE, m.seq, cl.id);
	b.put_u32(UBUS_ATTR_OBJID, id);
	b.put_string(UBUS_ATTR_METHOD, m.str(UBUS_ATTR_METHOD));
	b.put_string(UBUS_ATTR_USER, cl.user);
	b.put_string(UBUS_ATTR_GROUP, cl.group);
	if (m.has(UBUS_ATTR_DATA))
		b.put(UBUS_ATTR_DATA, m.attr[UBUS_ATTR_DATA], m.attr_len[UBUS_ATTR_DATA]);
	queue(*obj->owner, b.finish(), fd);
}

void Bus::handle_reply(Client &cl, const Message &m)
{
	int fd = m.fd;
	int needed = m.type == UBUS_MSG_DATA ? UBUS_ATTR_DATA : UBUS_ATTR_STATUS;
	Object *obj = m.has(UBUS_ATTR_OBJID) ? object(m.u32(UBUS_ATTR_OBJID)) : nullptr;
	Client *dest = client(m.peer);
	if (!m.has(needed) || !obj || obj->owner != &cl || !dest) {
		close_fd(fd);	// replies that cannot be routed are dropped silently
		return;
	}
	std::vector<uint8_t> fwd(m.frame, m.frame + m.frame_len);
	set_be32(fwd, 4, obj->id);
	queue(*dest, std::move(fwd), fd);
}

void Bus::handle_subscribe(Client &cl, const Message &m, bool subscribe)
{
	if (!m.has(UBUS_ATTR_OBJID) || !m.has(UBUS_ATTR_TARGET)) {
		send_status(cl, m, UBUS_STATUS_INVALID_ARGUMENT);
		return;
	}
	Object *sub = object(m.u32(UBUS_ATTR_OBJID));
	Object *target = object(m.u32(UBUS_ATTR_TARGET));
	if (!sub || !target) {
		send_status(cl, m, UBUS_STATUS_NOT_FOUND);
		return;
	}
	if (sub->owner != &cl) {
		send_status(cl, m, UBUS_STATUS_PERMISSION_DENIED);
		return;
	}
	bool already = std::find(sub->targets.begin(), sub->targets.end(), target->id) != sub->targets.end();
	if (subscribe && !already) {
		sub->targets.push_back(target->id);
		target->subscribers.push_back(sub->id);
		if (target->subscribers.size() == 1)
			notify_active(target, true);
	} else if (!subscribe && already) {
		unsubscribe(sub, target);
	}
	send_status(cl, m, UBUS_STATUS_OK);
}

void Bus::unsubscribe(Object *sub, Object *target)
{
	sub->targets.erase(std::remove(sub->targets.begin(), sub->targets.end(), target->id), sub->targets.end());
	auto &s = target->subscribers;
	size_t before = s.size();
	s.erase(std::remove(s.begin(), s.end(), sub->id), s.end());
	if (before && s.empty())
		notify_active(target, false);
}

void Bus::notify_active(Object *target, bool active)
{
	Builder b(UBUS_MSG_NOTIFY, ++event_seq_, 0);
	b.put_u32(UBUS_ATTR_OBJID, target->id);
	b.put_u8(UBUS_ATTR_ACTIVE, active);
	queue(*target->owner, b.finish());
}

void Bus::handle_notify(Client &cl, const Message &m)
{
	Object *obj = m.has(UBUS_ATTR_OBJID) ? object(m.u32(UBUS_ATTR_OBJID)) : nullptr;
	if (!m.has(UBUS_ATTR_METHOD) || !m.has(UBUS_ATTR_OBJID)) {
		send_status(cl, m, UBUS_STATUS_INVALID_ARGUMENT);
		return;
	}
	if (!obj) {
		send_status(cl, m, UBUS_STATUS_NOT_FOUND);
		return;
	}
	if (obj->owner != &cl) {
		send_status(cl, m, UBUS_STATUS_PERMISSION_DENIED);
		return;
	}
	bool no_reply = m.has(UBUS_ATTR_NO_REPLY) && m.attr[UBUS_ATTR_NO_REPLY][0];
	if (!no_reply) {
		Builder b(UBUS_MSG_STATUS, m.seq, m.peer);
		b.put_u32(UBUS_ATTR_OBJID, obj->id);
		size_t nest = b.nest_start(UBUS_ATTR_SUBSCRIBERS);
		for (uint32_t sid : obj->subscribers)
			b.put_u32(UBUS_ATTR_UNSPEC, sid);
		b.nest_end(nest);
		b.put_u32(UBUS_ATTR_STATUS, UBUS_STATUS_OK);
		queue(cl, b.finish());
	}
	for (uint32_t sid : obj->subscribers) {
		Object *sub = object(sid);
		if (!sub)
			continue;
		Builder b(UBUS_MSG_INVOKE, m.seq, cl.id);
		b.put_u32(UBUS_ATTR_OBJID, sid);
		b.put_string(UBUS_ATTR_METHOD, m.str(UBUS_ATTR_METHOD));
		b.put_string(UBUS_ATTR_USER, cl.user);
		b.put_string(UBUS_ATTR_GROUP, cl.group);
		if (no_reply)
			b.put_u8(UBUS_ATTR_NO_REPLY, 1);
		if (m.has(UBUS_ATTR_DATA))
			b.put(UBUS_ATTR_DATA, m.attr[UBUS_ATTR_DATA], m.attr_len[UBUS_ATTR_DATA]);
		queue(*sub->owner, b.finish());
	}
}

int32_t Bus::handle_event_call(Client &cl, const Message &m)
{
	const char *method = m.str(UBUS_ATTR_METHOD);
	bool send = !strcmp(method, "send");
	if (!send && strcmp(method, "register"))
		return UBUS_STATUS_INVALID_COMMAND;
	if (!m.has(UBUS_ATTR_DATA))
		return UBUS_STATUS_INVALID_ARGUMENT;

	// The arguments are blobmsg members: {"id", "data"} to send, {"object", "pattern"} to register.
	const BlobmsgField *id = nullptr, *data = nullptr, *objid = nullptr, *pattern = nullptr;
	BlobmsgField fields[4];
	int n = 0;
	for_each_child(m.attr[UBUS_ATTR_DATA], m.attr_len[UBUS_ATTR_DATA], [&](const uint8_t *p, size_t raw) {
		BlobmsgField f;
		if (!blobmsg_field(p, raw, false, f))
			return false;
		const BlobmsgField **slot = nullptr;
		if (send && f.name == "id" && f.type == BLOBMSG_STRING)
			slot = &id;
		else if (send && f.name == "data" && f.type == BLOBMSG_TABLE)
			slot = &data;
		else if (!send && f.name == "object" && f.type == BLOBMSG_INT32)
			slot = &objid;
		else if (!send && f.name == "pattern" && f.type == BLOBMSG_STRING)
			slot = &pattern;
		if (slot && !*slot) {
			fields[n] = f;
			*slot = &fields[n++];
		}
		return n < 4;
	});

	if (send) {
		if (!id || !data)
			return UBUS_STATUS_INVALID_ARGUMENT;
		std::string name(reinterpret_cast<const char *>(id->value));
		if (name.compare(0, 5, "ubus.") == 0)
			return UBUS_STATUS_PERMISSION_DENIED;
		send_event(&cl, name, data->value, data->len);
		return UBUS_STATUS_OK;
	}
	if (!objid || !pattern)
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t oid = get_be32(objid->value);
	std::string pat(reinterpret_cast<const char *>(pattern->value));
	if (oid < UBUS_SYSTEM_OBJECT_MAX || pat.empty())
		return UBUS_STATUS_PERMISSION_DENIED;
	Object *obj = object(oid);
	if (!obj)
		return UBUS_STATUS_NOT_FOUND;
	if (obj->owner != &cl)
		return UBUS_STATUS_PERMISSION_DENIED;
	listeners_.emplace(oid, pat);
	return UBUS_STATUS_OK;
}

int32_t Bus::handle_monitor_call(Client &cl, const Message &m)
{
	const char *method = m.str(UBUS_ATTR_METHOD);
	bool add = !strcmp(method, "add");
	if (!add && strcmp(method, "remove"))
		return UBUS_STATUS_METHOD_NOT_FOUND;
	if (cl.uid != 0 || cl.gid != 0)
		return UBUS_STATUS_PERMISSION_DENIED;
	cl.monitor = add;
	return UBUS_STATUS_OK;
}

void Bus::send_event(Client *from, const std::string &id, const uint8_t *data, size_t len)
{
	uint32_t last = 0;
	for (auto &[oid, pattern] : listeners_) {
		if (oid == last || !pattern_matches(pattern, id))
			continue;	// one copy per listener object, however many of its patterns match
		Object *obj = object(oid);
		if (!obj || obj->owner == from)
			continue;	// a sender never hears its own events
		last = oid;
		Builder b(UBUS_MSG_INVOKE, ++event_seq_, 0);
		b.put_u32(UBUS_ATTR_OBJID, oid);
		b.put_string(UBUS_ATTR_METHOD, id);
		b.put(UBUS_ATTR_DATA, data, len);
		queue(*obj->owner, b.finish());
	}
}

void Bus::object_event(const char *event, const Object &obj)
{
	// {"id": <object id>, "path": <path>} as blobmsg members
	Builder b(UBUS_MSG_DATA, 0, 0);
	uint8_t w[4] = {uint8_t(obj.id >> 24), uint8_t(obj.id >> 16), uint8_t(obj.id >> 8), uint8_t(obj.id)};
	b.put_blobmsg(BLOBMSG_INT32, "id", w, 4);
	b.put_blobmsg(BLOBMSG_STRING, "path", obj.path.c_str(), obj.path.size() + 1);
	std::vector<uint8_t> payload = b.finish();
	send_event(nullptr, event, payload.data() + kPrefixLen, payload.size() - kPrefixLen);
}

} // namespace ubusd
