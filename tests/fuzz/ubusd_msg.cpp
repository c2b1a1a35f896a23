// Fuzzes the bus daemon's message handling in-process: the input is the byte stream of one client (split in two
// reads at a point the input chooses) and then, as replies, of the client owning an object. The 4-byte tokens
// "OBJ1" and "CLIB" are replaced by that object's id and by the first client's id, so calls and replies can be
// routed without the fuzzer having to guess random ids.
#include "../../compat/ubusd/ubusd_blob.cpp"
#include "../../compat/ubusd/ubusd_bus.cpp"
#include "../../compat/ubusd/ubusd_events.cpp"

#include <cstdlib>
#include <cstring>

namespace {

std::vector<uint8_t> be(uint32_t v)
{
	return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

void replace_token(std::vector<uint8_t> &buf, const char *token, uint32_t value)
{
	std::vector<uint8_t> v = be(value);
	for (size_t i = 0; i + 4 <= buf.size(); i++)
		if (!memcmp(&buf[i], token, 4))
			memcpy(&buf[i], v.data(), 4);
}

// ADD_OBJECT "demo" with one method "echo"(id:INT32, msg:STRING)
const uint8_t kAddDemo[] = {
	0x00, 0x06, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x40,
	0x02, 0x00, 0x00, 0x09, 'd', 'e', 'm', 'o', 0x00, 0x00, 0x00, 0x00,
	0x06, 0x00, 0x00, 0x30,
	0x82, 0x00, 0x00, 0x2c, 0x00, 0x04, 'e', 'c', 'h', 'o', 0x00, 0x00,
	0x85, 0x00, 0x00, 0x10, 0x00, 0x02, 'i', 'd', 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05,
	0x85, 0x00, 0x00, 0x10, 0x00, 0x03, 'm', 's', 'g', 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03,
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	ubusd::Bus bus(1);
	bus.on_output = [](ubusd::Client &cl) {
		// nobody reads in here: forget what was queued (no descriptors are ever attached)
		cl.txq.clear();
		cl.txq_bytes = 0;
	};
	ubusd::Client *owner = bus.add_client(0, 0, "root", "root");
	ubusd::Client *caller = bus.add_client(1000, 1000, "user", "users");
	if (!bus.receive(*owner, kAddDemo, sizeof(kAddDemo)))
		abort();
	uint32_t obj = owner->objects.at(0);
	uint32_t caller_id = caller->id, owner_id = owner->id;

	std::vector<uint8_t> input(data, data + size);
	replace_token(input, "OBJ1", obj);
	replace_token(input, "CLIB", caller_id);

	size_t split = size ? data[0] % (size + 1) : 0;
	if (bus.receive(*caller, input.data(), split) && bus.receive(*caller, input.data() + split, size - split)) {
		// the caller survived: the same bytes as the owner's replies
	} else {
		bus.remove_client(caller);
	}
	if (ubusd::Client *o = bus.client(owner_id)) {
		if (!bus.receive(*o, input.data(), input.size()))
			bus.remove_client(o);
	}

	// Whatever happened, the bus's tables stay consistent.
	for (uint32_t id : {owner_id, caller_id}) {
		ubusd::Client *cl = bus.client(id);
		if (!cl)
			continue;
		for (uint32_t oid : cl->objects) {
			ubusd::Object *o = bus.object(oid);
			if (!o || o->owner != cl)
				abort();
		}
	}

	ubusd::Message m;
	if (ubusd::parse_message(data, size, m) && (m.frame_len > size || m.frame_len < ubusd::kPrefixLen))
		abort();
	return 0;
}
