// Subscriptions, notifications, events and the monitor of the bus daemon. See ubusd_bus.h for how it is driven.
#include "ubusd_bus.h"

#include <libubox/blobmsg.h>

#include <algorithm>
#include <cstring>

namespace ubusd {

namespace {

bool pattern_matches(const std::string &pattern, const std::string &name)
{
	if (!pattern.empty() && pattern.back() == '*')
		return name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
	return pattern == name;
}

} // namespace

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
		size_t raw = get_be32(frame + kHeaderLen) & BLOB_ATTR_LEN_MASK;
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

void Bus::handle_subscribe(Client &cl, const Message &m, bool subscribe)
{
	if (!m.has(UBUS_ATTR_OBJID) || !m.has(UBUS_ATTR_TARGET)) {
		send_status(cl, m, UBUS_STATUS_INVALID_ARGUMENT);
		return;
	}
	Object *sub = object(m.u32(UBUS_ATTR_OBJID));
	Object *target = object(m.u32(UBUS_ATTR_TARGET));
	if (int32_t status = target ? ownership(cl, sub) : int32_t(UBUS_STATUS_NOT_FOUND)) {
		send_status(cl, m, status);
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
	if (int32_t status = ownership(cl, obj)) {
		send_status(cl, m, status);
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
		queue(*sub->owner, invoke_message(cl, m, sid, no_reply));
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
		if (send && f.name == "id" && f.type == BLOBMSG_TYPE_STRING)
			slot = &id;
		else if (send && f.name == "data" && f.type == BLOBMSG_TYPE_TABLE)
			slot = &data;
		else if (!send && f.name == "object" && f.type == BLOBMSG_TYPE_INT32)
			slot = &objid;
		else if (!send && f.name == "pattern" && f.type == BLOBMSG_TYPE_STRING)
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
	int32_t status = ownership(cl, object(oid));
	if (status == UBUS_STATUS_OK)
		listeners_.emplace(oid, pat);
	return status;
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
	b.put_blobmsg(BLOBMSG_TYPE_INT32, "id", w, 4);
	b.put_blobmsg(BLOBMSG_TYPE_STRING, "path", obj.path.c_str(), obj.path.size() + 1);
	std::vector<uint8_t> payload = b.finish();
	send_event(nullptr, event, payload.data() + kPrefixLen, payload.size() - kPrefixLen);
}

} // namespace ubusd
