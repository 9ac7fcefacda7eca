#include <gtest/gtest.h>
#include <platform/registry.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "support/sandbox.h"
#include "zr/base/text.h"
#include "zr/commands/tool.h"
#include "zr/regfile/random_registry.h"

namespace {

using nlohmann::json;
using zr::RegPath;
using zr::RegValue;
using zr::test::kData;
using zr::test::lines_of;
using zr::test::read_file;
using zr::test::Result;
using zr::test::RunningZr;
using zr::test::write_file;

const std::string kHeader = "Windows Registry Editor Version 5.00\r\n";

using Lines = std::vector<std::string>;

Result reg(std::vector<std::string> args, const std::string& input = {}) {
    args.insert(args.begin(), "reg");
    return zr::test::zr(args, input);
}

Lines json_lines(const Result& result, const char* field) {
    Lines all;
    for (const std::string& line : lines_of(result.out)) {
        const json object = json::parse(line);
        if (object.contains(field)) all.push_back(object[field].get<std::string>());
    }
    return all;
}

void expect_plain_failure(const Result& result, int code, const std::string& part) {
    EXPECT_EQ(result.out, "");
    zr::test::expect_failure(result, code, part);
}

HKEY root_of(const RegPath& path) {
    const HKEY roots[] = {HKEY_CLASSES_ROOT, HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, HKEY_USERS};
    return roots[static_cast<std::size_t>(path.root)];
}

// Everything in the registry, as the platform tells this process: keys by their path, values by name.
using Contents = std::map<std::u16string, std::map<std::u16string, std::pair<DWORD, std::string>>>;

void add_contents(HKEY key, const std::u16string& path, Contents& all) {
    auto& values = all[path];
    WCHAR name[256];
    std::string data(1 << 16, '\0');
    for (DWORD i = 0;; ++i) {
        DWORD length = 256;
        DWORD type = 0;
        auto size = static_cast<DWORD>(data.size());
        const LONG result =
            RegEnumValueW(key, i, name, &length, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
        if (result == static_cast<LONG>(ERROR_NO_MORE_ITEMS)) break;
        ASSERT_EQ(result, ERROR_SUCCESS);
        values[{name, length}] = {type, data.substr(0, size)};
    }
    for (DWORD i = 0;; ++i) {
        DWORD length = 256;
        const LONG result = RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (result == static_cast<LONG>(ERROR_NO_MORE_ITEMS)) break;
        ASSERT_EQ(result, ERROR_SUCCESS);
        HKEY child = nullptr;
        ASSERT_EQ(RegOpenKeyExW(key, name, 0, KEY_READ, &child), ERROR_SUCCESS);
        add_contents(child, path + u"\\" + std::u16string(name, length), all);
        RegCloseKey(child);
    }
}

Contents contents() {
    Contents all;
    for (const zr::RegRoot root : zr::kRegRoots) {
        add_contents(root_of({root, u""}), zr::to_utf16(zr::reg_root_name(root)), all);
    }
    return all;
}

void clear_registry() {
    for (const zr::RegRoot root : zr::kRegRoots) {
        const HKEY key = root_of({root, u""});
        WCHAR name[256];
        for (DWORD length = 256;
             RegEnumKeyExW(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS; length = 256) {
            ASSERT_EQ(RegDeleteKeyW(key, name), ERROR_SUCCESS);
        }
        for (DWORD length = 256;
             RegEnumValueW(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS; length = 256) {
            ASSERT_EQ(RegDeleteValueW(key, name), ERROR_SUCCESS);
        }
    }
}

class RegTool : public testing::Test {
protected:
    std::string file(const std::string& name) const { return folder_.host() / name; }
    std::string file(const std::string& name, const std::string& text) const {
        write_file(file(name), text);
        return file(name);
    }

private:
    zr::test::TempFolder folder_;
};

TEST_F(RegTool, SetsGetsAndDeletes) {
    EXPECT_EQ(reg({"set", "HKCU\\A b\\C", "Name", "Jo \"D\""}).out, "");
    EXPECT_EQ(reg({"get", "hkey_current_user\\a B\\c\\", "NAME"}).out, "Jo \"D\"\n");
    EXPECT_EQ(reg({"set", "HKCU\\A b\\C", "Port", "0x1f90", "-t", "dword"}).code, 0);
    EXPECT_EQ(reg({"get", "HKCU\\A b\\C", "Port"}).out, "8080\n");
    EXPECT_EQ(reg({"set", "HKCU\\A b\\C", "@", "default"}).code, 0);
    EXPECT_EQ(reg({"get", "HKCU\\A b\\C"}).out, "default\n");
    EXPECT_EQ(reg({"get", "HKCU\\A b\\C", ""}).out, "default\n");
    EXPECT_EQ(reg({"set", "HKCU\\A b\\C", "--type", "multi_sz", "--", "Many", "-a", "b c"}).code, 0);
    EXPECT_EQ(reg({"get", "HKCU\\A b\\C", "Many"}).out, "-a\nb c\n");
    EXPECT_EQ(reg({"get", "HKCU\\A b\\C", "Many", "--json"}).out,
              R"({"key":"HKEY_CURRENT_USER\\A b\\C","name":"Many","type":"REG_MULTI_SZ","data":["-a","b c"]})"
              "\n");
    EXPECT_EQ(reg({"set", "HKCU\\A b\\C", "Blob", "01 ff", "--type", "0x99", "--json"}).out,
              R"({"key":"HKEY_CURRENT_USER\\A b\\C","name":"Blob","type":"153","hex":"01ff"})"
              "\n");
    EXPECT_EQ(reg({"set", "HKCU\\Empty"}).code, 0);
    EXPECT_EQ(reg({"list", "HKCU"}).out, "A b\\\nEmpty\\\n");
    // Several values are deleted together or not at all.
    expect_plain_failure(reg({"delete", "HKCU\\A b\\C", "Port", "None"}), 1,
                         "no value \"None\" in HKEY_CURRENT_USER\\A b\\C");
    EXPECT_EQ(reg({"delete", "HKCU\\A b\\C", "Port", "@", "--json"}).out,
              "{\"deleted\":\"value\",\"key\":\"HKEY_CURRENT_USER\\\\A b\\\\C\",\"name\":\"Port\"}\n"
              "{\"deleted\":\"value\",\"key\":\"HKEY_CURRENT_USER\\\\A b\\\\C\",\"name\":\"\"}\n");
    EXPECT_EQ(reg({"list", "HKCU\\A b\\C"}).out,
              "Blob\t153\t01 ff\nMany\tREG_MULTI_SZ\t\"-a\" \"b c\"\nName\tREG_SZ\tJo \"D\"\n");
    expect_plain_failure(reg({"delete", "HKCU\\A b"}), 2, "has keys below it; --tree deletes them too");
    EXPECT_EQ(reg({"delete", "HKCU\\A b", "--tree"}).code, 0);
    EXPECT_EQ(reg({"delete", "HKCU\\Empty"}).code, 0);
    EXPECT_EQ(reg({"list", "HKCU"}).out, "");
}

TEST_F(RegTool, SaysWhatIsNotThere) {
    for (const char* command : {"get", "list", "tree", "watch", "delete", "export"}) {
        expect_plain_failure(reg({command, "HKLM\\None"}), 1, "no key HKEY_LOCAL_MACHINE\\None");
    }
    expect_plain_failure(reg({"get", "HKLM", "x"}), 1, "no value \"x\" in HKEY_LOCAL_MACHINE");
    EXPECT_EQ(contents().size(), 4u);
}

TEST_F(RegTool, RefusesWrongUsage) {
    const std::vector<Lines> wrong = {
        {},
        {"get"},
        {"get", "Software"},
        {"get", "HKLM\\\xFF"},
        {"get", "HKLM\\" + std::string(256, 'n')},
        {"get", "HKLM", std::string(256, 'n')},
        {"set", "HKCU\\A", "N"},
        {"set", "HKCU\\A", "N", "1", "2"},
        {"set", "HKCU\\A", "N", "x", "--type", "dword"},
        {"set", "HKCU\\A", "N", "x", "--type", "word"},
        {"set", "HKCU\\A", "N", "0a f", "--type", "binary"},
        {"delete", "HKCU"},
        {"delete", "HKCU", "N", "--tree"},
        {"tree", "--depth", "0"},
        {"import"},
        {"export", "--format", "3"},
        {"export", "--encoding", "windows-1252"},
    };
    for (const Lines& args : wrong) {
        expect_plain_failure(reg(args), 2, "");
    }
    EXPECT_EQ(contents().size(), 4u);
}

TEST_F(RegTool, TakesTheLongestNames) {
    const std::string most(255, 'n');
    EXPECT_EQ(reg({"set", "HKCU\\" + most, most, "x"}).code, 0);
    EXPECT_EQ(reg({"get", "HKCU\\" + most, most}).out, "x\n");
}

TEST_F(RegTool, PrintsTrees) {
    ASSERT_EQ(reg({"import", "-q", "-"}, kHeader + "[HKCU\\A]\n@=\"x\"\n[HKCU\\A\\B\\C]\n\"n\"=dword:a\n").out, "");
    EXPECT_EQ(reg({"tree", "HKCU\\A"}).out,
              "HKEY_CURRENT_USER\\A\\\n  @ = REG_SZ x\n  B\\\n    C\\\n      \"n\" = REG_DWORD 10\n");
    EXPECT_EQ(reg({"tree", "HKCU\\A", "--depth", "1", "--keys"}).out, "HKEY_CURRENT_USER\\A\\\n  B\\\n");
    EXPECT_EQ(json_lines(reg({"tree", "--json", "--keys"}), "key"),
              (Lines{"HKEY_CLASSES_ROOT", "HKEY_CURRENT_USER", "HKEY_CURRENT_USER\\A", "HKEY_CURRENT_USER\\A\\B",
                     "HKEY_CURRENT_USER\\A\\B\\C", "HKEY_LOCAL_MACHINE", "HKEY_USERS"}));
    EXPECT_EQ(lines_of(reg({"tree", "HKCU\\A", "--json"}).out)[0],
              R"({"key":"HKEY_CURRENT_USER\\A","values":[{"name":"","type":"REG_SZ","data":"x"}]})");
    EXPECT_EQ(json_lines(reg({"list", "HKCU\\A", "--json"}), "key"),
              (Lines{"HKEY_CURRENT_USER\\A\\B", "HKEY_CURRENT_USER\\A"}));
}

TEST_F(RegTool, EscapesControlCharacters) {
    ASSERT_EQ(reg({"import", "-"}, kHeader + "[HKCU\\A\x1B[31m]\n\"n\x07\"=\"\x1B[2J\"\n").code, 0);
    for (const Result& result :
         {reg({"tree"}), reg({"tree", "--json"}), reg({"list", "HKCU"}), reg({"list", "HKCU\\A\x1B[31m"}),
          reg({"get", "HKCU\\A\x1B[31m", "n\x07"}), reg({"get", "HKCU\\\x1B"})}) {
        EXPECT_EQ((result.out + result.err).find('\x1B'), std::string::npos);
        EXPECT_EQ((result.out + result.err).find('\x07'), std::string::npos);
        EXPECT_NE((result.out + result.err).find("1b"), std::string::npos) << result.out;
    }
}

TEST_F(RegTool, ImportsTheSamples) {
    ASSERT_EQ(reg({"set", "HKCU\\Software\\Kelvane\\Halcyon 1\\Old", "x", "y"}).code, 0);
    ASSERT_EQ(reg({"set", "HKCU\\ControlPanel\\Owner", "Stale", "y"}).code, 0);
    const Result result = reg({"import", kData + "desktop-5.reg", kData + "device-4.reg"});
    EXPECT_EQ(result.out, "imported 8 keys, 23 values, 3 deletions\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.code, 0);
    const std::string halcyon = "HKCU\\Software\\Kelvane\\Halcyon";
    EXPECT_EQ(reg({"get", halcyon}).out, "Halcyon für Büro und Reise\n");
    EXPECT_EQ(reg({"get", halcyon, "Accounts"}).out, "jo@example.com\nteam@example.com\n");
    EXPECT_EQ(reg({"get", halcyon, "CachePath"}).out, "%APPDATA%\\cache\n");
    EXPECT_EQ(reg({"get", halcyon, "Signature"}).out, "\"Jo Doe\\r\\nExample Ltd\\r\\n\"\n");
    EXPECT_EQ(reg({"get", halcyon, "WindowLeft"}).out, "4294967196\n");
    EXPECT_EQ(reg({"get", halcyon, "Odd"}).out, "01 02 03\n");
    EXPECT_EQ(reg({"get", "HKLM\\System\\StorageManager\\Profiles", "Names"}).out, "Storage Card\nBüro\n");
    EXPECT_EQ(reg({"get", "HKLM\\System\\StorageManager\\Profiles", "Language"}).out, "a.dll\n");
    EXPECT_EQ(reg({"get", "HKLM\\Software\\Microsoft\\Color", "9"}).out, "16777215\n");
    EXPECT_EQ(reg({"list", halcyon + " 1"}).code, 1);
    EXPECT_EQ(reg({"get", "HKCU\\ControlPanel\\Owner", "Stale"}).code, 1);
    EXPECT_EQ(reg({"get", "HKCU\\ControlPanel\\Owner", "Timeouts"}).out, "60\n");
}

TEST_F(RegTool, WatchesChangesOfOtherProcesses) {
    ASSERT_EQ(reg({"set", "HKCU\\A\\B", "n", "1"}).code, 0);
    RunningZr watch({"reg", "watch", "HKCU\\A"});
    EXPECT_EQ(watch.read_line(), "now HKEY_CURRENT_USER\\A: 1 key, 1 value");
    ASSERT_EQ(reg({"set", "HKCU\\A\\B", "n", "a\nb"}).code, 0);
    EXPECT_EQ(watch.read_line(), "set HKEY_CURRENT_USER\\A\\B: \"n\" = REG_SZ \"a\\nb\"");
    ASSERT_EQ(reg({"set", "HKCU\\Elsewhere", "n", "x"}).code, 0);
    ASSERT_EQ(reg({"set", "HKCU\\A\\C\\D"}).code, 0);
    EXPECT_EQ(watch.read_line(), "key added HKEY_CURRENT_USER\\A\\C");
    EXPECT_EQ(watch.read_line(), "key added HKEY_CURRENT_USER\\A\\C\\D");
    ASSERT_EQ(reg({"delete", "HKCU\\A\\B", "n"}).code, 0);
    EXPECT_EQ(watch.read_line(), "removed HKEY_CURRENT_USER\\A\\B: \"n\"");
    // Changes that are made as one are seen as one.
    ASSERT_EQ(
        reg({"import", "-q", "-"}, kHeader + "[-HKCU\\A\\C]\n[HKCU\\A]\n@=dword:7\n[HKCU\\A\\E]\n\"e\"=hex:1\n").code,
        0);
    EXPECT_EQ(watch.read_line(), "key removed HKEY_CURRENT_USER\\A\\C");
    EXPECT_EQ(watch.read_line(), "key removed HKEY_CURRENT_USER\\A\\C\\D");
    EXPECT_EQ(watch.read_line(), "set HKEY_CURRENT_USER\\A: @ = REG_DWORD 7");
    EXPECT_EQ(watch.read_line(), "key added HKEY_CURRENT_USER\\A\\E");
    EXPECT_EQ(watch.read_line(), "set HKEY_CURRENT_USER\\A\\E: \"e\" = REG_BINARY 01");
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.read_line(), "");
}

TEST_F(RegTool, WatchesAKeyAloneInJson) {
    ASSERT_EQ(reg({"set", "HKCU\\A\\B", "n", "1"}).code, 0);
    RunningZr watch({"reg", "watch", "HKCU\\A", "--key-only", "--json"});
    EXPECT_EQ(json::parse(watch.read_line()),
              json::parse(R"({"change":"now","key":"HKEY_CURRENT_USER\\A","keys":1,"values":0})"));
    ASSERT_EQ(reg({"set", "HKCU\\A\\B", "n", "2"}).code, 0);
    ASSERT_EQ(reg({"set", "HKCU\\A", "Port", "80", "-t", "dword"}).code, 0);
    EXPECT_EQ(
        json::parse(watch.read_line()),
        json::parse(R"({"change":"set","key":"HKEY_CURRENT_USER\\A","name":"Port","type":"REG_DWORD","data":80})"));
    ASSERT_EQ(reg({"delete", "HKCU\\A", "Port"}).code, 0);
    EXPECT_EQ(json::parse(watch.read_line()),
              json::parse(R"({"change":"removed","key":"HKEY_CURRENT_USER\\A","name":"Port"})"));
    ASSERT_EQ(reg({"set", "HKCU\\A\\C"}).code, 0);
    EXPECT_EQ(json::parse(watch.read_line()), json::parse(R"({"change":"key-added","key":"HKEY_CURRENT_USER\\A\\C"})"));
    // Its end is the end of the watch, even when it is there again.
    ASSERT_EQ(reg({"import", "-q", "-"}, kHeader + "[-HKCU\\A]\n[HKCU\\A]\n").code, 0);
    Lines last;
    for (std::string line = watch.read_line(); !line.empty(); line = watch.read_line()) {
        last.push_back(json::parse(line)["change"].get<std::string>() + " " +
                       json::parse(line)["key"].get<std::string>());
    }
    EXPECT_EQ(last, (Lines{"key-removed HKEY_CURRENT_USER\\A", "key-removed HKEY_CURRENT_USER\\A\\B",
                           "key-removed HKEY_CURRENT_USER\\A\\C"}));
    EXPECT_EQ(watch.wait(), 1);
}

// What is printed adds up to what there is at the end, however fast the changes come.
TEST_F(RegTool, WatchesUntilTheLastOfManyChanges) {
    RunningZr watch({"reg", "watch", "HKCU", "--json"});
    ASSERT_EQ(json::parse(watch.read_line())["change"], "now");
    std::map<std::string, json> known;
    std::thread writer([] {
        std::mt19937 random(7);
        for (int i = 0; i < 2000; ++i) {
            const std::u16string name = zr::to_utf16("v" + std::to_string(random() % 20));
            const auto number = static_cast<DWORD>(random());
            if (random() % 4 == 0) {
                RegDeleteValueW(HKEY_CURRENT_USER, name.c_str());
            } else {
                RegSetValueExW(HKEY_CURRENT_USER, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                               sizeof number);
            }
        }
        RegSetValueExW(HKEY_CURRENT_USER, u"end", 0, REG_SZ, nullptr, 0);
    });
    while (!known.contains("end")) {
        const json line = json::parse(watch.read_line());
        const std::string name = line["name"];
        if (line["change"] == "removed") {
            EXPECT_EQ(known.erase(name), 1u);
        } else {
            ASSERT_EQ(line["change"], "set");
            EXPECT_TRUE(!known.contains(name) || known[name] != line);
            known[name] = line;
        }
    }
    writer.join();
    // "end" sorts before the others of the same look.
    watch.kill(SIGINT);
    for (std::string text = watch.read_line(); !text.empty(); text = watch.read_line()) {
        const json line = json::parse(text);
        if (line["change"] == "removed") {
            known.erase(line["name"].get<std::string>());
        } else {
            known[line["name"].get<std::string>()] = line;
        }
    }
    EXPECT_EQ(watch.wait(), 0);
    const Contents all = contents();
    const auto& values = all.at(u"HKEY_CURRENT_USER");
    EXPECT_EQ(known.size(), values.size());
    for (const auto& [name, value] : values) {
        const json& line = known[zr::to_utf8(name)];
        if (value.first == REG_DWORD) {
            DWORD number = 0;
            memcpy(&number, value.second.data(), sizeof number);
            EXPECT_EQ(line["data"], number);
        }
    }
}

const Lines kDamage = {":5: refused: dword: with more than eight digits", ":6: refused: 'z' is not a hexadecimal byte",
                       ":10: refused: unknown root 'HKEY_CURRENT_USR'",
                       ":14: refused: a backslash in quotes that is not doubled",
                       ":15: refused: a text without \" at its end"};

TEST_F(RegTool, ImportsNothingOfDamagedFiles) {
    const std::string good = file("good.reg", "REGEDIT4\n[HKCU\\Good]\n");
    const Result result = reg({"import", good, kData + "damaged.reg"});
    EXPECT_EQ(result.code, 14);
    EXPECT_EQ(result.out, "");
    Lines expected;
    for (const std::string& each : kDamage) {
        expected.push_back("zr: " + kData + "damaged.reg" + each);
    }
    expected.push_back("zr: nothing was imported");
    EXPECT_EQ(lines_of(result.err), expected);
    EXPECT_EQ(contents().size(), 4u);
    // A file that cannot be read keeps the others out too.
    const Result missing = reg({"import", good, file("missing.reg")});
    EXPECT_EQ(missing.code, 6);
    EXPECT_NE(missing.err.find("missing.reg: No such file"), std::string::npos);
    EXPECT_EQ(contents().size(), 4u);
    std::string many = "REGEDIT4\n";
    for (int i = 0; i < 100; ++i) {
        many += "x\n";
    }
    const Result given_up = reg({"import", file("many.reg", many)});
    EXPECT_EQ(given_up.code, 14);
    EXPECT_EQ(lines_of(given_up.err).size(), 22u);
    EXPECT_NE(given_up.err.find("many.reg: given up\n"), std::string::npos);
}

TEST_F(RegTool, ImportsWhatIsGoodWhenToldTo) {
    const Result result = reg({"import", "--keep-going", "--json", file("missing.reg"), kData + "damaged.reg"});
    EXPECT_EQ(result.code, 6);
    const Lines lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), kDamage.size() + 1);
    const json first = json::parse(lines[0]);
    EXPECT_EQ(first["file"], kData + "damaged.reg");
    EXPECT_EQ(first["line"], 5);
    EXPECT_EQ(first["effect"], "left out");
    EXPECT_EQ(json::parse(lines.back()),
              json::parse(R"({"keys":2,"values":3,"deletedKeys":0,"deletedValues":0,"leftOut":5})"));
    EXPECT_EQ(reg({"tree", "HKCU\\Software"}).out,
              "HKEY_CURRENT_USER\\Software\\\n  Also good\\\n    \"Third\" = REG_SZ kept\n  Good\\\n"
              "    \"First\" = REG_SZ kept\n    \"Second\" = REG_DWORD 2\n");
    const Result again = reg({"import", "--keep-going", kData + "damaged.reg"});
    EXPECT_EQ(again.code, 7);
    EXPECT_EQ(again.out, "imported 2 keys, 3 values; left out 5\n");
}

TEST_F(RegTool, NamesLongNamesByLine) {
    const std::string text =
        kHeader + "[HKCU\\" + std::string(255, 'k') + "]\n\"" + std::string(256, 'v') + "\"=dword:1\n";
    EXPECT_NE(reg({"import", "-"}, text).err.find("standard input:3: refused: a value's name of 256 characters"),
              std::string::npos);
    EXPECT_EQ(contents().size(), 4u);
    EXPECT_EQ(reg({"import", "--keep-going", "-"}, text).code, 7);
    EXPECT_EQ(contents().size(), 5u);
}

TEST_F(RegTool, RefusesWhatIsNoFileToImport) {
    EXPECT_EQ(reg({"import", file("")}).code, 6);
    std::filesystem::create_symlink("loop", file("loop"));
    EXPECT_NE(reg({"import", file("loop")}).err.find("loop: Too many levels of symbolic links"), std::string::npos);
    const std::string own = file("own.reg", "REGEDIT4\n[HKCU\\Own]\n");
    const Result result = zr::test::run({"sh", "-c", "exec \"$0\" reg import \"$1\" >> \"$1\"", ZR_TOOL, own});
    EXPECT_EQ(result.code, 6);
    EXPECT_NE(result.err.find("own.reg: is what this command writes to"), std::string::npos);
    EXPECT_EQ(read_file(own), "REGEDIT4\n[HKCU\\Own]\n");
    EXPECT_EQ(reg({"import", ZR_TOOL}).code, 14);
    EXPECT_EQ(contents().size(), 4u);
    // The same file twice says the same twice.
    EXPECT_EQ(reg({"import", own, own}).out, "imported 2 keys, 0 values\n");
}

TEST_F(RegTool, ImportsFromPipes) {
    const Result result =
        zr::test::run({"sh", "-c", "cat \"$1\" | \"$0\" reg import -", ZR_TOOL, kData + "desktop-5.reg"});
    EXPECT_EQ(result.out, "imported 3 keys, 13 values, 2 deletions\n");
    // An export that is imported as it comes.
    const Contents before = contents();
    EXPECT_EQ(zr::test::run({"sh", "-c", "\"$0\" reg export | \"$0\" reg import -q -", ZR_TOOL}).code, 0);
    EXPECT_EQ(contents(), before);
}

TEST_F(RegTool, ExportsToAFileWholeOrNot) {
    ASSERT_EQ(reg({"set", "HKCU\\A", "n", "ü"}).code, 0);
    EXPECT_EQ(reg({"export", "HKCU\\A", "-o", file("a.reg", "before"), "--format", "4"}).code, 0);
    EXPECT_EQ(read_file(file("a.reg")), "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\A]\r\n\"n\"=\"\xFC\"\r\n");
    EXPECT_EQ(reg({"export", "--encoding", "utf-8"}).out,
              "\xEF\xBB\xBF" + kHeader + "\r\n[HKEY_CURRENT_USER\\A]\r\n\"n\"=\"ü\"\r\n");
    EXPECT_TRUE(reg({"export"}).out.starts_with(std::string("\xFF\xFEW\0i\0", 6)));
    EXPECT_EQ(reg({"export", "HKCU\\A", "--json"}).out,
              R"({"key":"HKEY_CURRENT_USER\\A","values":[{"name":"n","type":"REG_SZ","data":"ü"}]})"
              "\n");
    EXPECT_EQ(reg({"export", "-o", "/dev/full"}).code, 8);
    ASSERT_EQ(reg({"set", "HKCU\\A\\山\\B", "n", "x"}).code, 0);
    const Result left_out = reg({"export", "HKCU\\A", "--format", "4", "-o", file("a.reg")});
    EXPECT_EQ(left_out.code, 7);
    EXPECT_EQ(left_out.err,
              "zr: left out: HKEY_CURRENT_USER\\A\\山 with all below it: a name that Windows-1252 does not have\n");
    EXPECT_EQ(read_file(file("a.reg")), "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\A]\r\n\"n\"=\"\xFC\"\r\n");
}

void fill_at_random(zr::test::RandomRegistry& random) {
    for (int keys = 0; keys < 60; ++keys) {
        const RegPath path = random.path();
        HKEY key = nullptr;
        ASSERT_EQ(
            RegCreateKeyExW(root_of(path), path.below.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
            ERROR_SUCCESS);
        for (std::size_t n = random.below(6); n > 0; --n) {
            const std::u16string name = random.text(10, u"");
            const RegValue value = random.value();
            ASSERT_EQ(RegSetValueExW(key, name.c_str(), 0, value.type, reinterpret_cast<const BYTE*>(value.data.data()),
                                     static_cast<DWORD>(value.data.size())),
                      ERROR_SUCCESS);
        }
        RegCloseKey(key);
    }
}

// Whatever is in a registry comes back bit by bit.
TEST_F(RegTool, ImportsWhatItExportedAsItWas) {
    for (unsigned seed = 0; seed < 4; ++seed) {
        zr::test::RandomRegistry random(seed);
        fill_at_random(random);
        const Contents before = contents();
        ASSERT_GT(before.size(), 50u);
        const std::string encoding = seed % 2 == 0 ? "utf-16" : "utf-8";
        const Result exported = reg({"export", "-o", file("all.reg"), "--encoding", encoding});
        ASSERT_EQ(exported.code, 0) << exported.err;
        clear_registry();
        ASSERT_EQ(contents().size(), 4u);
        const Result imported = reg({"import", file("all.reg")});
        ASSERT_EQ(imported.code, 0) << imported.err;
        EXPECT_EQ(contents(), before) << seed;
    }
}

// Keys that come and go move the positions of those that stay.
TEST_F(RegTool, MissesNothingSilentlyWhileOthersChange) {
    std::string text = kHeader;
    for (int i = 0; i < 300; ++i) {
        text += "[HKCU\\Stays" + std::to_string(i) + "]\n";
    }
    ASSERT_EQ(reg({"import", "-q", "-"}, text).code, 0);
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) {
            HKEY key = nullptr;
            RegCreateKeyExW(HKEY_CURRENT_USER, u"Comes and goes", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                            nullptr);
            RegCloseKey(key);
            RegDeleteKeyW(HKEY_CURRENT_USER, u"Comes and goes");
        }
    });
    for (int round = 0; round < 4; ++round) {
        const Result result = reg({"export", "HKCU", "-o", file("all.reg"), "--encoding", "utf-8"});
        EXPECT_EQ(result.code, 0);
        const std::string all = read_file(file("all.reg"));
        int there = 0;
        for (std::size_t at = 0; (at = all.find("\\Stays", at)) != std::string::npos; ++at) {
            ++there;
        }
        if (result.err.empty()) {
            EXPECT_EQ(there, 300);
        } else {
            EXPECT_NE(result.err.find("warning: the registry was changed meanwhile"), std::string::npos) << result.err;
        }
    }
    done = true;
    other.join();
    EXPECT_EQ(reg({"export", "HKCU", "-o", file("all.reg")}).err, "");
}

std::string numbered(int count, int number) {
    std::string text = kHeader + "[HKCU\\Numbers]\n";
    for (int i = 0; i < count; ++i) {
        text += "\"v" + std::to_string(i) + "\"=\"" + std::to_string(number) + "\"\n";
    }
    return text;
}

std::map<std::string, int> numbers() {
    std::map<std::string, int> counts;
    const std::string out = reg({"list", "HKCU\\Numbers", "--json"}).out;
    for (const std::string& line : lines_of(out)) {
        ++counts[json::parse(line)["data"].get<std::string>()];
    }
    return counts;
}

// The last one to come has all of it.
TEST_F(RegTool, ImportsOfTwoProcessesDoNotMix) {
    for (int round = 0; round < 3; ++round) {
        RunningZr one({"reg", "import", file("1.reg", numbered(1000, 1))});
        RunningZr two({"reg", "import", file("2.reg", numbered(1000, 2))});
        EXPECT_EQ(one.wait(), 0);
        EXPECT_EQ(two.wait(), 0);
        const auto counts = numbers();
        ASSERT_EQ(counts.size(), 1u);
        EXPECT_EQ(counts.begin()->second, 1000);
    }
}

TEST_F(RegTool, LeavesAllOrNothingWhenItIsKilled) {
    constexpr int kValues = 1500;
    int imported = 0;
    for (int round = 1; round <= 10; ++round) {
        RunningZr import({"reg", "import", file("n.reg", numbered(kValues, round))});
        usleep(static_cast<useconds_t>(round * 10000));
        import.kill(SIGKILL);
        import.wait();
        const auto counts = numbers();
        ASSERT_LE(counts.size(), 1u) << round;
        if (counts.empty()) continue;
        ASSERT_EQ(counts.begin()->second, kValues) << round;
        ++imported;
    }
    RecordProperty("imported", imported);
}

TEST_F(RegTool, NamesADamagedStoreThatWasSetAside) {
    ASSERT_EQ(reg({"set", "HKCU\\A", "n", "x"}).code, 0);
    const std::filesystem::path store = zr::test::sandbox_home() / "registry.db";
    ASSERT_TRUE(std::filesystem::exists(store));
    for (const auto& each : std::filesystem::directory_iterator(zr::test::sandbox_home())) {
        if (each.path() != store && each.path().filename().string().starts_with("registry.db"))
            std::filesystem::remove(each.path());
    }
    write_file(store, std::string(8192, 'x'));
    const Result result = reg({"list", "HKCU"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, "");
    const Lines lines = lines_of(result.err);
    ASSERT_EQ(lines.size(), 1u) << result.err;
    EXPECT_TRUE(lines[0].starts_with("zr: warning: ")) << lines[0];
    EXPECT_NE(lines[0].find("registry.db"), std::string::npos);
    EXPECT_EQ(reg({"list", "HKCU"}).err, "");
}

TEST_F(RegTool, SaysThatTheDiskIsFull) {
    ASSERT_EQ(reg({"set", "HKCU\\A", "n", "x"}).code, 0);
    const std::string big = file("big.reg", numbered(40000, 7));
    // No file may grow beyond this many blocks of 512 bytes, which a store meets as it meets a full disk.
    const Result result =
        zr::test::run({"sh", "-c", "trap '' XFSZ; ulimit -f 2000; exec \"$0\" reg import \"$1\"", ZR_TOOL, big});
    EXPECT_EQ(result.code, 8) << result.err;
    EXPECT_NE(result.err.find("nothing was imported"), std::string::npos) << result.err;
    EXPECT_EQ(reg({"list", "HKCU"}).out, "A\\\n");
    EXPECT_EQ(reg({"get", "HKCU\\A", "n"}).out, "x\n");
}

}  // namespace
