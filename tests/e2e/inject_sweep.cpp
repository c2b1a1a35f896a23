// Injection sweep: every text argument of every method, top-level or inside a table or array element, gets texts
// full of shell syntax, alone and behind an otherwise valid value (a MAC, an address) so the call goes as far as it
// can. Afterwards no canary file may exist, every command in the journal must be one of the commands gwconfd is
// known to run with the same number of words, and any word that carries shell characters must be a piece of a text
// that was sent. The configuration packages must still read back without a section the texts tried to smuggle in,
// and gwconfd must keep serving and exit cleanly.
//
// The list of (object, method, text argument) comes from the bus itself (`ubus -v list`), so a text argument added
// to a method is swept without touching this file; what the bus cannot tell (the fields of table and array
// elements, a valid request to build on) is kept here, and a nested argument without a description fails the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <libubus.h>

#include "support/bus_client.h"
#include "support/command_journal.h"
#include "support/router.h"

namespace {

using namespace gw::e2e;
using V = BusValue;

// ---- what the bus says -------------------------------------------------------------------------------------

struct Argument {
    std::string name, type;   // type as `ubus -v list` prints it: Integer, String, Boolean, Table, Array
};
struct Method {
    std::string name;
    std::vector<Argument> args;
};
using Signatures = std::map<std::string, std::vector<Method>>;

// Parses the lines `'OBJECT' @id` and `\t"method":{"arg":"Type",...}` of `ubus -v list`.
Signatures busSignatures()
{
    const char *ubus = std::getenv("GWCONF_UBUS");
    RunResult r = run({ubus && *ubus ? ubus : "ubus", "-v", "list"}, {}, 20000);
    EXPECT_EQ(r.status, 0) << r.err;
    Signatures sig;
    std::string object;
    for (const auto &line : splitLines(r.out)) {
        if (line.size() > 2 && line[0] == '\'') {
            object = line.substr(1, line.find('\'', 1) - 1);
            sig[object];
            continue;
        }
        size_t q1 = line.find('"');
        size_t q2 = q1 == std::string::npos ? q1 : line.find('"', q1 + 1);
        if (object.empty() || q2 == std::string::npos)
            continue;
        Method m{line.substr(q1 + 1, q2 - q1 - 1), {}};
        // The argument list: "name":"Type" pairs; names and types hold no quotes.
        std::vector<std::string> quoted;
        for (size_t at = line.find('{', q2); at != std::string::npos;) {
            size_t a = line.find('"', at);
            size_t b = a == std::string::npos ? a : line.find('"', a + 1);
            if (b == std::string::npos)
                break;
            quoted.push_back(line.substr(a + 1, b - a - 1));
            at = b + 1;
        }
        for (size_t i = 0; i + 1 < quoted.size(); i += 2)
            m.args.push_back({quoted[i], quoted[i + 1]});
        sig[object].push_back(m);
    }
    return sig;
}

// ---- what the bus cannot tell: valid requests, element fields, where a text goes --------------------------

std::string hex2(int n)
{
    const char *d = "0123456789ABCDEF";
    return std::string{d[(n >> 4) & 15], d[n & 15]};
}
// A distinct valid MAC per serial number, colon and bare form.
std::string colonMac(int n) { return "AA:BB:CC:DD:" + hex2(n >> 8) + ":" + hex2(n); }
std::string bareMac(int n) { return "AABBCCDD" + hex2(n >> 8) + hex2(n); }

using Maker = std::function<V(int serial)>;

// A valid request per method that has text arguments. Serial numbers keep MACs and ports apart between calls.
const std::map<std::string, Maker> &validRequests()
{
    static const std::map<std::string, Maker> m = {
        {"firewall.setForbiddNet",
         [](int n) { return V::table({{"enable", V::num(1)}, {"mac", V::str(colonMac(n))}}); }},
        // the black list (fewer commands per entry than the white list); the sweep adds fewer than 32 entries
        {"RTMacFilter.addMacFilterList",
         [](int n) {
             return V::table({{"enable", V::num(1)}, {"model", V::num(1)},
                              {"macList", V::table({{"name", V::str("dev")}, {"mac", V::str(colonMac(n))}})}});
         }},
        {"RTMacFilter.delMacFilterList",
         [](int n) {
             return V::table({{"enable", V::num(1)}, {"model", V::num(1)},
                              {"macList", V::table({{"name", V::str("dev")}, {"mac", V::str(colonMac(n))}})}});
         }},
        {"zelmad.macfilter.setMacFilter",
         [](int n) {
             return V::table({{"macFilterEnable", V::num(1)}, {"macFilterPolicy", V::num(0)},
                              {"macFilterEntries", V::str(bareMac(n) + "/tv")}});
         }},
        {"zelmad.vlan.setIptvVlan",
         [](int) {
             return V::table({{"vlanEnable", V::num(1)}, {"vlanId", V::num(100)},
                              {"iptvStatus", V::array({V::table({{"radio", V::str("LAN")}, {"index", V::num(1)}})})}});
         }},
        {"RTPortMap.modPortMapping", [](int) { return V::table({{"MapList", V::array()}, {"Operation", V::num(1)}}); }},
        {"RTPortMap.modGroupMapping", [](int) { return V::table({{"MapList", V::array()}, {"Operation", V::num(1)}}); }},
        {"RTWanPortMap.setWanPortMap",
         [](int) {
             return V::table({{"Enabled", V::num(1)}, {"InPort", V::num(8080)}, {"ExPort", V::num(80)},
                              {"RemoteAddr", V::str("203.0.113.7")}});
         }},
    };
    return m;
}

// The element of a table or array argument, and how many elements one request carries (1 for a table).
struct Element {
    Maker make;
    size_t perCall;
};
const std::map<std::string, Element> &elements()
{
    static const Maker macEntry = [](int n) {
        return V::table({{"name", V::str("dev")}, {"mac", V::str(colonMac(n))}});
    };
    static const std::map<std::string, Element> m = {
        {"RTMacFilter.addMacFilterList.macList", {macEntry, 1}},
        {"RTMacFilter.delMacFilterList.macList", {macEntry, 1}},
        {"zelmad.vlan.setIptvVlan.iptvStatus",
         {[](int) { return V::table({{"radio", V::str("LAN")}, {"index", V::num(1)}}); }, 6}},
        {"RTPortMap.modPortMapping.MapList",
         {[](int n) {
              return V::table({{"Name", V::str("web")}, {"Protocol", V::num(0)}, {"InternalIP", V::str("192.168.1.10")},
                               {"InternalPort", V::num(1000 + n % 20000)}, {"ExternalPort", V::num(1000 + n % 20000)},
                               {"PmapID", V::num(0)}});
          },
          32}},
        {"RTPortMap.modGroupMapping.MapList",
         {[](int n) {
              const int start = 30000 + 2 * (n % 15000);
              return V::table({{"Name", V::str("games")}, {"Protocol", V::num(1)}, {"InternalIP", V::str("192.168.1.20")},
                               {"StartPort", V::num(start)}, {"StopPort", V::num(start + 1)}, {"GmapID", V::num(0)}});
          },
          32}},
    };
    return m;
}

// Where the hostile text goes inside a text argument: "{}" is the text, "{mac}" / "{bare}" a valid MAC. A text
// argument not named here gets the hostile text alone. A form behind a valid value that the daemon cuts or
// validates takes only the short list of texts (every text would make the same request once cut).
struct Form {
    std::string text;
    bool everyText;
};
const std::map<std::string, std::vector<Form>> &embeddings()
{
    static const std::vector<Form> mac = {{"{}", true}, {"{mac}{}", false}};
    static const std::map<std::string, std::vector<Form>> m = {
        {"firewall.setForbiddNet.mac", mac},
        {"RTMacFilter.addMacFilterList.macList.mac", mac},
        {"RTMacFilter.delMacFilterList.macList.mac", mac},
        // a removal runs its kernel deletions and a reload whatever the name; the short list keeps it lean
        {"RTMacFilter.delMacFilterList.macList.name", {{"{}", false}}},
        // an agent entry is "MAC/name": the text as the MAC part, and as the name
        {"zelmad.macfilter.setMacFilter.macFilterEntries", {{"{}/tv", true}, {"{bare}/{}", false}}},
        {"zelmad.vlan.setIptvVlan.iptvStatus.radio", {{"{}", true}, {"LAN{}", false}}},
        {"RTPortMap.modPortMapping.MapList.InternalIP", {{"{}", true}, {"192.168.1.10{}", false}}},
        {"RTPortMap.modGroupMapping.MapList.InternalIP", {{"{}", true}, {"192.168.1.20{}", false}}},
        {"RTWanPortMap.setWanPortMap.RemoteAddr", {{"{}", true}, {"203.0.113.7{}", false}}},
    };
    return m;
}

// A text argument that is itself a list: several hostile pieces go in one request, joined by the separator, up to
// that many pieces and the length the daemon reads.
struct TextList {
    char separator;
    size_t perCall;
    size_t maxLength;
};
const std::map<std::string, TextList> &textLists()
{
    static const std::map<std::string, TextList> m = {
        {"zelmad.macfilter.setMacFilter.macFilterEntries", {',', 8, 2047}},
    };
    return m;
}

// Sent after each swept call of a method, to leave room for the next one (lists and mapping tables are bounded).
struct Cleanup {
    std::string method;
    std::function<V(const V &sent)> make;
};
const std::map<std::string, Cleanup> &cleanups()
{
    static const auto deleteIds = [](const char *key) {
        return [key](const V &) {
            std::vector<V> ids;
            for (int id = 1; id <= 32; ++id)
                ids.push_back(V::table({{key, V::num(id)}}));
            return V::table({{"MapList", V::array(ids)}, {"Operation", V::num(0)}});
        };
    };
    static const std::map<std::string, Cleanup> m = {
        {"RTPortMap.modPortMapping", {"modPortMapping", deleteIds("PmapID")}},
        {"RTPortMap.modGroupMapping", {"modGroupMapping", deleteIds("GmapID")}},
    };
    return m;
}

// ---- the hostile texts ---------------------------------------------------------------------------------------

std::vector<std::string> hostileTexts()
{
    return {
        "x;touch /tmp/CANARY1",
        "$(touch /tmp/CANARY2)",
        "`touch /tmp/CANARY3`",
        "a|touch /tmp/CANARY4",
        "a&&touch /tmp/CANARY5",
        ">/tmp/CANARY6",
        "a\ntouch /tmp/CANARY7",
        "${IFS}touch${IFS}/tmp/CANARY8",
        "a' 'b",
        "a\"b",
        "a\\;b\tc",
        "*",
        "-oFoo",
        // no blank, so that as the 12 MAC digits of an agent entry the whole text reaches the firewall tools
        "$(reboot);|&",
        "a\nb\tc;d>e&f|",
        std::string("\xff\xfe;touch /tmp/CANARY9\x80", 23),
        std::string(100, 'A') + ";touch /tmp/CANARY10;" + std::string(5000, 'B'),
        // a configuration text that tries to close its value and open a section of its own
        "x'\nconfig rule 'INJECTED'\n\toption name 'y",
        "",
    };
}

std::vector<std::string> shortHostileTexts()
{
    return {";>/tmp/CANARY11", "$(reboot);|&", "a\nb\tc;d>e&f|", "x' 'y", "x'\nconfig rule 'INJECTED'\n\toption name 'y",
            std::string(100, 'A') + ";touch /tmp/CANARY10;" + std::string(5000, 'B')};
}

std::string fill(const std::string &embedding, const std::string &text, int serial)
{
    std::string out;
    for (size_t i = 0; i < embedding.size();) {
        if (embedding.compare(i, 2, "{}") == 0) {
            out += text;
            i += 2;
        } else if (embedding.compare(i, 5, "{mac}") == 0) {
            out += colonMac(serial);
            i += 5;
        } else if (embedding.compare(i, 6, "{bare}") == 0) {
            out += bareMac(serial);
            i += 6;
        } else {
            out += embedding[i++];
        }
    }
    return out;
}

V *field(V &table, const std::string &name)
{
    for (auto &[n, v] : table.items)
        if (n == name)
            return &v;
    return nullptr;
}

bool plainWord(const std::string &w)
{
    return !w.empty() && std::all_of(w.begin(), w.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || std::string("_@%+=:,./-").find(c) != std::string::npos;
    });
}

// Colons dropped and letters upper-cased, as a MAC text is changed on its way to a command.
std::string folded(const std::string &s)
{
    std::string out;
    for (char c : s)
        if (c != ':')
            out += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

extern const std::vector<std::string> kMacObjects, kOtherObjects;

// ---- the fixture ---------------------------------------------------------------------------------------------

class InjectSweep : public RouterTest {
protected:
    // Sweeps every text argument of every method of these objects.
    void sweep(const std::vector<std::string> &objects)
    {
        ASSERT_NO_FATAL_FAILURE(startRouter());
        Signatures sig = busSignatures();
        for (const auto &[object, methods] : sig) {
            bool swept = std::count(kMacObjects.begin(), kMacObjects.end(), object) +
                         std::count(kOtherObjects.begin(), kOtherObjects.end(), object);
            EXPECT_TRUE(swept) << object << " is on the bus but in no case of the injection sweep";
        }
        for (const auto &object : objects) {
            ASSERT_TRUE(sig.count(object)) << object << " is not on the bus";
            for (const auto &method : sig[object])
                ASSERT_NO_FATAL_FAILURE(sweepMethod(object, method));
        }
        RecordProperty("calls", calls_);
    }

    void sweepMethod(const std::string &object, const Method &method)
    {
        const std::string key = object + "." + method.name;
        // The text leaves: a top-level String argument, or a String field of a table / array element.
        struct Leaf {
            std::string arg, field;   // field empty for a top-level argument
        };
        std::vector<Leaf> leaves;
        for (const auto &a : method.args) {
            if (a.type == "String") {
                leaves.push_back({a.name, ""});
            } else if (a.type == "Table" || a.type == "Array") {
                auto e = elements().find(key + "." + a.name);
                if (e == elements().end()) {
                    ADD_FAILURE() << key << " argument " << a.name << " (" << a.type
                                  << ") has no element description in the sweep; add its fields";
                    continue;
                }
                for (const auto &[f, v] : e->second.make(0).items)
                    if (v.kind == V::Str)
                        leaves.push_back({a.name, f});
            }
        }
        if (leaves.empty())
            return;

        // A valid request to build on, checked against the signature (stale entries of the table fail).
        Maker base = [&method](int) {
            V t = V::table();
            for (const auto &a : method.args)
                t.items.emplace_back(a.name, a.type == "String" ? V::str("x") : V::num(1));
            return t;
        };
        if (auto r = validRequests().find(key); r != validRequests().end())
            base = r->second;
        for (const auto &[n, v] : base(0).items) {
            bool known = std::any_of(method.args.begin(), method.args.end(),
                                     [&n = n](const Argument &a) { return a.name == n; });
            EXPECT_TRUE(known) << key << ": the sweep's request has argument " << n << ", the bus does not";
        }

        for (const auto &leaf : leaves) {
            const std::string leafKey = key + "." + leaf.arg + (leaf.field.empty() ? "" : "." + leaf.field);
            auto emb = embeddings().find(leafKey);
            const std::vector<Form> forms = emb == embeddings().end() ? std::vector<Form>{{"{}", true}} : emb->second;
            for (const auto &form : forms) {
                std::vector<std::string> values;
                for (const auto &text : form.everyText ? hostileTexts() : shortHostileTexts())
                    values.push_back(fill(form.text, text, ++serial_));
                sent_.insert(sent_.end(), values.begin(), values.end());
                ASSERT_NO_FATAL_FAILURE(sendLeaf(object, method.name, key, leaf.arg, leaf.field, leafKey, values, base));
            }
            ASSERT_TRUE(daemonRunning()) << "gwconfd ended while " << leafKey << " was swept";
        }
    }

    // Sends the values of one text leaf, as many per request as the argument takes.
    void sendLeaf(const std::string &object, const std::string &method, const std::string &key,
                  const std::string &arg, const std::string &fieldName, const std::string &leafKey,
                  const std::vector<std::string> &values, const Maker &base)
    {
        size_t perCall = 1;
        const Element *element = nullptr;
        const TextList *list = nullptr;
        if (!fieldName.empty()) {
            element = &elements().at(key + "." + arg);
            perCall = element->perCall;
        } else if (auto l = textLists().find(leafKey); l != textLists().end()) {
            list = &l->second;
        }
        auto withText = [&](const std::string &text) {
            V request = base(++serial_);
            if (field(request, arg) == nullptr)
                request.items.emplace_back(arg, V::str(""));
            *field(request, arg) = V::str(text);
            return request;
        };
        for (size_t at = 0, next = 0; at < values.size(); at = next) {
            V request;
            if (element == nullptr) {
                std::string text = values[at];
                next = at + 1;
                while (list && next < values.size() && next - at < list->perCall &&
                       text.size() + 1 + values[next].size() <= list->maxLength)
                    text += list->separator + values[next++];
                request = withText(text);
            } else {
                next = std::min(values.size(), at + perCall);
                std::vector<V> items;
                for (size_t i = at; i < next; ++i) {
                    V e = element->make(++serial_);
                    *field(e, fieldName) = V::str(values[i]);
                    items.push_back(e);
                }
                request = base(++serial_);
                V *slot = field(request, arg);
                ASSERT_NE(slot, nullptr) << key << ": the sweep's request lacks " << arg;
                *slot = element->perCall == 1 ? items[0] : V::array(items);
            }
            CallResult r = bus_.call(object, method, request);
            ++calls_;
            if (list && next - at > 1 && r.status != UBUS_STATUS_OK) {
                // One refused piece refuses the whole list: send the pieces one by one instead.
                for (size_t i = at; i < next && r.status != UBUS_STATUS_TIMEOUT; ++i, ++calls_)
                    r = bus_.call(object, method, withText(values[i]));
            }
            ASSERT_NE(r.status, UBUS_STATUS_TIMEOUT) << leafKey << " with " << testing::PrintToString(values[at]);
            ASSERT_NE(r.status, UBUS_STATUS_CONNECTION_FAILED) << leafKey;
            ASSERT_NE(r.status, UBUS_STATUS_NOT_FOUND) << leafKey << ": " << object << " left the bus";
            if (auto c = cleanups().find(key); c != cleanups().end()) {
                CallResult cr = bus_.call(object, c->second.method, c->second.make(request));
                ASSERT_EQ(cr.status, UBUS_STATUS_OK) << "cleanup after " << leafKey;
            }
        }
    }

    // No canary file; every journal line one of gwconfd's commands; every word with shell characters a piece of a
    // sent text. Returns the number of such words (hostile text that reached a command, each as one word).
    int checkAftermath()
    {
        // Besides the uci save folder and the WAN port redirect's script and log, nothing may have appeared in /tmp.
        for (const auto &name : tmpFiles()) {
            EXPECT_EQ(name.find("CANARY"), std::string::npos) << "a canary file exists: /tmp/" << name;
            EXPECT_TRUE(tmpBefore_.count(name) || name == ".uci" || name == "wanPortMap.sh" || name == "wanPortMap.log")
                << "a file appeared: /tmp/" << testing::PrintToString(name);
        }

        std::vector<std::string> foldedSent;
        for (const auto &s : sent_)
            foldedSent.push_back(folded(s));
        int carried = 0;
        for (const auto &line : journal()) {
            std::string error;
            auto words = journalWords(line, &error);
            if (!words) {
                ADD_FAILURE() << "journal line does not read back (" << error << "): " << line;
                continue;
            }
            std::vector<std::string> slots;
            if (daemonCommandShape(*words, &slots) < 0) {
                ADD_FAILURE() << "not a command gwconfd runs (or an argument split or joined): " << line;
                continue;
            }
            for (const auto &w : slots) {
                if (plainWord(w))
                    continue;
                const std::string f = folded(w);
                bool fromRequest = std::any_of(foldedSent.begin(), foldedSent.end(),
                                               [&f](const std::string &s) { return s.find(f) != std::string::npos; });
                EXPECT_TRUE(fromRequest) << "a word with shell characters that no request sent: "
                                         << testing::PrintToString(w) << " in " << line;
                carried += fromRequest;
            }
        }

        // The packages still read, and no text opened a section of its own.
        DIR *c = opendir(kConfigDir);
        EXPECT_NE(c, nullptr);
        while (dirent *e = c ? readdir(c) : nullptr) {
            const std::string pkg = e->d_name;
            if (pkg[0] == '.')
                continue;
            RunResult r = uci({"show", pkg});
            EXPECT_EQ(r.status, 0) << "package " << pkg << " no longer reads: " << r.err;
            EXPECT_EQ(r.out.find(pkg + ".INJECTED="), std::string::npos) << "a section was smuggled into " << pkg;
        }
        if (c)
            closedir(c);
        return carried;
    }

    static std::set<std::string> tmpFiles()
    {
        std::set<std::string> names;
        DIR *d = opendir("/tmp");
        EXPECT_NE(d, nullptr);
        while (dirent *e = d ? readdir(d) : nullptr)
            names.insert(e->d_name);
        if (d)
            closedir(d);
        return names;
    }

    void startRouter(bool keepStartCommands = false)
    {
        tmpBefore_ = tmpFiles();
        ASSERT_NO_FATAL_FAILURE(start());
        if (!keepStartCommands)
            clearJournal();
        ASSERT_TRUE(bus_.connect());
    }

    BusClient bus_;
    std::set<std::string> tmpBefore_;
    std::vector<std::string> sent_;
    int serial_ = 0;
    int calls_ = 0;
};

// The objects of the two sweep cases. Both check that every object on the bus is one of these, so a new object
// fails the sweep until it is given to one of them.
const std::vector<std::string> kMacObjects = {"firewall", "RTMacFilter", "zelmad.macfilter"};
const std::vector<std::string> kOtherObjects = {"RTPortMap", "zelmad.vlan", "RTIptv", "RTUpnp", "RTWanPortMap"};

TEST_F(InjectSweep, MacFilterTextsStayOneWord)
{
    ASSERT_NO_FATAL_FAILURE(sweep(kMacObjects));
    // The agent's MAC digits are not validated, so its texts do reach ebtables and ip6tables: as single words,
    // the twelve characters with a colon after every two and upper-cased, like any bare MAC.
    EXPECT_GT(checkAftermath(), 0) << "no hostile text reached a command; the sweep no longer tests the runner";
    const auto lines = journal();
    EXPECT_THAT(lines, testing::Contains("ebtables -I FORWARD 1 -s '$(:RE:BO:OT:);:|&' -j DROP"));
    EXPECT_THAT(lines, testing::Contains("ip6tables -I FORWARD -m mac --mac-source $'A\\n:B\\t:C;:D>:E&:F|' -j DROP"));
    // The text that tries to open a section of its own was stored as a device name (and stayed a value).
    EXPECT_NE(uciShow("firewall").find("config rule '\\''INJECTED'\\''"), std::string::npos);
}

TEST_F(InjectSweep, PortMapIptvUpnpAndWanRedirectTexts)
{
    ASSERT_NO_FATAL_FAILURE(sweep(kOtherObjects));
    // One valid redirect, so the delayed apply writes and runs its script; the network reload of the IPTV changes
    // and the apply both come 1 s after the last change.
    auto valid = validRequests().at("RTWanPortMap.setWanPortMap")(0);
    ASSERT_EQ(bus_.call("RTWanPortMap", "setWanPortMap", valid).reply, R"({"result":true})");
    ASSERT_TRUE(waitJournal("iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 8080 -s 203.0.113.7 -m mark "
                            "--mark 0x8888 -j ACCEPT",
                            5000));
    checkAftermath();
}

// Texts that other programs stored: the MAC filter lists and the DMZ address reach commands when gwconfd starts.
TEST_F(InjectSweep, StoredTextsReachCommandsAsOneWordEach)
{
    const std::string dmzAddress = "$(>/tmp/CANARY)";   // the address is read into 15 characters
    writeConfig("macFilter", "config macfilter 'main'\n\toption enabled '1'\n\toption curmode 'deny'\n\n"
                             "config filter 'blacklist'\n\tlist deny 'x;>/tmp/CANARY21/n'\n"
                             "\tlist deny '$(>/tmp/CANARY22)/n'\n\tlist deny 'AA:BB:CC:DD:EE:01/`>/tmp/CANARY23`'\n\n"
                             "config filter 'whitelist'\n\tlist allow 'a|>/tmp/CANARY24/n'\n");
    writeConfig("dmz", "config dmz 'dmz'\n\toption enabled '1'\n\toption dest_ip '" + dmzAddress + "'\n");
    writeConfig("iptv", "config iptv 'main'\n\toption enabled '1'\n\toption vlanid '1;reboot'\n\toption vlan1 '1'\n"
                        "\toption vlan2 '0'\n\toption vlan3 '0'\n\toption type '1'\n");
    writeConfig("upnpd", "config upnpd 'config'\n\toption _init '1'\n"
                         "\toption upnp_lease_file '/tmp/l;>/tmp/CANARY25'\n");
    sent_ = {dmzAddress, "x;>/tmp/CANARY21", "$(>/tmp/CANARY22)", "a|>/tmp/CANARY24"};
    ASSERT_NO_FATAL_FAILURE(startRouter(true));
    for (const auto &[object, method] : std::vector<std::pair<std::string, std::string>>{
             {"RTMacFilter", "getMacFilterList"}, {"zelmad.macfilter", "getMacFilter"}, {"RTIptv", "getIptvInfo"},
             {"zelmad.vlan", "getIptvVlan"}, {"RTUpnp", "getUpnpStatus"}})
        EXPECT_EQ(bus_.call(object, method, V::table()).status, UBUS_STATUS_OK) << object << " " << method;
    // The DMZ address is handed over whole, as the one word after --to.
    EXPECT_THAT(journal(), testing::Contains("iptables -t nat -I NatForward_DMZ -p all -j DNAT --to '" + dmzAddress + "'"));
    EXPECT_GE(checkAftermath(), 1);
}

}  // namespace
