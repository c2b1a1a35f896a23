// The bus daemon's message handling in this process: the input is a client's byte stream (split in two reads at a
// point its first byte chooses), then the replies of the client that owns an object. The 4-byte tokens "OBJ1" and
// "CLIB" become that object's id and the first client's id, so calls and replies reach someone. Whatever happens,
// every object a client holds belongs to it, and a parsed frame never claims more bytes than it has.
#include "../../compat/ubusd/ubusd_blob.cpp"
#include "../../compat/ubusd/ubusd_bus.cpp"
#include "../../compat/ubusd/ubusd_events.cpp"

#include <cstdlib>
#include <cstring>

namespace {

// ADD_OBJECT "demo" with one method "echo"(id: INT32, msg: STRING)
const uint8_t kAddDemo[] = {
	0x00, 0x06, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x40, 0x02, 0x00, 0x00, 0x09, 'd', 'e',
	'm', 'o', 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x30, 0x82, 0x00, 0x00, 0x2c, 0x00, 0x04, 'e', 'c',
	'h', 'o', 0x00, 0x00, 0x85, 0x00, 0x00, 0x10, 0x00, 0x02, 'i', 'd', 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
	0x00, 0x05, 0x85, 0x00, 0x00, 0x10, 0x00, 0x03, 'm', 's', 'g', 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03,
};

void replace(std::vector<uint8_t> &buf, const char *token, uint32_t id)
{
	const uint8_t be[4] = {uint8_t(id >> 24), uint8_t(id >> 16), uint8_t(id >> 8), uint8_t(id)};
	for (size_t i = 0; i + 4 <= buf.size(); i++)
		if (!memcmp(&buf[i], token, 4))
			memcpy(&buf[i], be, 4);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	ubusd::Bus bus(1);
	bus.on_output = [](ubusd::Client &cl) { cl.txq.clear(), cl.txq_bytes = 0; };  // nobody reads in here
	ubusd::Client *owner = bus.add_client(0, 0, "root", "root");
	ubusd::Client *caller = bus.add_client(1000, 1000, "user", "users");
	if (!bus.receive(*owner, kAddDemo, sizeof kAddDemo))
		abort();
	const uint32_t callerId = caller->id, ownerId = owner->id;
	std::vector<uint8_t> input(data, data + size);
	replace(input, "OBJ1", owner->objects.at(0));
	replace(input, "CLIB", callerId);

	const size_t split = size ? data[0] % (size + 1) : 0;
	if (!bus.receive(*caller, input.data(), split) || !bus.receive(*caller, input.data() + split, size - split))
		bus.remove_client(caller);
	if (ubusd::Client *o = bus.client(ownerId); o && !bus.receive(*o, input.data(), input.size()))
		bus.remove_client(o);

	for (uint32_t id : {ownerId, callerId})
		if (ubusd::Client *cl = bus.client(id))
			for (uint32_t oid : cl->objects)
				if (ubusd::Object *o = bus.object(oid); !o || o->owner != cl)
					abort();
	ubusd::Message m;
	if (ubusd::parse_message(data, size, m) && (m.frame_len > size || m.frame_len < ubusd::kPrefixLen))
		abort();
	return 0;
}
