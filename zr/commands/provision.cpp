// zr provision: a provisioning document carried out, or looked at.

#include <platform/base.h>
#include <platform/provisioning.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "zr/base/failure.h"
#include "zr/base/input_file.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/reg_command.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

constexpr std::size_t kMostBytes = std::size_t{128} << 20;

std::string read_all(const std::string& path) {
    InputFile file(path);
    const ReadFunction read = file.reader();
    std::string bytes;
    char piece[65536];
    for (;;) {
        const ssize_t size = read(piece, sizeof piece);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) throw file_failure(file.name(), errno);
        if (size == 0) return bytes;
        bytes.append(piece, static_cast<std::size_t>(size));
        if (bytes.size() > kMostBytes) throw Failure{Exit::BadDocument, file.name() + " is too large"};
    }
}

// The character set that the document's first line names; empty when it names none.
std::string declared_charset(std::string_view bytes) {
    const std::string_view head = bytes.substr(0, std::min(bytes.find("?>"), std::size_t{200}));
    if (!head.starts_with("<?xml")) return {};
    const std::size_t at = head.find("encoding");
    if (at == std::string_view::npos) return {};
    const std::size_t begin = head.find_first_of("\"'", at);
    if (begin == std::string_view::npos) return {};
    const std::size_t end = head.find(head[begin], begin + 1);
    return end == std::string_view::npos ? std::string() : std::string(head.substr(begin + 1, end - begin - 1));
}

std::u16string decoded(std::string_view bytes, const std::string& name) {
    std::string charset = declared_charset(bytes);
    if (bytes.starts_with("\xFF\xFE")) charset = "UTF-16LE";
    if (bytes.starts_with("\xFE\xFF")) charset = "UTF-16BE";
    const bool marked = charset.starts_with("UTF-16") && !bytes.starts_with("<");
    if (marked) bytes.remove_prefix(2);
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    std::string utf8;
    if (charset.empty() ? !is_utf8(bytes) : !decode_charset(bytes, charset, utf8))
        throw Failure{Exit::BadDocument, name + " is not the text that it says it is"};
    return to_utf16(charset.empty() ? bytes : utf8);
}

RegPath path_of(const ZrRegistryChange& change) {
    constexpr RegRoot roots[] = {RegRoot::ClassesRoot, RegRoot::CurrentUser, RegRoot::LocalMachine, RegRoot::Users};
    for (const RegRoot root : roots) {
        if (root_handle(root) == change.Root) return {root, change.Path};
    }
    return {RegRoot::LocalMachine, change.Path};
}

struct Change {
    ZrRegistryStep step;
    RegPath path;
    std::u16string name;
    RegValue value;
};
using Changes = std::vector<Change>;

// Nothing may be thrown through the platform.
int keep_change(const ZrRegistryChange* change, LPVOID all) try {
    Change kept = {change->Step, path_of(*change), change->Name != nullptr ? change->Name : u"", {change->Type, {}}};
    kept.value.data.assign(reinterpret_cast<const char*>(change->Data), change->Size);
    static_cast<Changes*>(all)->push_back(std::move(kept));
    return 0;
} catch (const std::bad_alloc&) {
    std::fputs("zr: out of memory\n", stderr);
    std::_Exit(static_cast<int>(Exit::StoreFailed));
}

// One line for each change that is one: what stands already is left out.
void show_change(const Change& change, bool json) {
    const auto& [step, path, name, now] = change;
    const auto key = RegKey::open(path);
    const auto before = key ? key->value(name) : std::nullopt;
    const bool sets = step == ZrRegistryStep::SetValue;
    const bool of_key = step == ZrRegistryStep::CreateKey || step == ZrRegistryStep::DeleteKey;
    if (sets && before == now) return;
    if (step == ZrRegistryStep::DeleteValue && !before) return;
    if (of_key && key.has_value() == (step == ZrRegistryStep::CreateKey)) return;
    const char* const word = sets                                  ? "set"
                             : step == ZrRegistryStep::DeleteValue ? "remove"
                             : step == ZrRegistryStep::CreateKey   ? "make key"
                                                                   : "remove key";
    if (json) {
        Json line = {{"change", word}, {"key", json_text_of(path)}};
        if (sets) line.set_all(value_json({name, now}));
        if (!sets && !of_key) line.set("name", to_utf8(name));
        return print_json_line(line);
    }
    std::string text = std::string(word) + " " + shown(path);
    if (sets) text += ": " + value_line({name, now}) + (before ? ", was " + value_line({name, *before}) : "");
    if (!sets && !of_key) text += ": " + shown_name(name);
    print(text + "\n");
}

struct ProvisionOptions {
    std::string file;
    bool dry_run = false;
    bool json = false;
};

Exit exit_of_document(HRESULT result) {
    if (result == CONFIG_E_BAD_XML || result == CONFIG_E_CSPEXCEPTION) return Exit::BadDocument;
    return result == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) ? Exit::Unreadable : Exit::StoreFailed;
}

Exit provision(ProvisionOptions& options) {
    const std::u16string document = decoded(read_all(options.file), options.file);
    LPWSTR given = nullptr;
    Changes changes;
    const HRESULT result = options.dry_run ? ZrProvisioningChanges(document.c_str(), keep_change, &changes, &given)
                                           : DMProcessConfigXML(document.c_str(), CFGFLAG_PROCESS, &given);
    const std::unique_ptr<WCHAR[]> owner(given);
    const std::string sentence = to_utf8(ZrProvisioningLastErrorText());
    const std::string answer = given != nullptr ? to_utf8(given) : std::string();
    for (const Change& change : changes) {
        show_change(change, options.json);
    }
    if (!options.dry_run || FAILED(result)) {
        if (options.json) {
            print_json_line({{"done", SUCCEEDED(result)}, {"error", sentence}, {"document", answer}});
        } else {
            print(answer);
        }
    }
    if (SUCCEEDED(result)) return Exit::Ok;
    throw Failure{exit_of_document(result), options.file + ": " + (sentence.empty() ? "out of memory" : sentence)};
}

}  // namespace

void add_provision(Command zr) {
    const auto options = std::make_shared<ProvisionOptions>();
    Command command = zr.add_command("provision", "Carry out a provisioning document");
    command.add_option("FILE", options->file, "The document, - for standard input").required();
    command.add_flag("--dry-run", options->dry_run, "Change nothing: print what would change");
    command.add_flag("--json", options->json, "Print one JSON object per line");
    command.footer(
        "The document is carried out whole or not at all; the result document is printed. Services are\n"
        "CM_ProxyEntries, CM_Networks and Registry. The exit code is 15 when the document is none, or asks for what\n"
        "no service knows: then nothing was changed, and the result document marks what it is.\n"
        "\n"
        "Examples:\n"
        "  zr provision --dry-run proxy.xml\n"
        "  zr provision proxy.xml");
    runs_with_registry(command, [options] { return provision(*options); });
}

}  // namespace zr
