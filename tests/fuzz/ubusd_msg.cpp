// The bus daemon's message handling in this process: a client's byte stream (split in two reads where its first byte
// says), then the same as replies of the client owning an object; the tokens "OBJ1" and "CLIB" become that object's
// and the caller's ids. Objects stay with their owners, and a parsed frame never claims more bytes than it has.
#include "../../compat/ubusd/ubusd_blob.cpp"
#include "../../compat/ubusd/ubusd_bus.cpp"
#include "../../compat/ubusd/ubusd_events.cpp"
#include "fuzz.h"

namespace {

// ADD_OBJECT "demo" with one method "echo"(id: INT32, msg: STRING): header, path, signature (the 72 bytes, octal)
const char kAddDemo[] = "\0\6\0\1\0\0\0\0\0\0\0\100" "\2\0\0\11demo\0\0\0\0" "\6\0\0\60\202\0\0\54\0\4echo\0\0"
			"\205\0\0\20\0\2id\0\0\0\0\0\0\0\5" "\205\0\0\20\0\3msg\0\0\0\0\0\0\3";

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
	FUZZ_CHECK(bus.receive(*owner, reinterpret_cast<const uint8_t *>(kAddDemo), sizeof kAddDemo - 1), "no object");
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
				FUZZ_CHECK(bus.object(oid) && bus.object(oid)->owner == cl, "a client holds an object of another");
	ubusd::Message m;
	FUZZ_CHECK(!ubusd::parse_message(data, size, m) || (m.frame_len <= size && m.frame_len >= ubusd::kPrefixLen),
		   "a frame claims more bytes than it has");
	return 0;
}
