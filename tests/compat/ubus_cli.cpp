// The `ubus` tool against our bus daemon and the test server: a transcript (data/ubus/cli) of listings, call
// output, and the exit codes and messages scripts depend on; events and wait_for, which need timing.
#include "bus.h"

#include <regex>

using namespace bus;

namespace {

class UbusCli : public BusTest {
protected:
	void SetUp() override
	{
		BusTest::SetUp();
		start_server();
	}
};

// "$ ubus ARGS" runs the tool on the test's bus (ARGS split on blanks, $T the test's folder), "$ tty ubus ARGS"
// with stderr on a terminal. Object ids, which differ from run to run, show as ID; the usage text as (usage).
TEST_F(UbusCli, Transcript)
{
	check_transcript(std::string(GWCONF_TEST_DATA) + "/ubus/cli", [&](const std::string &cmd, const std::string &) {
		std::vector<std::string> args = words(std::regex_replace(cmd, std::regex("\\$T"), dir.path));
		bool tty = args[0] == "tty";
		args.erase(args.begin(), args.begin() + (tty ? 2 : 1));
		Result r = ubus(args, tty);
		size_t usage = r.err.find("Usage: ubus");
		if (usage != std::string::npos)
			r.err = r.err.substr(0, usage) + "(usage)\n";
		std::string text = shown(r);
		text = std::regex_replace(text, std::regex("@[0-9a-f]{8}"), "@ID");
		return std::regex_replace(text, std::regex("(\"(objid|reqobj)\":)-?[0-9]+"), "$1ID");
	});
}

TEST_F(UbusCli, EventsReachListenersAndWaitForSeesNewObjects)
{
	// listen until the event shows up; repeated sends cover the moment listen registers
	std::string out = dir.path + "/listen";
	int ofd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
	pid_t listener = spawn({bin("ubus"), "-s", sock, "-t", "5", "listen", "demo.*"}, {}, -1, ofd);
	close(ofd);
	for (int i = 0; i < 400 && read_file(out).find("demo.evt") == std::string::npos; i++) {
		ASSERT_EQ(ubus({"send", "demo.evt", "{\"k\":[1,\"two\"]}"}).code, 0);
		EXPECT_EQ(ubus({"send", "other", "{}"}).code, 0);
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	stop(listener, SIGINT);
	std::string got = read_file(out);
	EXPECT_NE(got.find("{ \"demo.evt\": {\"k\":[1,\"two\"]} }\n"), std::string::npos) << got;
	EXPECT_EQ(got.find("other"), std::string::npos);

	pid_t waiter = spawn({bin("ubus"), "-s", sock, "-t", "10", "wait_for", "test.late"});
	std::this_thread::sleep_for(std::chrono::milliseconds(100));
	static ubus_object late = {.name = "test.late", .type = &server::any_type, .methods = server::any_methods,
				   .n_methods = 1};
	ASSERT_EQ(ubus_add_object(client(), &late), 0);
	EXPECT_EQ(wait_exit(waiter, 5000), 0);
}

} // namespace
