// The bus daemon on the wire: byte-exact messages from raw unix sockets, call routing with the peer rewrite,
// malformed and oversized frames (the sender is answered or dropped; everyone else keeps being served), and the
// program's own behaviour (socket mode, options, taking over a socket path).
#include "bus.h"

#include <sys/stat.h>

using namespace bus;

namespace {

class UbusDaemon : public BusTest {
protected:
	// Registers "demo" from a raw client; returns the object id.
	uint32_t add_demo(Raw &owner)
	{
		owner.send(message(UBUS_MSG_ADD_OBJECT, 1, 0, {{UBUS_ATTR_OBJPATH, str("demo")},
								{UBUS_ATTR_SIGNATURE, hex(kEchoSignature)}}));
		Msg data = owner.recv();
		EXPECT_EQ(data.type, UBUS_MSG_DATA);
		Msg st = owner.recv();
		EXPECT_EQ(to_hex(st.bytes), "00010001000000000000000c0100000800000000");
		return data.attr32(UBUS_ATTR_OBJID);
	}

	// The daemon still serves: a PING comes back as DATA, then STATUS 0.
	void expect_alive()
	{
		Raw probe(sock);
		probe.hello();
		ASSERT_TRUE(probe.send(message(UBUS_MSG_PING, 9, 0, {})));
		Msg echo = probe.recv();
		EXPECT_EQ(echo.type, UBUS_MSG_DATA);
		EXPECT_EQ(echo.seq, 9);
		EXPECT_EQ(probe.recv().type, UBUS_MSG_STATUS);
	}
};

TEST_F(UbusDaemon, HelloSocketModeAndIds)
{
	struct stat st;
	ASSERT_EQ(stat(sock.c_str(), &st), 0);
	EXPECT_TRUE(S_ISSOCK(st.st_mode));
	EXPECT_EQ(st.st_mode & 0777, 0666u);

	Raw a(sock), b(sock);
	Msg ha = a.recv(), hb = b.recv();
	EXPECT_EQ(ha.bytes.size(), 12u);
	EXPECT_EQ(to_hex(ha.bytes).substr(0, 8), "00000000");
	EXPECT_EQ(to_hex(ha.bytes).substr(16), "00000004");
	EXPECT_GE(ha.peer, 1024u);
	EXPECT_NE(ha.peer, hb.peer);
}

TEST_F(UbusDaemon, RegistrationAndLookupOnTheWire)
{
	Raw owner(sock);
	owner.hello();
	uint32_t id = add_demo(owner);
	EXPECT_GE(id, 1024u);

	// The worked LOOKUP bytes; the reply carries path, id, type and the signature as registered.
	Raw c(sock);
	c.hello();
	c.send(hex("00 04 0001 00000000 | 00000010 | 02000009 64656d6f 00000000"));
	Msg d = c.recv();
	ASSERT_EQ(d.type, UBUS_MSG_DATA);
	EXPECT_EQ(d.seq, 1);
	EXPECT_EQ(d.attr(UBUS_ATTR_OBJPATH), str("demo"));
	EXPECT_EQ(d.attr32(UBUS_ATTR_OBJID), id);
	EXPECT_EQ(to_hex(d.attr(UBUS_ATTR_SIGNATURE)), to_hex(hex(kEchoSignature)));
	uint32_t type = d.attr32(UBUS_ATTR_OBJTYPE);
	EXPECT_EQ(to_hex(c.recv().bytes), "00010001000000000000000c0100000800000000");

	// Same type again by id: the reply has only the object id.
	owner.send(message(UBUS_MSG_ADD_OBJECT, 2, 0, {{UBUS_ATTR_OBJPATH, str("demo2")}, {UBUS_ATTR_OBJTYPE, u32(type)}}));
	Msg again = owner.recv();
	EXPECT_TRUE(again.attr(UBUS_ATTR_OBJTYPE).empty());
	EXPECT_EQ(owner.recv().attr32(UBUS_ATTR_STATUS), 0u);

	// A duplicate path: INVALID_ARGUMENT. A bad signature or an unknown type: registered, but never listed.
	owner.send(message(UBUS_MSG_ADD_OBJECT, 3, 0, {{UBUS_ATTR_OBJPATH, str("demo")}, {UBUS_ATTR_OBJTYPE, u32(type)}}));
	EXPECT_EQ(owner.recv().attr32(UBUS_ATTR_STATUS), 2u);
	owner.send(message(UBUS_MSG_ADD_OBJECT, 4, 0, {{UBUS_ATTR_OBJPATH, str("typeless")},
						       {UBUS_ATTR_SIGNATURE, hex("8500000c 0000 0000 00000005")}}));
	EXPECT_EQ(owner.recv().type, UBUS_MSG_DATA);
	EXPECT_EQ(owner.recv().attr32(UBUS_ATTR_STATUS), 0u);
	owner.send(message(UBUS_MSG_ADD_OBJECT, 5, 0, {{UBUS_ATTR_OBJPATH, str("typeless2")}, {UBUS_ATTR_OBJTYPE, u32(7)}}));
	EXPECT_EQ(owner.recv().type, UBUS_MSG_DATA);
	EXPECT_EQ(owner.recv().attr32(UBUS_ATTR_STATUS), 0u);
	c.send(message(UBUS_MSG_LOOKUP, 2, 0, {{UBUS_ATTR_OBJPATH, str("typeless")}}));
	Msg none = c.recv();
	EXPECT_EQ(none.type, UBUS_MSG_STATUS);
	EXPECT_EQ(none.attr32(UBUS_ATTR_STATUS), 0u);
	c.send(message(UBUS_MSG_LOOKUP, 3, 0, {}));
	std::vector<std::string> listed;
	for (Msg m = c.recv(); m.type == UBUS_MSG_DATA; m = c.recv())
		listed.push_back(std::string(reinterpret_cast<const char *>(m.attr(UBUS_ATTR_OBJPATH).data())));
	EXPECT_EQ(listed, (std::vector<std::string>{"demo", "demo2"}));

	// Removal by someone else is refused; by the owner it reports the id (and the type once unused).
	c.send(message(UBUS_MSG_REMOVE_OBJECT, 4, 0, {{UBUS_ATTR_OBJID, u32(id)}}));
	EXPECT_EQ(c.recv().attr32(UBUS_ATTR_STATUS), unsigned(UBUS_STATUS_PERMISSION_DENIED));
	owner.send(message(UBUS_MSG_REMOVE_OBJECT, 6, 0, {{UBUS_ATTR_OBJID, u32(id)}}));
	Msg removed = owner.recv();
	EXPECT_EQ(removed.attr32(UBUS_ATTR_OBJID), id);
	EXPECT_TRUE(removed.attr(UBUS_ATTR_OBJTYPE).empty());	// demo2 still has the type
	EXPECT_EQ(owner.recv().attr32(UBUS_ATTR_STATUS), 0u);
	owner.send(message(UBUS_MSG_REMOVE_OBJECT, 7, 0, {{UBUS_ATTR_OBJID, u32(id)}}));
	EXPECT_EQ(owner.recv().attr32(UBUS_ATTR_STATUS), unsigned(UBUS_STATUS_NOT_FOUND));
}

TEST_F(UbusDaemon, InvokeIsRoutedToTheOwnerAndRepliesComeBackUnderTheObjectId)
{
	Raw owner(sock), caller(sock), other(sock);
	owner.hello();
	uint32_t caller_id = caller.hello();
	other.hello();
	uint32_t obj = add_demo(owner);

	// The worked INVOKE bytes with the real object id: echo {"id":1}, seq 2.
	Bytes invoke = hex("00 05 0002 aabbccdd | 0000002c | 03000008 aabbccdd | 04000009 6563686f 00000000 | "
			   "07000014 85000010 00026964 00000000 00000001");
	for (size_t at : {4u, 16u})
		for (int i = 0; i < 4; i++)
			invoke[at + size_t(i)] = uint8_t(obj >> (24 - 8 * i));
	ASSERT_TRUE(caller.send(invoke));

	Msg in = owner.recv();
	ASSERT_EQ(in.type, UBUS_MSG_INVOKE);
	EXPECT_EQ(in.seq, 2);
	EXPECT_EQ(in.peer, caller_id);
	EXPECT_EQ(in.attr32(UBUS_ATTR_OBJID), obj);
	EXPECT_EQ(in.attr(UBUS_ATTR_METHOD), str("echo"));
	EXPECT_EQ(in.attr(UBUS_ATTR_USER), str("root"));
	EXPECT_EQ(in.attr(UBUS_ATTR_GROUP), str("root"));
	EXPECT_EQ(to_hex(in.attr(UBUS_ATTR_DATA)), "85000010000269640000000000000001");

	// A reply from someone who does not own the object is dropped; so is one for an unknown client.
	Bytes payload = hex("85000010 00026964 00000000 00000009");
	other.send(message(UBUS_MSG_DATA, 2, caller_id, {{UBUS_ATTR_OBJID, u32(obj)}, {UBUS_ATTR_DATA, payload}}));
	owner.send(message(UBUS_MSG_DATA, 2, 12345, {{UBUS_ATTR_OBJID, u32(obj)}, {UBUS_ATTR_DATA, payload}}));
	owner.send(message(UBUS_MSG_DATA, 2, caller_id, {{UBUS_ATTR_OBJID, u32(obj)}}));	// no DATA
	// The owner's reply reaches the caller byte for byte, with peer rewritten to the object id.
	Bytes reply = message(UBUS_MSG_DATA, 2, caller_id, {{UBUS_ATTR_OBJID, u32(obj)}, {UBUS_ATTR_DATA, payload}});
	owner.send(reply);
	Bytes status = message(UBUS_MSG_STATUS, 2, caller_id, {{UBUS_ATTR_STATUS, u32(uint32_t(-1))}, {UBUS_ATTR_OBJID, u32(obj)}});
	owner.send(status);

	Msg got = caller.recv();
	Bytes expect = reply;
	for (int i = 0; i < 4; i++)
		expect[4 + size_t(i)] = uint8_t(obj >> (24 - 8 * i));
	EXPECT_EQ(to_hex(got.bytes), to_hex(expect));
	Msg st = caller.recv();
	EXPECT_EQ(st.type, UBUS_MSG_STATUS);
	EXPECT_EQ(st.peer, obj);
	EXPECT_EQ(st.attr32(UBUS_ATTR_STATUS), 0xffffffffu);	// negative statuses travel unchanged
	EXPECT_EQ(caller.recv(200).type, 0xff);			// and nothing else came
}

TEST_F(UbusDaemon, BadRequestsGetAStatusAndChangeNothingElse)
{
	Raw c(sock);
	c.hello();
	struct Case {
		Bytes msg;
		uint32_t status;
	} cases[] = {
		{message(99, 5, 7, {}), UBUS_STATUS_INVALID_COMMAND},
		{message(UBUS_MSG_HELLO, 6, 0, {}), UBUS_STATUS_INVALID_COMMAND},
		{message(UBUS_MSG_MONITOR, 7, 0, {}), UBUS_STATUS_INVALID_COMMAND},
		{message(UBUS_MSG_INVOKE, 8, 0, {{UBUS_ATTR_OBJID, u32(5000)}}), UBUS_STATUS_INVALID_ARGUMENT},
		// a wrongly sized OBJID counts as absent
		{message(UBUS_MSG_INVOKE, 9, 0, {{UBUS_ATTR_OBJID, Bytes{1, 2}}, {UBUS_ATTR_METHOD, str("x")}}),
		 UBUS_STATUS_INVALID_ARGUMENT},
		{message(UBUS_MSG_INVOKE, 10, 5000, {{UBUS_ATTR_OBJID, u32(5000)}, {UBUS_ATTR_METHOD, str("x")}}),
		 UBUS_STATUS_NOT_FOUND},
		{message(UBUS_MSG_LOOKUP, 11, 0, {{UBUS_ATTR_OBJPATH, str("")}}), UBUS_STATUS_INVALID_ARGUMENT},
		{message(UBUS_MSG_LOOKUP, 12, 0, {{UBUS_ATTR_OBJPATH, str("nothing")}}), UBUS_STATUS_NOT_FOUND},
		{message(UBUS_MSG_REMOVE_OBJECT, 13, 0, {}), UBUS_STATUS_INVALID_ARGUMENT},
		{message(UBUS_MSG_INVOKE, 14, 1, {{UBUS_ATTR_OBJID, u32(1)}, {UBUS_ATTR_METHOD, str("nope")}}),
		 UBUS_STATUS_INVALID_COMMAND},
		{message(UBUS_MSG_INVOKE, 15, 3, {{UBUS_ATTR_OBJID, u32(3)}, {UBUS_ATTR_METHOD, str("nope")}}),
		 UBUS_STATUS_METHOD_NOT_FOUND},
		{message(UBUS_MSG_SUBSCRIBE, 16, 0, {{UBUS_ATTR_OBJID, u32(5000)}}), UBUS_STATUS_INVALID_ARGUMENT},
	};
	for (const Case &k : cases) {
		ASSERT_TRUE(c.send(k.msg));
		Msg r = c.recv();
		uint16_t seq = uint16_t(k.msg[2] << 8 | k.msg[3]);
		EXPECT_EQ(r.type, UBUS_MSG_STATUS) << "seq " << seq;
		EXPECT_EQ(r.seq, seq);
		EXPECT_EQ(r.peer, be32(&k.msg[4])) << "seq " << seq;
		EXPECT_EQ(r.attr32(UBUS_ATTR_STATUS), k.status) << "seq " << seq;
	}
	// Replies nobody asked for vanish without an answer; a version byte other than 0 is not checked.
	c.send(message(UBUS_MSG_STATUS, 20, 1234, {{UBUS_ATTR_STATUS, u32(0)}, {UBUS_ATTR_OBJID, u32(4321)}}));
	Bytes ping = message(UBUS_MSG_PING, 21, 0, {});
	ping[0] = 3;
	c.send(ping);
	Msg echo = c.recv();
	EXPECT_EQ(echo.type, UBUS_MSG_DATA);
	EXPECT_EQ(echo.seq, 21);
	EXPECT_EQ(echo.bytes[0], 3);
	EXPECT_EQ(c.recv().attr32(UBUS_ATTR_STATUS), 0u);
}

TEST_F(UbusDaemon, MalformedFramesCostOnlyTheSenderItsConnection)
{
	Raw owner(sock);
	owner.hello();
	uint32_t obj = add_demo(owner);

	// container shorter than its own header, padded length above 1 MiB
	for (const char *frame : {"00 03 0001 00000000 00000003", "00 03 0001 00000000 00100001",
				  "00 03 0001 00000000 80000000"}) {
		Raw bad(sock);
		bad.hello();
		ASSERT_TRUE(bad.send(hex(frame)));
		EXPECT_TRUE(bad.closed()) << frame;
	}
	// exactly 1 MiB is accepted (a ping of that size is echoed)
	{
		Raw big(sock);
		big.hello();
		Bytes m = message(UBUS_MSG_PING, 1, 0, {{UBUS_ATTR_DATA, Bytes(1048576 - 8, 0)}});
		ASSERT_EQ(m.size(), 8u + 1048576u);
		ASSERT_TRUE(big.send(m));
		Msg echo = big.recv();
		EXPECT_EQ(echo.type, UBUS_MSG_DATA);
		EXPECT_EQ(echo.bytes.size(), m.size());
	}
	// messages dribbled in one byte at a time are handled like any other, also one without attributes
	{
		Raw slow(sock);
		slow.hello();
		Bytes m = message(UBUS_MSG_PING, 3, 0, {});
		Bytes lookup = message(UBUS_MSG_LOOKUP, 4, 0, {{UBUS_ATTR_OBJPATH, str("demo")}});
		m.insert(m.end(), lookup.begin(), lookup.end());
		for (uint8_t byte : m) {
			ASSERT_EQ(::send(slow.fd, &byte, 1, MSG_NOSIGNAL), 1);
			std::this_thread::sleep_for(std::chrono::microseconds(200));	// one read per byte
		}
		EXPECT_EQ(slow.recv().type, UBUS_MSG_DATA);
		EXPECT_EQ(slow.recv().attr32(UBUS_ATTR_STATUS), 0u);
		EXPECT_EQ(slow.recv().attr32(UBUS_ATTR_OBJID), obj);
		EXPECT_EQ(slow.recv().attr32(UBUS_ATTR_STATUS), 0u);
	}
	// a peer leaving halfway through a message
	{
		Raw half(sock);
		half.hello();
		Bytes m = message(UBUS_MSG_LOOKUP, 4, 0, {{UBUS_ATTR_OBJPATH, str("demo")}});
		half.send(Bytes(m.begin(), m.begin() + 14));
	}
	// a client that never reads does not stall the others
	Raw deaf(sock);
	deaf.hello();
	Bytes lookup = message(UBUS_MSG_LOOKUP, 5, 0, {{UBUS_ATTR_OBJPATH, str("demo")}});
	for (int i = 0; i < 20000; i++)
		if (!deaf.send(lookup))
			break;

	expect_alive();
	// the owner's object survived all of it
	Raw c(sock);
	c.hello();
	c.send(message(UBUS_MSG_LOOKUP, 1, 0, {{UBUS_ATTR_OBJPATH, str("demo")}}));
	EXPECT_EQ(c.recv().attr32(UBUS_ATTR_OBJID), obj);
}

TEST_F(UbusDaemon, ProgramOptionsAndSocketTakeOver)
{
	std::string err = dir.path + "/err";
	int efd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
	pid_t p = spawn({bin("ubusd"), "-x"}, {}, -1, -1, efd);
	EXPECT_EQ(wait_exit(p), 1);
	std::string text = read_file(err);
	EXPECT_NE(text.find("-s <socket>"), std::string::npos) << text;
	EXPECT_NE(text.find("-A <path>"), std::string::npos) << text;

	efd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
	p = spawn({bin("ubusd"), "-s", dir.path + "/no/such/dir/sock"}, {}, -1, -1, efd);
	EXPECT_EQ(wait_exit(p), 255);
	EXPECT_EQ(read_file(err).rfind("usock: ", 0), 0u) << read_file(err);

	// A second daemon takes the path over; the first one's clients stay with the first.
	Raw old_client(sock);
	old_client.hello();
	struct stat first;
	ASSERT_EQ(stat(sock.c_str(), &first), 0);
	pid_t second = spawn({bin("ubusd"), "-s", sock}, {});
	bool replaced = false;
	for (int i = 0; i < 400 && !replaced; i++) {
		std::this_thread::sleep_for(std::chrono::milliseconds(5));
		struct stat now;
		replaced = stat(sock.c_str(), &now) == 0 && now.st_ino != first.st_ino;
	}
	ASSERT_TRUE(replaced);
	Raw fresh(sock);
	EXPECT_GT(fresh.hello(), 0u);
	old_client.send(message(UBUS_MSG_PING, 1, 0, {}));
	EXPECT_EQ(old_client.recv().type, UBUS_MSG_DATA);
	// SIGTERM ends the daemon and removes its socket.
	stop(second);
	struct stat st;
	EXPECT_NE(stat(sock.c_str(), &st), 0);
}

} // namespace
