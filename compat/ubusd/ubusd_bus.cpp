// Message handling of the bus daemon. See ubusd_bus.h for how it is driven.
#include "ubusd_bus.h"

#include <libubox/blobmsg.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <fcntl.h>
#include <unistd.h>

namespace ubusd {

namespace {

void close_fd(int &fd)
{
	if (fd >= 0)
		::close(fd);
	fd = -1;
}

} // namespace

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

int32_t Bus::ownership(const Client &cl, const Object *obj)
{
	if (!obj)
		return UBUS_STATUS_NOT_FOUND;
	return obj->owner == &cl ? UBUS_STATUS_OK : UBUS_STATUS_PERMISSION_DENIED;
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
	if (int32_t status = ownership(cl, obj)) {
		send_status(cl, m, status);
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
	queue(*obj->owner, invoke_message(cl, m, id, false), fd);
}

std::vector<uint8_t> Bus::invoke_message(const Client &caller, const Message &m, uint32_t objid, bool no_reply)
{
	Builder b(UBUS_MSG_INVOKE, m.seq, caller.id);
	b.put_u32(UBUS_ATTR_OBJID, objid);
	b.put_string(UBUS_ATTR_METHOD, m.str(UBUS_ATTR_METHOD));
	b.put_string(UBUS_ATTR_USER, caller.user);
	b.put_string(UBUS_ATTR_GROUP, caller.group);
	if (no_reply)
		b.put_u8(UBUS_ATTR_NO_REPLY, 1);
	if (m.has(UBUS_ATTR_DATA))
		b.put(UBUS_ATTR_DATA, m.attr[UBUS_ATTR_DATA], m.attr_len[UBUS_ATTR_DATA]);
	return b.finish();
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

} // namespace ubusd
