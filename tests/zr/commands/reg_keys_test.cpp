// zr reg find, copy, rename and diff, and the completion of keys.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "zr/commands/own_store.h"

namespace {

using nlohmann::json;
using zr::test::expect_failure;
using zr::test::lines_of;
using zr::test::Result;

class RegKeys : public zr::test::OwnStore {
protected:
    static Result reg(std::vector<std::string> args, const std::string& input = {}) {
        args.insert(args.begin(), "reg");
        return zr::test::zr(args, input);
    }

    void SetUp() override {
        OwnStore::SetUp();
        ASSERT_EQ(reg({"set", "HKCU\\Shop\\Proxy", "Port", "8080", "-t", "dword"}).code, 0);
        ASSERT_EQ(reg({"set", "HKCU\\Shop", "Host", "PROXY.example"}).code, 0);
        ASSERT_EQ(reg({"set", "HKCU\\Shop", "Path", "C:\\new"}).code, 0);
        ASSERT_EQ(reg({"set", "HKCU\\Shop\\Ünder score", "@", "x"}).code, 0);
    }

    static std::string tree(const std::string& key) { return reg({"tree", key}).out; }
};

TEST_F(RegKeys, FindsByNameAndData) {
    EXPECT_EQ(reg({"find", "proxy"}).out,
              "HKEY_CURRENT_USER\\Shop: \"Host\" = REG_SZ PROXY.example\nHKEY_CURRENT_USER\\Shop\\Proxy\\\n");
    EXPECT_EQ(reg({"find", "proxy", "--keys"}).out, "HKEY_CURRENT_USER\\Shop\\Proxy\\\n");
    EXPECT_EQ(reg({"find", "808", "-d", "HKCU\\Shop"}).out,
              "HKEY_CURRENT_USER\\Shop\\Proxy: \"Port\" = REG_DWORD 8080\n");
    EXPECT_EQ(reg({"find", "ÜNDER"}).out, "HKEY_CURRENT_USER\\Shop\\Ünder score\\\n");
    EXPECT_EQ(reg({"find", "port", "--names", "--exact"}).code, 0);
    expect_failure(reg({"find", "port", "HKCU\\Nowhere"}), 1, "no key");
    const Result none = reg({"find", "por", "--names", "--exact"});
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(none.out + none.err, "");
    const json found = json::parse(reg({"find", "8080", "--json"}).out);
    EXPECT_EQ(found["key"], "HKEY_CURRENT_USER\\Shop\\Proxy");
    EXPECT_EQ(found["data"], 8080);
}

TEST_F(RegKeys, FindsTextAndNotHowItIsShown) {
    ASSERT_EQ(reg({"set", "HKCU\\Many", "m", "one\ntwo", "three", "-t", "multi_sz"}).code, 0);
    EXPECT_EQ(reg({"find", "e\nt", "--data"}).code, 0);
    EXPECT_EQ(reg({"find", "\\n", "--data"}).out, "HKEY_CURRENT_USER\\Shop: \"Path\" = REG_SZ C:\\new\n");
    EXPECT_EQ(reg({"find", "three", "--exact"}).code, 0);
}

TEST_F(RegKeys, ALineBreakIsShownLikeNothingElse) {
    const auto shown = [](const std::string& text) {
        EXPECT_EQ(reg({"set", "HKCU\\T", "t", text}).code, 0);
        EXPECT_EQ(reg({"list", "HKCU\\T"}).out, "t\tREG_SZ\t" + reg({"get", "HKCU\\T", "t"}).out);
        return reg({"get", "HKCU\\T", "t"}).out;
    };
    EXPECT_EQ(shown("a\nb"), "\"a\\nb\"\n");
    EXPECT_EQ(shown("a\\nb"), "a\\nb\n");
    EXPECT_EQ(shown("\"a\\nb\""), "\"\\\"a\\\\nb\\\"\"\n");
    EXPECT_EQ(shown("a\\nb\n"), "\"a\\\\nb\\n\"\n");
    EXPECT_EQ(reg({"set", "HKCU\\T", "m", "a\\n", "b\n", "-t", "multi_sz"}).code, 0);
    EXPECT_EQ(reg({"list", "HKCU\\T"}).out.substr(0, 30), "m\tREG_MULTI_SZ\t\"a\\\\n\" \"b\\n\"\nt\t");
}

TEST_F(RegKeys, CopiesAKeyWithAllBelowIt) {
    EXPECT_EQ(reg({"copy", "HKCU\\shop", "HKLM\\A\\Copy"}).code, 0);
    std::string wanted = tree("HKCU\\Shop");
    wanted.replace(0, std::string("HKEY_CURRENT_USER\\Shop").size(), "HKEY_LOCAL_MACHINE\\A\\Copy");
    EXPECT_EQ(tree("HKLM\\A\\Copy"), wanted);
    EXPECT_EQ(reg({"diff", "HKCU\\Shop", "HKLM\\A\\Copy"}).code, 0);
    expect_failure(reg({"copy", "HKCU\\Shop", "HKLM\\A\\copy"}), 2, "there already");
    expect_failure(reg({"copy", "HKCU\\Shop", "HKCU\\shop\\Below"}), 2, "above or below");
    expect_failure(reg({"copy", "HKCU\\Shop\\Proxy", "HKCU\\Shop"}), 2, "above or below");
    expect_failure(reg({"copy", "HKCU\\Nowhere", "HKCU\\New"}), 1, "no key");
    EXPECT_EQ(json::parse(reg({"copy", "HKCU\\Shop", "HKCU\\B", "--json"}).out)["change"], "copied");
}

TEST_F(RegKeys, RenamesKeysAndValues) {
    const std::string before = tree("HKCU\\Shop");
    EXPECT_EQ(reg({"rename", "HKCU\\Shop", "Store"}).code, 0);
    EXPECT_EQ(reg({"list", "HKCU\\Shop"}).code, 1);
    std::string wanted = before;
    wanted.replace(wanted.find("Shop"), 4, "Store");
    EXPECT_EQ(tree("HKCU\\Store"), wanted);
    EXPECT_EQ(reg({"rename", "HKCU\\Store", "HKLM\\Deep\\Shop"}).code, 0);
    EXPECT_EQ(reg({"list", "HKCU"}).out, "");
    EXPECT_EQ(reg({"rename", "HKLM\\Deep\\Shop", "Server", "--value", "host"}).code, 0);
    EXPECT_EQ(reg({"get", "HKLM\\Deep\\Shop", "Server"}).out, "PROXY.example\n");
    EXPECT_EQ(reg({"get", "HKLM\\Deep\\Shop", "Host"}).code, 1);
    EXPECT_EQ(reg({"rename", "HKLM\\Deep\\Shop", "SERVER", "--value", "Server"}).code, 0);
    EXPECT_NE(reg({"list", "HKLM\\Deep\\Shop"}).out.find("SERVER\t"), std::string::npos);
    expect_failure(reg({"rename", "HKLM\\Deep\\Shop", "Path", "--value", "Server"}), 2, "there already");
    expect_failure(reg({"rename", "HKLM\\Deep\\Shop", "Path", "--value", "Nothing"}), 1, "no value");
    expect_failure(reg({"rename", "HKLM", "Other"}), 2, "root");
    expect_failure(reg({"rename", "HKLM\\Deep\\Shop", ""}), 2, "empty");
}

TEST_F(RegKeys, TellsHowKeysDiffer) {
    ASSERT_EQ(reg({"copy", "HKCU\\Shop", "HKCU\\Other"}).code, 0);
    ASSERT_EQ(reg({"set", "HKCU\\Other", "host", "elsewhere"}).code, 0);
    ASSERT_EQ(reg({"delete", "HKCU\\Other\\Proxy"}).code, 0);
    ASSERT_EQ(reg({"set", "HKCU\\Other\\New", "n", "1", "-t", "dword"}).code, 0);
    const Result result = reg({"diff", "HKCU\\Shop", "HKCU\\Other"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out,
              "- \"Host\" = REG_SZ PROXY.example\n+ \"Host\" = REG_SZ elsewhere\n"
              "- Proxy\\\n- Proxy: \"Port\" = REG_DWORD 8080\n+ New\\\n+ New: \"n\" = REG_DWORD 1\n");
    EXPECT_EQ(lines_of(reg({"diff", "HKCU\\Shop", "HKCU\\Other", "--json"}).out).size(), 6u);
    expect_failure(reg({"diff", "HKCU\\Shop", "HKCU\\Nowhere"}), 1, "no key");
}

TEST_F(RegKeys, TellsHowAKeyAndAFileDiffer) {
    const std::string backup = file("backup.reg");
    ASSERT_EQ(reg({"export", "HKCU\\Shop", "-o", backup}).code, 0);
    EXPECT_EQ(reg({"diff", "hkcu\\shop", backup}).code, 0);
    EXPECT_EQ(reg({"diff", "HKCU\\Shop\\Proxy", backup}).code, 0);
    ASSERT_EQ(reg({"set", "HKCU\\Shop\\Proxy", "Port", "81", "-t", "dword"}).code, 0);
    EXPECT_EQ(reg({"diff", "HKCU\\Shop", backup}).out,
              "- Proxy: \"Port\" = REG_DWORD 81\n+ Proxy: \"Port\" = REG_DWORD 8080\n");
    // What a file takes away is not there.
    EXPECT_EQ(reg({"diff", "HKCU\\Shop\\Proxy", "-"},
                  "REGEDIT4\n[HKEY_CURRENT_USER\\Shop\\Proxy\\A]\n\"b\"=\"c\"\n[HKEY_CURRENT_USER\\Shop\\Proxy]\n"
                  "\"Port\"=dword:51\n\"q\"=\"\"\n\"q\"=-\n[-HKEY_CURRENT_USER\\Shop\\Proxy\\A]\n")
                  .out,
              "");
    expect_failure(reg({"diff", "HKLM", backup}), 1, "no key HKEY_LOCAL_MACHINE in this file");
    expect_failure(reg({"diff", "HKCU\\Shop", "-"}, "REGEDIT4\n[HKEY_CURRENT_USER\\Shop]\nnonsense\n"), 14, ":3: ");
}

TEST_F(RegKeys, AreCompletedInBash) {
    const auto complete = [](const std::string& words) {
        const std::string script =
            "source '" ZR_SOURCE_DIR "/zr/completion/zr.bash'; zr() { '" ZR_TOOL "' \"$@\"; }; COMP_WORDS=(" + words +
            "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zr; "
            "printf '%s\\n' \"${COMPREPLY[@]}\"";
        return zr::test::run({"bash", "-c", script}).out;
    };
    EXPECT_EQ(complete("zr reg list HKC"), "HKCR\\\nHKCU\\\n");
    EXPECT_EQ(complete("zr reg list hkey_c"), "HKEY_CLASSES_ROOT\\\nHKEY_CURRENT_USER\\\n");
    EXPECT_EQ(complete("zr reg list \"'HKCU\\\\\""), "HKCU\\Shop\\\n");
    EXPECT_EQ(complete("zr reg tree 'HKCU\\\\Shop\\\\'"), "HKCU\\Shop\\Proxy\\\nHKCU\\Shop\\Ünder score\\\n");
    EXPECT_EQ(complete("zr reg copy a \"'hkcu\\\\shop\\\\pr\""), "hkcu\\shop\\Proxy\\\n");
    EXPECT_EQ(complete("zr reg get 'HKCU\\\\Nowhere\\\\'"), "\n");
}

// Types lines into a shell with a terminal, and prints what they become.
constexpr const char* kTypeIntoZsh = R"(
zmodload zsh/zpty
zpty shell 'TERM=dumb zsh -f -i'
zpty -w shell 'PS1=; PS2=; unset zle_bracketed_paste; fpath=($COMPLETIONS $fpath)
    autoload -Uz compinit; compinit -u -D; zr() { $TOOL "$@" }
    shown() { print -r -- "<<$BUFFER>>"; BUFFER=; zle accept-line }; zle -N shown; bindkey "^X" shown; print rea""dy'
zpty -r -m shell line '*ready*'
for typed; do
    zpty -n -w shell $typed$'\t\x18'
    zpty -r -m shell line '*>>*'
    print -r -- ${${line##*<<}%%>>*}
done
zpty -d shell
)";

TEST_F(RegKeys, AreCompletedInZsh) {
    if (zr::test::run({"sh", "-c", "command -v zsh"}).code != 0) GTEST_SKIP() << "there is no zsh";
    setenv("COMPLETIONS", ZR_SOURCE_DIR "/zr/completion", 1);
    setenv("TOOL", ZR_TOOL, 1);
    ASSERT_EQ(reg({"set", "HKCU\\Shop\\Proxy\\Two words", "a", "b"}).code, 0);
    const std::vector<std::pair<std::string, std::string>> lines = {
        {"zr reg list HKC", "zr reg list HKC"},  // two of them
        {"zr reg list hkey_cl", R"(zr reg list HKEY_CLASSES_ROOT\\)"},
        {R"(zr reg list 'HKCU\)", R"(zr reg list 'HKCU\Shop\)"},
        {R"(zr reg list HKCU\\shop\\p)", R"(zr reg list HKCU\\shop\\Proxy\\)"},
        {R"(zr reg tree 'HKCU\Shop\Ü)", R"(zr reg tree 'HKCU\Shop\Ünder score\)"},
        {R"(zr reg copy a "hkcu\\shop\\proxy\\t)", R"(zr reg copy a "hkcu\\shop\\proxy\\Two words\\)"},
        {R"(zr reg get HKCU\\Shop\\Proxy\\T)", R"(zr reg get HKCU\\Shop\\Proxy\\Two\ words\\)"},
        {R"(zr reg get 'HKCU\Nowhere\)", R"(zr reg get 'HKCU\Nowhere\)"},
    };
    std::vector<std::string> command = {"timeout", "60", "zsh", "-fc", kTypeIntoZsh, "zsh"};
    std::string expected;
    for (const auto& [typed, completed] : lines) {
        command.push_back(typed);
        expected += completed + "\n";
    }
    EXPECT_EQ(zr::test::run(command).out, expected);
}

}  // namespace
