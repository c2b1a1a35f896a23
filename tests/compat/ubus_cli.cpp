// The `ubus` tool against our bus daemon and the test server: listings, call output, and the exit codes and
// messages scripts depend on (stderr redirected to a file, and to a terminal).
#include "ubus_harness.h"


using namespace ubus_test;

namespace {

std::string strip_cr(std::string s)
{
	s.erase(std::remove(s.begin(), s.end(), '\r'), s.end());
	return s;
}

const char *const kUsageStart = "Usage: ";

class UbusCli : public BusTest {
protected:
	void SetUp() override
	{
		BusTest::SetUp();
		start_server();
	}
};

TEST_F(UbusCli, ListPrintsPathsInByteOrderAndFiltersByPrefix)
{
	CliResult all = ubus({"list"});
	EXPECT_EQ(all.code, 0);
	EXPECT_EQ(all.out, "test\ntest.any\ntest.types\n");

	CliResult prefix = ubus({"list", "test.*"});
	EXPECT_EQ(prefix.out, "test.any\ntest.types\n");
	CliResult exact = ubus({"list", "test"});
	EXPECT_EQ(exact.out, "test\n");

	CliResult none = ubus({"list", "nothing*"});
	EXPECT_EQ(none.code, 4);
	EXPECT_EQ(none.out, "");
	EXPECT_EQ(none.err, "Command failed: Not found\n");

	CliResult two = ubus({"list", "a", "b"});
	EXPECT_EQ(two.code, 254);
	EXPECT_EQ(two.err.rfind(kUsageStart, 0), 0u) << two.err;
}

TEST_F(UbusCli, VerboseListShowsSignaturesWithTypeNamesAndMasks)
{
	CliResult r = ubus({"list", "-v", "test.types"});	// option after the command: getopt permutes
	ASSERT_EQ(r.code, 0) << r.err;
	const std::string head = "'test.types' @";
	ASSERT_GT(r.out.size(), head.size() + 9);
	EXPECT_EQ(r.out.substr(0, head.size()), head);
	std::string id_text = r.out.substr(head.size(), 8);
	EXPECT_EQ(id_text.find_first_not_of("0123456789abcdef"), std::string::npos) << r.out;
	EXPECT_EQ(r.out[head.size() + 8], '\n');
	EXPECT_EQ(r.out.substr(head.size() + 9),
		  "\t\"all\":{\"a\":\"Array\",\"t\":\"Table\",\"s\":\"String\",\"i64\":\"(unknown)\",\"i\":\"Integer\","
		  "\"i16\":\"(unknown)\",\"b\":\"Boolean\",\"d\":\"(unknown)\",\"u\":\"(unknown)\"}\n"
		  "\t\"none\":{}\n"
		  "\t\"masked\":{\"s\":\"String\",\"i\":\"Integer\"}\n");

	// The id printed is the one lookups return.
	uint32_t id = 0;
	ASSERT_EQ(ubus_lookup_id(client(), "test.types", &id), 0);
	char hex[16];
	snprintf(hex, sizeof(hex), "@%08x", id);
	EXPECT_NE(r.out.find(hex), std::string::npos);

	// -S drops the signatures.
	EXPECT_EQ(ubus({"-S", "-v", "list", "test.types"}).out, "test.types\n");
}

TEST_F(UbusCli, CallPrintsEachReplyAsItsOwnDocument)
{
	CliResult echo = ubus({"call", "test", "echo", "{\"id\":1,\"msg\":\"x\",\"extra\":[true,null,1.5]}"});
	EXPECT_EQ(echo.code, 0) << echo.err;
	EXPECT_EQ(echo.out, "{\n\t\"id\": 1,\n\t\"msg\": \"x\",\n\t\"extra\": [\n\t\ttrue,\n\t\tnull,\n\t\t1.500000\n\t]\n}\n");
	EXPECT_EQ(echo.err, "");

	EXPECT_EQ(ubus({"-S", "call", "test", "echo", "{\"id\":1,\"msg\":\"x\"}"}).out, "{\"id\":1,\"msg\":\"x\"}\n");
	EXPECT_EQ(ubus({"call", "test", "multi"}).out, "{\n\t\"n\": 1\n}\n{\n\t\"n\": 2\n}\n");
	EXPECT_EQ(ubus({"-S", "call", "test", "multi"}).out, "{\"n\":1}\n{\"n\":2}\n");

	CliResult silent = ubus({"call", "test", "silent"});
	EXPECT_EQ(silent.code, 0);
	EXPECT_EQ(silent.out, "");
	EXPECT_EQ(ubus({"call", "test", "empty"}).out, "{\n\t\n}\n");
	EXPECT_EQ(ubus({"-S", "call", "test", "empty"}).out, "{}\n");
	EXPECT_EQ(ubus({"call", "test", "nested"}).out,
		  "{\n\t\"a\": {\n\t\t\"b\": [\n\t\t\t1,\n\t\t\t\"x\",\n\t\t\t{\n\t\t\t\t\"c\": true\n\t\t\t}\n\t\t]\n\t},\n"
		  "\t\"s\": \"q\\\"uote\"\n}\n");
	EXPECT_EQ(ubus({"-S", "call", "test", "deferred"}).out, "{\"late\":true}\n");
	// A reply sent after the status is not shown.
	CliResult after = ubus({"call", "test", "after_status"});
	EXPECT_EQ(after.code, 0);
	EXPECT_EQ(after.out, "");
}

TEST_F(UbusCli, CallArgumentsReachTheHandlerWithCallerIdentity)
{
	CliResult r = ubus({"-S", "call", "test.any", "whatever"});
	ASSERT_EQ(r.code, 0) << r.err;
	// the object id is printed as a signed 32-bit number; the handler sees the same id in the request
	size_t at = r.out.find("\"objid\":");
	ASSERT_NE(at, std::string::npos) << r.out;
	long long objid = strtoll(r.out.c_str() + at + 8, nullptr, 10);
	EXPECT_EQ(r.out, "{\"user\":\"root\",\"group\":\"root\",\"object\":\"test.any\",\"method\":\"whatever\","
			 "\"objid\":" + std::to_string(objid) + ",\"reqobj\":" + std::to_string(objid) + "}\n");

	// json-c leniencies: trailing text after the object, duplicate keys (last value, first position)
	EXPECT_EQ(ubus({"-S", "call", "test", "echo", "{\"id\":1,\"msg\":\"a\",\"id\":2} trailing"}).out,
		  "{\"id\":2,\"msg\":\"a\"}\n");
}

// Exit codes and messages when stderr is a file, as in scripts.
TEST_F(UbusCli, CallFailuresInScripts)
{
	struct Case {
		std::vector<std::string> args;
		int code;
		std::string err_start;
	} cases[] = {
		{{"call", "nope", "x"}, 4, "Command failed: Not found\n"},
		{{"call", "test", "nope"}, 253, "Command failed: ubus call test nope (Method not found)\n"},
		{{"call", "test", "status", "{\"code\":42}"}, 214,
		 "Command failed: ubus call test status {\"code\":42} (Unknown error: 42)\n"},
		{{"call", "test", "status", "{\"code\":-1}"}, 1,
		 "Command failed: ubus call test status {\"code\":-1} (Unknown error: -1)\nCommand failed: Invalid command\n"},
		{{"call", "test", "status", "{\"code\":5}"}, 251,
		 "Command failed: ubus call test status {\"code\":5} (No response)\n"},
		{{"call", "test", "echo", "[1]"}, 244, "Command failed: ubus call test echo [1] (Parsing message data failed)\n"},
		{{"call", "test", "echo", "{bad"}, 244, "Command failed: ubus call test echo {bad (Parsing message data failed)\n"},
		{{"-t", "1", "call", "test", "hang"}, 249, "Command failed: ubus call test hang (Request timed out)\n"},
		{{"call", "test"}, 254, kUsageStart},
		{{"frobnicate"}, 254, kUsageStart},
	};
	for (const Case &c : cases) {
		CliResult r = ubus(c.args);
		std::string what = c.args[0] + " " + (c.args.size() > 1 ? c.args[1] : "") + " " +
				   (c.args.size() > 2 ? c.args[2] : "");
		EXPECT_EQ(r.code, c.code) << what << "\n" << r.err;
		EXPECT_EQ(r.err.substr(0, c.err_start.size()), c.err_start) << what;
		if (c.err_start == kUsageStart) {
			EXPECT_EQ(r.err.find("Command failed"), std::string::npos) << what;
		}
	}

	// Invalid argument (2) collides with the usage code: the message, then the usage text, exit 254.
	CliResult inval = ubus({"call", "test", "status", "{\"code\":2}"});
	EXPECT_EQ(inval.code, 254);
	std::string line = "Command failed: ubus call test status {\"code\":2} (Invalid argument)\n";
	EXPECT_EQ(inval.err.substr(0, line.size()), line);
	EXPECT_EQ(inval.err.substr(line.size(), strlen(kUsageStart)), kUsageStart);

	// A missing command prints the usage and exits 1.
	CliResult nocmd = ubus({});
	EXPECT_EQ(nocmd.code, 1);
	EXPECT_EQ(nocmd.err.rfind(kUsageStart, 0), 0u);

	// Data received before a failing status is still printed.
	CliResult partial = ubus({"call", "test", "partial"});
	EXPECT_EQ(partial.code, 248);
	EXPECT_EQ(partial.out, "{\n\t\"n\": 1\n}\n");
	EXPECT_EQ(partial.err, "Command failed: ubus call test partial (Operation not supported)\n");
}

TEST_F(UbusCli, CallFailuresWithSimpleOutputOrOnATerminal)
{
	struct Case {
		std::vector<std::string> args;
		int code;
		std::string err;
	} simple[] = {
		{{"-S", "call", "test", "nope"}, 3, ""},
		{{"-S", "call", "test", "status", "{\"code\":2}"}, 2, ""},
		{{"-S", "call", "test", "status", "{\"code\":-1}"}, 255, ""},
		{{"-S", "call", "nope", "x"}, 4, ""},
		{{"-S", "call", "test", "echo", "nojson"}, 12, ""},
	};
	for (const Case &c : simple) {
		CliResult r = ubus(c.args);
		EXPECT_EQ(r.code, c.code) << c.args[2] << " " << c.args[3];
		EXPECT_EQ(r.err, c.err);
	}

	Case tty[] = {
		{{"call", "test", "nope"}, 3, "Command failed: Method not found\n"},
		{{"call", "test", "status", "{\"code\":2}"}, 2, "Command failed: Invalid argument\n"},
		{{"call", "test", "status", "{\"code\":42}"}, 42, "Command failed: Unknown error: 42\n"},
		{{"call", "test", "status", "{\"code\":-1}"}, 255, ""},
		{{"call", "nope", "x"}, 4, "Command failed: Not found\n"},
	};
	for (const Case &c : tty) {
		CliResult r = ubus(c.args, true);
		EXPECT_EQ(r.code, c.code) << c.args[1] << " " << c.args[2];
		EXPECT_EQ(strip_cr(r.err), c.err);
	}
}

TEST_F(UbusCli, ConnectionFailureAndSocketOption)
{
	CliResult r = ubus({"-s", dir.path + "/absent.sock", "list"}, false, false);
	EXPECT_EQ(r.code, 255);
	EXPECT_EQ(r.err, "Failed to connect to ubus\n");
	CliResult quiet = ubus({"-S", "-s", dir.path + "/absent.sock", "list"}, false, false);
	EXPECT_EQ(quiet.code, 255);
	EXPECT_EQ(quiet.err, "");
}

TEST_F(UbusCli, EventsReachListenersAndWaitForSeesNewObjects)
{
	// listen until the event shows up; repeated sends cover the moment listen registers
	std::string out = dir.path + "/listen";
	int ofd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
	pid_t listener = spawn({bin("ubus"), "-s", sock, "-t", "5", "listen", "demo.*"}, {}, ofd);
	close(ofd);
	for (int i = 0; i < 400 && read_file(out).find("demo.evt") == std::string::npos; i++) {
		CliResult sent = ubus({"send", "demo.evt", "{\"k\":[1,\"two\"]}"});
		ASSERT_EQ(sent.code, 0) << sent.err;
		EXPECT_EQ(ubus({"send", "other", "{}"}).code, 0);
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	stop(listener, SIGINT);
	std::string got = read_file(out);
	ASSERT_NE(got.find("{ \"demo.evt\": {\"k\":[1,\"two\"]} }\n"), std::string::npos) << got;
	EXPECT_EQ(got.find("other"), std::string::npos);

	EXPECT_EQ(ubus({"send", "ubus.object.add", "{}"}).code, 6);	// reserved for the daemon
	EXPECT_EQ(ubus({"send", "demo", "not json"}).code, 12);

	// wait_for: at once when the objects exist; on timeout status 7; and when one appears later
	EXPECT_EQ(ubus({"wait_for", "test", "test.any"}).code, 0);
	CliResult late = ubus({"-t", "1", "wait_for", "test", "test.none"});
	EXPECT_EQ(late.code, 7);
	EXPECT_EQ(late.err, "Command failed: Request timed out\n");

	pid_t waiter = spawn({bin("ubus"), "-s", sock, "-t", "10", "wait_for", "test.late"}, {});
	std::this_thread::sleep_for(std::chrono::milliseconds(100));
	static ubus_object late_obj = {.name = "test.late", .type = &server::any_type, .methods = server::any_methods,
				       .n_methods = 1};
	ASSERT_EQ(ubus_add_object(client(), &late_obj), 0);
	EXPECT_EQ(wait_exit(waiter, 5000), 0);
}

} // namespace
