// zr net, zr proxy, zr provision.

#include <gtest/gtest.h>
#include <platform/registry.h>
#include <signal.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/network_space.h"
#include "support/private_bus.h"
#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace {

using nlohmann::json;
using zr::test::lines_of;
using zr::test::NetworkSpace;
using zr::test::Result;
using zr::test::RunningZr;

constexpr const char* kOwn = "{3584769F-41FC-4035-BE97-320DA11E0F02}";
constexpr const char* kInternet = "{436EF144-B4FB-4863-A041-8F905A62C572}";

Result run(const std::vector<std::string>& args, const std::string& input = {}) {
    return zr::test::zr(args, input);
}

std::string entry(const std::string& name, const std::string& parms) {
    return "<characteristic type=\"" + name + "\">" + parms + "</characteristic>";
}
std::string parm(const std::string& name, const std::string& value) {
    return "<parm name=\"" + name + "\" value=\"" + value + "\"/>";
}
std::string document(const std::string& entries) {
    return "<wap-provisioningdoc>" + entry("CM_ProxyEntries", entries) + "</wap-provisioningdoc>";
}
std::string internet(const std::string& name, const std::string& proxy, int enable = 1, int type = 1) {
    return entry(name, parm("DestId", kInternet) + parm("Proxy", proxy) + parm("Enable", std::to_string(enable)) +
                           parm("Type", std::to_string(type)));
}

class ConnectionTool : public testing::Test {
protected:
    ~ConnectionTool() override {
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr");
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\Kelvane");
    }
    static void provision(const std::string& entries) {
        const Result done = run({"provision", "-"}, document(entries));
        ASSERT_EQ(done.code, 0) << done.err;
    }
    static void have_own() {
        for (const char* const prefix : {"HTTP-", "null-corp-"}) {
            provision(entry(std::string(prefix) + kOwn, parm("Enable", "0") + parm("Proxy", "127.0.0.1:8080")));
        }
    }
};

}  // namespace

// ---- provision ----

TEST_F(ConnectionTool, ProvisionsAndPrintsTheResult) {
    const Result done = run({"provision", "-"}, document(internet("A", "p:1")));
    EXPECT_EQ(done.code, 0) << done.err;
    EXPECT_NE(done.out.find("<characteristic type=\"A\">"), std::string::npos);
    EXPECT_NE(run({"proxy", "show", "a"}).out.find("proxy: p:1\n"), std::string::npos);
    const json told = json::parse(run({"provision", "--json", "-"}, document(internet("A", "p:1"))).out);
    EXPECT_EQ(told["done"], true);
    EXPECT_EQ(told["error"], "");
}

TEST_F(ConnectionTool, ShowsWhatADocumentWouldChange) {
    provision(internet("A", "p:1"));
    const std::string would = document(internet("A", "p:2") + entry("B", "") + "<nocharacteristic type=\"C\"/>" +
                                       entry("A", "<noparm name=\"Type\"/><noparm name=\"UserName\"/>"));
    const Result shown = run({"provision", "--dry-run", "-"}, would);
    EXPECT_EQ(shown.code, 0) << shown.err;
    const auto lines = lines_of(shown.out);
    ASSERT_EQ(lines.size(), 3u) << shown.out;
    EXPECT_TRUE(lines[0].starts_with("set ") && lines[0].find("p:2") != std::string::npos &&
                lines[0].find("was") != std::string::npos)
        << lines[0];
    EXPECT_TRUE(lines[1].starts_with("make key ")) << lines[1];
    EXPECT_TRUE(lines[2].starts_with("remove ")) << lines[2];
    EXPECT_EQ(lines_of(run({"provision", "--dry-run", "--json", "-"}, would).out).size(), 3u);
    EXPECT_NE(run({"proxy", "show", "A"}).out.find("proxy: p:1\n"), std::string::npos);
}

TEST_F(ConnectionTool, RefusesBadDocuments) {
    zr::test::expect_failure(run({"provision", "-"}, "no XML"), 15, "line 1");
    zr::test::expect_failure(run({"provision", "-"}, "\xFF\xFF"), 15, "not the text");
    zr::test::expect_failure(run({"provision", "/nowhere.xml"}), 6, "/nowhere.xml");
    const Result refused = run({"provision", "-"}, document(entry("A", parm("Enable", "perhaps"))));
    zr::test::expect_failure(refused, 15, "Enable");
    EXPECT_NE(refused.out.find("<parm-error name=\"Enable\""), std::string::npos);
    EXPECT_EQ(run({"proxy", "list"}).out, "");
}

TEST_F(ConnectionTool, ReadsTheEncodingsOfDocuments) {
    const std::string text = document(internet("A", "h\xC3\xA4:1"));
    std::string utf16 = "\xFF\xFE";
    for (const char16_t c : std::u16string(u"<wap-provisioningdoc/>")) {
        utf16 += {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
    }
    EXPECT_EQ(run({"provision", "-"}, "\xEF\xBB\xBF" + text).code, 0);
    EXPECT_EQ(run({"provision", "-"}, utf16).code, 0);
    const std::string latin = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + document(internet("A", "h\xE4:1"));
    EXPECT_EQ(run({"provision", "-"}, latin).code, 0);
    EXPECT_NE(run({"proxy", "show", "A"}).out.find("h\xC3\xA4:1"), std::string::npos);
}

// ---- proxy ----

TEST_F(ConnectionTool, ListsAndShowsEntries) {
    EXPECT_EQ(run({"proxy", "list"}).code, 0);
    provision(internet("A", "p:1") + internet("B", "q:2", 0));
    EXPECT_EQ(run({"proxy", "list"}).out, "A\ton p:1, - to Internet\nB\toff q:2, - to Internet\n");
    const json all = json::parse(run({"proxy", "list", "--json"}).out);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0]["name"], "A");
    EXPECT_EQ(all[0]["to"], "Internet");
    EXPECT_EQ(all[1]["enabled"], false);
    EXPECT_EQ(json::parse(run({"proxy", "show", "b", "--json"}).out)["proxy"], "q:2");
    zr::test::expect_failure(run({"proxy", "show", "C"}), 1, "no proxy entry");
}

TEST_F(ConnectionTool, EnablesAndDisables) {
    zr::test::expect_failure(run({"proxy", "enable"}), 1, "not there");
    have_own();
    EXPECT_EQ(run({"proxy", "enable"}).code, 0);
    const std::string own = std::string("HTTP-") + kOwn;
    EXPECT_EQ(json::parse(run({"proxy", "show", own, "--json"}).out)["enabled"], true);
    EXPECT_EQ(run({"proxy", "enable"}).code, 0);
    EXPECT_EQ(run({"proxy", "revert"}).code, 0);
    EXPECT_EQ(run({"proxy", "disable"}).code, 0);
    const json after = json::parse(run({"proxy", "show", own, "--json"}).out);
    EXPECT_EQ(after["enabled"], false);
    EXPECT_EQ(after["own"], true);
}

TEST_F(ConnectionTool, HandsTheProxyToAShell) {
    EXPECT_EQ(lines_of(run({"proxy", "env"}).out)[0], "unset http_proxy");
    provision(internet("A", "off:1", 0) + internet("B", "it's $(here):1"));
    const std::string script = run({"proxy", "env"}).out + "printf %s \"$https_proxy\"";
    EXPECT_EQ(zr::test::run({"sh", "-c", script}).out, "http://it's $(here):1");
    provision(internet("A", "socks:9", 1, 5));
    EXPECT_EQ(json::parse(run({"proxy", "env", "--json"}).out)["all_proxy"], "socks5://socks:9");
    EXPECT_TRUE(json::parse(run({"proxy", "env", "--json"}).out)["http_proxy"].is_null());
}

TEST_F(ConnectionTool, WritesAnAutoConfigurationFile) {
    EXPECT_NE(run({"proxy", "pac"}).out.find("return \"DIRECT\";\n}"), std::string::npos);
    provision(internet("A", "a\\&quot;b:1"));
    const auto file = zr::test::sandbox() / "proxy.pac";
    EXPECT_EQ(run({"proxy", "pac", file.string()}).code, 0);
    EXPECT_NE(zr::test::read_file(file.string()).find("return \"PROXY a\\\\\\\"b:1; DIRECT\";"), std::string::npos);
    std::filesystem::remove(file);
}

TEST_F(ConnectionTool, WatchesEntries) {
    zr::test::expect_failure(run({"proxy", "watch"}), 1, "");
    provision(internet("A", "p:1"));
    RunningZr watch({"proxy", "watch"});
    EXPECT_EQ(watch.read_line(), "now A: on p:1, - to Internet");
    provision(internet("A", "p:2"));
    EXPECT_EQ(watch.read_line(), "changed A: on p:2, - to Internet");
    provision(internet("B", "q:1"));
    EXPECT_EQ(watch.read_line(), "added B: on q:1, - to Internet");
    provision("<nocharacteristic type=\"A\"/>");
    EXPECT_EQ(watch.read_line(), "removed A: on p:2, - to Internet");
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

// ---- net ----

TEST_F(ConnectionTool, ShowsConnectionsAndWhatDecided) {
    const NetworkSpace network;
    ZR_NEEDS_NETWORK(network);
    const Result none = run({"net", "status"});
    EXPECT_EQ(none.code, 0) << none.err;
    EXPECT_EQ(none.out, "");
    ASSERT_TRUE(NetworkSpace::add_device("two"));
    ASSERT_TRUE(NetworkSpace::run("addr add 192.168.5.1/24 dev two"));
    EXPECT_NE(run({"net", "status"}).out.find("two\tconnected, ethernet, Work (private network), 192.168.5.1\n"),
              std::string::npos);
    EXPECT_EQ(run({"reg", "set", "HKLM\\Comm\\ConnMgr\\Rules\\10", "Network", "Internet"}).code, 0);
    const json all = json::parse(run({"net", "status", "--json"}).out);
    bool seen = false;
    for (const json& each : all) {
        if (each["name"] != "two") continue;
        seen = true;
        EXPECT_EQ(each["network"], "Internet");
        EXPECT_EQ(each["reason"], "rule 10");
        EXPECT_EQ(each["addresses"], json::array({"192.168.5.1"}));
    }
    EXPECT_TRUE(seen);
}

TEST_F(ConnectionTool, ShowsWhatNetworkManagerKnows) {
    using namespace zr::platform;
    const NetworkSpace network;
    ZR_NEEDS_NETWORK(network);
    const zr::test::PrivateBus bus;
    ZR_NEEDS_BUS(bus);
    ASSERT_TRUE(NetworkSpace::add_device("two"));
    ASSERT_TRUE(NetworkSpace::run("addr add 192.168.5.1/24 dev two"));
    const std::string name = "org.freedesktop.NetworkManager";
    const std::string root = "/org/freedesktop/NetworkManager";
    const zr::test::MockService manager(name, root, name);
    ASSERT_EQ(manager.why(), "");
    ASSERT_TRUE(
        manager.add_object(root + "/Devices/1", name + ".Device",
                           {bus_entry("Interface", bus_text("two")), bus_entry("Metered", bus_integer(1, 'u'))}));
    ASSERT_TRUE(manager.add_object(
        root + "/ActiveConnection/1", name + ".Connection.Active",
        {bus_entry("Id", bus_text("Tea\troom")), bus_entry("Type", bus_text("802-11-wireless")),
         bus_entry("State", bus_integer(2, 'u')), bus_entry("Connection", bus_text(root + "/Settings/3", 'o')),
         bus_entry("Devices", bus_array("o", {bus_text(root + "/Devices/1", 'o')}))}));
    ASSERT_TRUE(manager.add_properties(root + "/Devices/1", name + ".Device.Wireless",
                                       {bus_entry("ActiveAccessPoint", bus_text(root + "/AccessPoint/9", 'o'))}));
    ASSERT_TRUE(manager.add_object(root + "/AccessPoint/9", name + ".AccessPoint",
                                   {bus_entry("Strength", bus_integer(60, 'y'))}));
    ASSERT_TRUE(manager.add_object(root + "/Settings/3", name + ".Settings.Connection", {}));
    ASSERT_TRUE(manager.add_method(name + ".Settings.Connection", "GetSettings", "", "a{sa{sv}}",
                                   "ret = {'connection': {'timestamp': dbus.UInt64(1700000000)}}",
                                   root + "/Settings/3"));
    const BusValue active = bus_array("o", {bus_text(root + "/ActiveConnection/1", 'o')});
    ASSERT_EQ(manager
                  .call(zr::test::MockService::kMock, "AddProperties",
                        {bus_text(name), bus_array("{sv}", {bus_entry("ActiveConnections", active)})})
                  .result,
              BusResult::Answered);
    // A mock that a busy computer keeps from answering in time is asked once more.
    Result shown = run({"net", "status"});
    for (int again = 0; again < 20 && shown.out.find("2023") == std::string::npos; ++again) {
        shown = run({"net", "status"});
    }
    EXPECT_NE(shown.out.find("two\tconnected, wifi, \"Tea\\troom\", metered, signal 60 %, last connected "
                             "2023-11-14T22:13:20Z, Work (private network), 192.168.5.1\n"),
              std::string::npos)
        << shown.out;
    for (const json& each : json::parse(run({"net", "status", "--json"}).out)) {
        const bool is_two = each["name"] == "two";
        EXPECT_EQ(each["connection"], is_two ? "Tea\troom" : "");
        EXPECT_EQ(each["metered"], is_two);
        EXPECT_EQ(each["signal"], is_two ? json(60) : json());
        EXPECT_EQ(each["lastConnected"], is_two ? json("2023-11-14T22:13:20Z") : json());
    }
}

TEST_F(ConnectionTool, WatchesConnections) {
    const NetworkSpace network;
    ZR_NEEDS_NETWORK(network);
    ASSERT_TRUE(NetworkSpace::add_device("one"));
    RunningZr watch({"net", "watch"});
    EXPECT_TRUE(watch.read_line().starts_with("now "));
    EXPECT_TRUE(watch.read_line().starts_with("now "));
    ASSERT_TRUE(NetworkSpace::run("addr add 192.168.4.1/24 dev one"));
    std::string line;
    do {
        line = watch.read_line();
    } while (line.find("192.168.4.1") == std::string::npos && !line.empty());
    EXPECT_EQ(line, "changed one: connected, ethernet, Work (private network), 192.168.4.1");
    ASSERT_TRUE(NetworkSpace::run("link del one"));
    do {
        line = watch.read_line();
    } while (!line.starts_with("removed one:") && !line.empty());
    EXPECT_TRUE(line.starts_with("removed one:"));
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
}
