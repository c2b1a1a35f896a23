// Port mappings through RTPortMap in the emulated router: the stored redirect sections, IDs, protocols, the add
// checks, the maximum, the firewall reload, and hostile input.
#include "natforward_support.h"

#include <gmock/gmock.h>

#include <libubus.h>
extern "C" {
#include <libubox/blobmsg_json.h>
}

using namespace natforward_e2e;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class NatPortMap : public RouterTest {
protected:
    // The default firewall package with extra sections appended; call before start().
    void storeExtra(const std::string &extra) { writeConfig("firewall", readConfig("firewall") + extra); }
    CallResult mod(const std::string &json) { return call("RTPortMap", "modPortMapping", json); }
    CallResult get() { return call("RTPortMap", "getPortMapping", ""); }
    std::string firewall() { return readConfig("firewall"); }
};

const std::string kWeb = portEntry("web", 0, "192.168.1.10", 80, 8080);

} // namespace

TEST_F(NatPortMap, AddWritesTwoSectionsListsAndDeletesBoth)
{
    start();
    const std::string before = firewall();
    clearJournal();

    CallResult r = mod(modRequest({kWeb}, 1));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"result":true})");

    const std::string after = firewall();
    const std::vector<std::string> common = {"option name 'web'",       "option PmapID '1'",
                                             "list proto 'tcp'",        "option src_dport '8080'",
                                             "option dest_port '80'",   "option dest_ip '192.168.1.10'",
                                             "option target 'DNAT'",    "option dest 'lan'"};
    auto withSrc = [&](const char *src) {
        auto l = common;
        l.push_back(std::string("option src '") + src + "'");
        return Section{"config redirect", l};
    };
    EXPECT_THAT(redirects(after), ElementsAre(withSrc("wan"), withSrc("lan")));
    EXPECT_EQ(nonRedirects(after), nonRedirects(before)); // the rest of the package is untouched
    // The two new sections come last, after everything that was there.
    EXPECT_EQ(sections(after).size(), sections(before).size() + 2);
    EXPECT_EQ(sections(after).back().header, "config redirect");
    EXPECT_THAT(journal(), ElementsAre(kReload));

    r = get();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"params":{"List":[{"Name":"web","ExternalPort":8080,"InternalIP":"192.168.1.10",)"
                       R"("InternalPort":80,"Protocol":0,"PmapID":1}]},"result":true})");

    clearJournal();
    r = mod(deleteRequest("PmapID", {1}));
    EXPECT_EQ(r.reply, R"({"result":true})");
    EXPECT_THAT(redirects(firewall()), IsEmpty());
    EXPECT_EQ(nonRedirects(firewall()), nonRedirects(before));
    EXPECT_THAT(journal(), ElementsAre(kReload));
    EXPECT_EQ(get().reply, R"({"result":true})");
}

TEST_F(NatPortMap, IdsFollowTheHighestStoredAndTheListIsNewestFirst)
{
    // Mappings 3 and 7, a redirect of another program without an ID, and a group mapping with a higher ID.
    storeExtra(storedMapping("PmapID", 3, "3000") + storedMapping("PmapID", 7, "7000") +
               storedSection("", 0, "wan", "4444", {}, "foreign") + storedMapping("GmapID", 20, "600-610"));
    start();

    EXPECT_EQ(mod(modRequest({portEntry("a", 0, "10.0.0.1", 81, 9001), portEntry("b", 1, "10.0.0.2", 82, 9002)}, 1))
                  .reply,
              R"({"result":true})");
    // "wan" sections of the request first, then its "lan" sections, all after the stored ones.
    EXPECT_THAT(idAndSrc(firewall(), "PmapID"),
                ElementsAre("3/wan", "3/lan", "7/wan", "7/lan", "-/wan", "-/wan", "-/lan", "8/wan", "9/wan", "8/lan",
                            "9/lan"));
    const std::string listed = get().reply;
    EXPECT_THAT(numbersOf(listed, "PmapID"), ElementsAre(9, 8, 7, 3));
    EXPECT_THAT(numbersOf(listed, "ExternalPort"), ElementsAre(9002, 9001, 7000, 3000));

    // Deleting a middle ID leaves the next ID alone; deleting the highest hands it out again.
    EXPECT_EQ(mod(deleteRequest("PmapID", {7})).reply, R"({"result":true})");
    EXPECT_EQ(mod(modRequest({portEntry("c", 0, "10.0.0.3", 83, 9003)}, 1)).reply, R"({"result":true})");
    EXPECT_THAT(numbersOf(get().reply, "PmapID"), ElementsAre(10, 9, 8, 3));
    EXPECT_EQ(mod(deleteRequest("PmapID", {10, 9})).reply, R"({"result":true})");
    EXPECT_EQ(mod(modRequest({portEntry("d", 0, "10.0.0.4", 84, 9004)}, 1)).reply, R"({"result":true})");
    EXPECT_THAT(numbersOf(get().reply, "PmapID"), ElementsAre(9, 8, 3));

    // The foreign redirect and the group mapping were never touched.
    const auto all = idAndSrc(firewall(), "GmapID");
    EXPECT_EQ(std::count(all.begin(), all.end(), "20/wan"), 1);
    EXPECT_EQ(std::count(all.begin(), all.end(), "20/lan"), 1);
    EXPECT_NE(firewall().find("option name 'foreign'"), std::string::npos);
}

TEST_F(NatPortMap, ProtocolListIsWrittenAndReadBack)
{
    storeExtra(storedSection("PmapID", 1, "wan", "1001", {"list proto 'tcp'", "list proto 'udp'"}) +
               storedSection("PmapID", 2, "wan", "1002", {"list proto 'icmp'"}) +
               storedSection("PmapID", 3, "wan", "1003", {"option proto 'udp'"}) +
               storedSection("PmapID", 4, "wan", "1004", {"list proto 'udp'"}) +
               storedSection("PmapID", 5, "wan", "1005", {}));
    start();
    // Stored newest-first: no proto -> both, udp, a plain option -> both, icmp alone -> TCP, tcp+udp -> both.
    EXPECT_THAT(numbersOf(get().reply, "Protocol"), ElementsAre(2, 1, 2, 0, 2));

    ASSERT_EQ(mod(modRequest({portEntry("u", 1, "10.0.0.1", 53, 5353), portEntry("b", 2, "10.0.0.1", 22, 2222)}, 1))
                  .reply,
              R"({"result":true})");
    const auto red = redirects(firewall());
    ASSERT_EQ(red.size(), 9u);
    EXPECT_THAT(red[5].lines, ::testing::Contains("list proto 'udp'"));
    for (const auto &l : red[6].lines)
        EXPECT_EQ(l.find("proto"), std::string::npos) << l; // both protocols: no proto option at all
    EXPECT_THAT(numbersOf(get().reply, "Protocol"), ElementsAre(2, 1, 2, 1, 2, 0, 2));
}

TEST_F(NatPortMap, RangeChecksRefuseTheRequestAndWriteNothing)
{
    start();
    const std::string before = firewall();
    clearJournal();

    struct Case {
        std::string entry;
        long code;
    } cases[] = {
        {portEntry("w", 0, "10.0.0.1", 80, 0), kErrExternalPort},
        {portEntry("w", 0, "10.0.0.1", 80, -1), kErrExternalPort},
        // Beyond 32 bits the number travels as INT64, which counts as missing: port 0.
        {portEntry("w", 0, "10.0.0.1", 80, 99999999999), kErrExternalPort},
        {portEntry("w", 0, "10.0.0.1", 0, 8080), kErrInternalPort},
        {portEntry("w", 0, "10.0.0.1", -80, 8080), kErrInternalPort},
        {portEntry("w", 3, "10.0.0.1", 80, 8080), kErrProtocol},
        {portEntry("w", -1, "10.0.0.1", 80, 8080), kErrProtocol},
        // A port sent as text is missing: port 0.
        {R"({"Name":"w","Protocol":0,"InternalIP":"10.0.0.1","InternalPort":80,"ExternalPort":"8080"})",
         kErrExternalPort},
        // Entries that are not tables at all leave their record zero.
        {R"("8080")", kErrExternalPort},
    };
    for (const Case &c : cases) {
        // A valid first entry is not added either: the whole request fails.
        const CallResult r = mod(modRequest({portEntry("ok", 0, "10.0.0.9", 80, 9999), c.entry}, 1));
        EXPECT_EQ(r.status, 0) << c.entry;
        EXPECT_EQ(r.reply, codeReply(c.code)) << c.entry;
    }
    EXPECT_EQ(firewall(), before);
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(get().reply, R"({"result":true})");
}

TEST_F(NatPortMap, ConflictsDependOnProtocolAndStoredRanges)
{
    storeExtra(storedMapping("PmapID", 1, "8080") + storedMapping("GmapID", 1, "600-610"));
    start();

    EXPECT_EQ(mod(modRequest({portEntry("u", 1, "10.0.0.2", 80, 8080)}, 1)).reply, R"({"result":true})");
    EXPECT_EQ(mod(modRequest({portEntry("b", 2, "10.0.0.3", 80, 8080)}, 1)).reply,
              codeReply(kErrPortMapConflict));
    EXPECT_EQ(mod(modRequest({portEntry("t", 0, "10.0.0.4", 80, 605)}, 1)).reply,
              codeReply(kErrGroupMapConflict));
    EXPECT_EQ(mod(modRequest({portEntry("t", 0, "10.0.0.4", 80, 610)}, 1)).reply,
              codeReply(kErrGroupMapConflict));
    EXPECT_EQ(mod(modRequest({portEntry("u", 1, "10.0.0.4", 80, 605)}, 1)).reply, R"({"result":true})");
    EXPECT_THAT(numbersOf(get().reply, "PmapID"), ElementsAre(3, 2, 1));

    // The third entry clashes: none of the three is added, and two entries were counted.
    const std::string before = firewall();
    clearJournal();
    const int counted2 = logCountOf("error", "NATFORWARD_modPortMapping", "\n i[2] \n");
    EXPECT_EQ(mod(modRequest({portEntry("x", 0, "10.0.0.5", 80, 7001), portEntry("y", 0, "10.0.0.5", 80, 7002),
                              portEntry("z", 0, "10.0.0.5", 80, 8080)},
                             1))
                  .reply,
              codeReply(kErrPortMapConflict));
    EXPECT_EQ(logCountOf("error", "NATFORWARD_modPortMapping", "\n i[2] \n"), counted2 + 1);
    EXPECT_EQ(firewall(), before);
    EXPECT_THAT(journal(), IsEmpty());

    // Entries of one request are not checked against each other.
    EXPECT_EQ(mod(modRequest({portEntry("p", 0, "10.0.0.6", 80, 9000), portEntry("q", 0, "10.0.0.7", 81, 9000)}, 1))
                  .reply,
              R"({"result":true})");
    EXPECT_THAT(numbersOf(get().reply, "ExternalPort"), ElementsAre(9000, 9000, 605, 8080, 8080));
}

TEST_F(NatPortMap, AtMost32AreStoredAndGroupMappingsCountApart)
{
    std::string extra;
    for (int id = 1; id <= 31; id++)
        extra += storedMapping("PmapID", id, std::to_string(10000 + id));
    for (int id = 1; id <= 32; id++)
        extra += storedMapping("GmapID", id, std::to_string(20000 + 10 * id) + "-" + std::to_string(20005 + 10 * id));
    storeExtra(extra);
    start();
    const std::string before = firewall();
    clearJournal();

    // 31 + 2 would pass the maximum: nothing is added, and the reply has no code.
    EXPECT_EQ(mod(modRequest({portEntry("a", 0, "10.0.0.1", 80, 1), portEntry("b", 0, "10.0.0.1", 80, 2)}, 1)).reply,
              R"({"result":false})");
    EXPECT_TRUE(logHas("error", "NATFORWARD_addPortMap", "addPortMap  more  than  max"));
    EXPECT_EQ(firewall(), before);
    EXPECT_THAT(journal(), IsEmpty());

    // The 32nd fits although 32 group mappings are stored.
    EXPECT_EQ(mod(modRequest({portEntry("a", 0, "10.0.0.1", 80, 1)}, 1)).reply, R"({"result":true})");
    EXPECT_EQ(numbersOf(get().reply, "PmapID").size(), 32u);
    EXPECT_EQ(mod(modRequest({portEntry("b", 0, "10.0.0.1", 80, 2)}, 1)).reply, R"({"result":false})");
    EXPECT_EQ(numbersOf(get().reply, "PmapID").size(), 32u);
}

TEST_F(NatPortMap, MoreThan32StoredAreListedUpTo32)
{
    // Written by other means: 34 primary sections. The list keeps to its 32 records, the first 32 in file order.
    std::string extra;
    for (int id = 1; id <= 34; id++)
        extra += storedSection("PmapID", id, "wan", std::to_string(10000 + id));
    storeExtra(extra);
    start();
    const auto ids = numbersOf(get().reply, "PmapID");
    ASSERT_EQ(ids.size(), 32u);
    EXPECT_EQ(ids.front(), 32);
    EXPECT_EQ(ids.back(), 1);
    EXPECT_EQ(mod(modRequest({portEntry("a", 0, "10.0.0.1", 80, 1)}, 1)).reply, R"({"result":false})");
    // Deleting one of the hidden ones still works: the delete walks every section.
    EXPECT_EQ(mod(deleteRequest("PmapID", {34, 33})).reply, R"({"result":true})");
    EXPECT_THAT(idAndSrc(firewall(), "PmapID").size(), 32u);
}

TEST_F(NatPortMap, OperationAndMapListEdges)
{
    storeExtra(storedMapping("PmapID", 1, "8080"));
    start();
    const std::string before = firewall();
    clearJournal();

    EXPECT_EQ(mod(R"({"MapList":[]})").reply, R"({"result":false})");
    EXPECT_TRUE(logHas("error", "NATFORWARD_modPortMapping", "\n operation is invaild \n"));
    EXPECT_EQ(mod(R"({"MapList":[],"Operation":"1"})").reply, R"({"result":false})");
    EXPECT_EQ(call("RTPortMap", "modPortMapping", "").reply, R"({"result":false})");
    EXPECT_EQ(mod(R"({"Operation":1})").reply, R"({"result":true})");
    EXPECT_EQ(mod(R"({"Operation":1,"MapList":"x"})").reply, R"({"result":true})");
    EXPECT_EQ(mod(modRequest({kWeb}, 2)).reply, R"({"result":true})");
    EXPECT_EQ(mod(modRequest({kWeb}, -1)).reply, R"({"result":true})");
    EXPECT_EQ(mod(deleteRequest("PmapID", {99})).reply, R"({"result":true})");
    EXPECT_EQ(mod(modRequest({}, 0)).reply, R"({"result":true})");
    EXPECT_EQ(firewall(), before);
    EXPECT_THAT(journal(), IsEmpty()); // none of these wrote or reloaded

    // An empty add still commits and reloads.
    EXPECT_EQ(mod(modRequest({}, 1)).reply, R"({"result":true})");
    EXPECT_THAT(redirects(firewall()), ::testing::SizeIs(2));
    EXPECT_THAT(journal(), ElementsAre(kReload));
}

TEST_F(NatPortMap, HostileInputStaysInTheConfiguration)
{
    start();
    clearJournal();
    const std::string nasty = "a;touch /tmp/pwned1 $(touch /tmp/pwned2) `touch /tmp/pwned3` 'q' \"d\" x";
    const std::string nastyIp = "1;touch /tmp/pwned4";
    const std::string longName(200, 'n');
    ASSERT_EQ(mod(modRequest({portEntry(nasty, 0, nastyIp, 80, 8080), portEntry(longName, 1, "10.0.0.1", 81, 8081)}, 1))
                  .reply,
              R"({"result":true})");

    const auto red = redirects(firewall());
    ASSERT_EQ(red.size(), 4u);
    // Cut to 64 and 15 characters, otherwise kept as they came.
    EXPECT_EQ(optionOf(red[0], "name"), "a;touch /tmp/pwned1 $(touch /tmp/pwned2) `touch /tmp/pwned3` '\\''q'\\''");
    EXPECT_EQ(optionOf(red[0], "dest_ip"), "1;touch /tmp/pw");
    EXPECT_EQ(optionOf(red[1], "name"), std::string(64, 'n'));
    EXPECT_THAT(journal(), ElementsAre(kReload)); // nothing else ran
    for (const char *f : {"/tmp/pwned1", "/tmp/pwned2", "/tmp/pwned3", "/tmp/pwned4"})
        EXPECT_FALSE(fileExists(f)) << f;
    const std::string listed = get().reply;
    EXPECT_NE(listed.find("\"InternalIP\":\"1;touch /tmp/pw\""), std::string::npos) << listed;

    // Wrong types leave their fields zero: a numeric Name is no name, a text Protocol is TCP.
    EXPECT_EQ(mod(R"({"Operation":1,"MapList":[{"Name":5,"Protocol":"1","InternalIP":"10.0.0.2",)"
                  R"("InternalPort":82,"ExternalPort":8082}]})")
                  .reply,
              R"({"result":true})");
    const auto last = redirects(firewall());
    ASSERT_EQ(last.size(), 6u);
    EXPECT_EQ(optionOf(last[4], "name"), "");
    EXPECT_THAT(last[4].lines, ::testing::Contains("list proto 'tcp'"));
    // A mapping stored without a name does not load, and the list ends before it.
    EXPECT_THAT(numbersOf(get().reply, "PmapID"), ElementsAre(2, 1));
}

TEST_F(NatPortMap, OversizedMapListsAreRefused)
{
    start();
    const std::string before = firewall();
    clearJournal();
    for (int n : {33, 1000}) {
        std::vector<std::string> entries;
        for (int i = 0; i < n; i++)
            entries.push_back("{\"ExternalPort\":" + std::to_string(1 + i) + ",\"InternalPort\":80}");
        EXPECT_EQ(mod(modRequest(entries, 1)).reply, R"({"result":false})") << n;
        EXPECT_EQ(mod(modRequest(entries, 0)).reply, R"({"result":false})") << n;
    }
    EXPECT_EQ(firewall(), before);
    EXPECT_THAT(journal(), IsEmpty());
    // 32 is still fine.
    std::vector<std::string> entries;
    for (int i = 0; i < 32; i++)
        entries.push_back(portEntry("m" + std::to_string(i), 0, "10.0.0.1", 80, 1 + i));
    EXPECT_EQ(mod(modRequest(entries, 1)).reply, R"({"result":true})");
    EXPECT_EQ(numbersOf(get().reply, "PmapID").size(), 32u);
}

namespace {

// Calls RTPortMap straight through libubus, for messages too large for a command line.
class DirectCall {
public:
    DirectCall()
    {
        uloop_handle_sigchld = false; // the fixture waits for its own children
        ctx_ = ubus_connect(nullptr);
    }
    ~DirectCall()
    {
        if (ctx_ != nullptr)
            ubus_free(ctx_);
        uloop_done();
    }
    // The reply as compact JSON, or "status <n>" when the call itself failed.
    std::string call(const char *method, blob_attr *msg)
    {
        uint32_t id = 0;
        if (ctx_ == nullptr || ubus_lookup_id(ctx_, "RTPortMap", &id) != 0)
            return "no bus";
        std::string reply;
        const int status = ubus_invoke(ctx_, id, method, msg, onData, &reply, 20000);
        return status == 0 ? reply : "status " + std::to_string(status);
    }

private:
    static void onData(ubus_request *req, int, blob_attr *msg)
    {
        char *json = blobmsg_format_json(msg, true);
        if (json != nullptr)
            *static_cast<std::string *>(req->priv) = json;
        free(json);
    }
    ubus_context *ctx_ = nullptr;
};

// A one-entry add request whose name and address are given.
void addRequest(blob_buf *b, const std::string &name, const std::string &ip, uint32_t externalPort)
{
    blob_buf_init(b, 0);
    void *list = blobmsg_open_array(b, "MapList");
    void *entry = blobmsg_open_table(b, nullptr);
    blobmsg_add_string(b, "Name", name.c_str());
    blobmsg_add_u32(b, "Protocol", 0);
    blobmsg_add_string(b, "InternalIP", ip.c_str());
    blobmsg_add_u32(b, "InternalPort", 80);
    blobmsg_add_u32(b, "ExternalPort", externalPort);
    blobmsg_close_table(b, entry);
    blobmsg_close_array(b, list);
    blobmsg_add_u32(b, "Operation", 1);
}

} // namespace

TEST_F(NatPortMap, MegabyteTextsAreCut)
{
    start();
    DirectCall bus;
    blob_buf b{};
    addRequest(&b, std::string(1000000, 'N'), "10.0.0.1", 8080);
    EXPECT_EQ(bus.call("modPortMapping", b.head), R"({"result":true})");
    addRequest(&b, "big-ip", std::string(1000000, '9'), 8081);
    EXPECT_EQ(bus.call("modPortMapping", b.head), R"({"result":true})");
    blob_buf_free(&b);

    const auto red = redirects(firewall());
    ASSERT_EQ(red.size(), 4u);
    EXPECT_EQ(optionOf(red[0], "name"), std::string(64, 'N'));
    EXPECT_EQ(optionOf(red[2], "dest_ip"), std::string(15, '9'));
    EXPECT_EQ(bus.call("getPortMapping", nullptr),
              R"({"params":{"List":[{"Name":"big-ip","ExternalPort":8081,"InternalIP":"999999999999999",)"
              R"("InternalPort":80,"Protocol":0,"PmapID":2},{"Name":")" + std::string(64, 'N') +
                  R"(","ExternalPort":8080,"InternalIP":"10.0.0.1","InternalPort":80,"Protocol":0,"PmapID":1}]},)"
                  R"("result":true})");
}
