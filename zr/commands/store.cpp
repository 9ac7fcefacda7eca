// zr store: examining, backing up and bringing back what is kept.

#include <platform/stores.h>

#include <memory>
#include <string>
#include <vector>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

Exit exit_of(LONG result) {
    switch (static_cast<DWORD>(result)) {
        case ERROR_SUCCESS:
            return Exit::Ok;
        case ERROR_FILE_NOT_FOUND:
        case ERROR_ACCESS_DENIED:
        case ERROR_FILE_EXISTS:
        case ERROR_BAD_FORMAT:
            return Exit::Unreadable;
        case ERROR_DISK_FULL:
            return Exit::DiskFull;
        case ERROR_REVISION_MISMATCH:
            return Exit::NewerStore;
        case ERROR_FILE_CORRUPT:
            return Exit::DamagedStore;
        default:
            return Exit::StoreFailed;
    }
}

// Ends the command unless the call was right; the platform's sentence says why.
void expect(LONG result) {
    if (result == static_cast<LONG>(ERROR_SUCCESS)) return;
    std::string sentence = ZrStoreLastErrorText();
    if (sentence.empty()) sentence = "error " + std::to_string(result);
    throw Failure{exit_of(result), sentence};
}

std::vector<std::string> store_names() {
    std::vector<std::string> names;
    for (DWORD i = 0; ZrStoreName(i) != nullptr; ++i) {
        names.emplace_back(ZrStoreName(i));
    }
    return names;
}

struct Look {
    std::string store;
    LONG result;
    std::string text;

    bool is_empty() const { return result == static_cast<LONG>(ERROR_FILE_NOT_FOUND); }
    const char* state() const {
        if (is_empty()) return "empty";
        return result == static_cast<LONG>(ERROR_SUCCESS)             ? "whole"
               : result == static_cast<LONG>(ERROR_FILE_CORRUPT)      ? "damaged"
               : result == static_cast<LONG>(ERROR_REVISION_MISMATCH) ? "newer"
                                                                      : "unreadable";
    }
};

Exit check(const std::vector<std::string>& wanted, bool as_json) {
    Exit code = Exit::Ok;
    JsonArray array;
    for (const std::string& name : wanted.empty() ? store_names() : wanted) {
        const LONG result = ZrStoreCheck(name.c_str());
        const Look look{name, result, ZrStoreLastErrorText()};
        if (as_json) {
            array.add(Json{{"store", look.store}, {"state", look.state()}});
        } else {
            print(look.store + ": " + look.state() + "\n");
        }
        if (result == static_cast<LONG>(ERROR_SUCCESS) || look.is_empty()) continue;
        complain(look.text);
        code = combine(code, exit_of(result));
    }
    if (as_json) array.finish();
    return code;
}

}  // namespace

void add_store_check(Command store) {
    struct Arguments {
        std::vector<std::string> names;
        bool json = false;
    };
    const auto arguments = std::make_shared<Arguments>();
    Command command = store.add_command("check", "Read all of the stores and tell whether they are whole");
    command.add_option("STORE", arguments->names, "registry, contacts or mail (default: all)").one_of(store_names());
    command.add_flag("--json", arguments->json, "Print JSON");
    command.footer(
        "A line is the store and: whole, empty (nothing was kept so far), damaged, newer (of a newer version) or\n"
        "unreadable. A damaged store is set aside, and the message says as what; 'zr store recover' brings back\n"
        "what is readable of it. The exit code is 10 when one is damaged.\n"
        "\n"
        "Example:\n"
        "  zr store check");
    command.runs([arguments] { return check(arguments->names, arguments->json); });
}

void add_store_backup(Command store) {
    struct Arguments {
        std::string name;
        std::string file;
    };
    const auto arguments = std::make_shared<Arguments>();
    Command command = store.add_command("backup", "Write a store as it is now into a new file");
    command.add_option("STORE", arguments->name, "registry, contacts or mail").required().one_of(store_names());
    command.add_option("FILE", arguments->file, "The new file").required();
    command.footer(
        "The file is of one moment, also while programs write, and is a store itself: 'zr store restore' puts it\n"
        "in place. A file that is there is not overwritten.\n"
        "\n"
        "Example:\n"
        "  zr store backup contacts contacts-$(date +%F).db");
    command.runs([arguments] {
        expect(ZrStoreBackUp(arguments->name.c_str(), arguments->file.c_str()));
        return Exit::Ok;
    });
}

void add_store_compact(Command store) {
    const auto names = std::make_shared<std::vector<std::string>>();
    Command command = store.add_command("compact", "Give the disk back what is free in stores");
    command.add_option("STORE", *names, "registry, contacts or mail (default: all)").one_of(store_names());
    command.footer(
        "A store does so by itself after large deletions, unless it is large. Programs read meanwhile, and wait to\n"
        "write: for five seconds, then they fail. It needs as much room on the disk once more until it is done.\n"
        "\n"
        "Example:\n"
        "  zr store compact mail");
    command.runs([names] {
        for (const std::string& name : names->empty() ? store_names() : *names) {
            ULONGLONG freed = 0;
            const LONG result = ZrStoreCompact(name.c_str(), &freed);
            if (result == static_cast<LONG>(ERROR_FILE_NOT_FOUND)) {
                print(name + ": empty\n");
                continue;
            }
            expect(result);
            print(name + ": " + std::to_string(freed) + " bytes freed\n");
        }
        return Exit::Ok;
    });
}

void add_store_recover(Command store) {
    struct Arguments {
        std::string from;
        std::string to;
    };
    const auto arguments = std::make_shared<Arguments>();
    Command command = store.add_command("recover", "Write what is readable of a damaged store into a new file");
    command.add_option("FILE", arguments->from, "The damaged store, as it was set aside").required();
    command.add_option("NEW", arguments->to, "The new file").required();
    command.footer(
        "The damaged file stays as it is; its journal, FILE-wal, is read too when it is there and belongs to it. What\n"
        "is damaged is left out, and its tables are named. 'zr store restore NEW' puts the new file in place.\n"
        "\n"
        "Example:\n"
        "  zr store recover ~/.local/share/zrutility/pim.db.damaged-20261122-101500 found.db");
    command.runs([arguments] {
        ULONGLONG items = 0;
        expect(ZrStoreRecover(arguments->from.c_str(), arguments->to.c_str(), &items));
        if (const std::string left_out = ZrStoreLastErrorText(); !left_out.empty()) complain(left_out);
        print(std::to_string(items) + (items == 1 ? " row" : " rows") + " recovered\n");
        return Exit::Ok;
    });
}

void add_store_restore(Command store) {
    const auto file = std::make_shared<std::string>();
    Command command = store.add_command("restore", "Put a copy of a file in the place of the store of its kind");
    command.add_option("FILE", *file, "A backup, or what was recovered").required();
    command.footer(
        "The file is examined first. The present store is kept under another name, which is printed; programs\n"
        "that have it open go on in the restored one.\n"
        "\n"
        "Example:\n"
        "  zr store restore found.db");
    command.runs([file] {
        expect(ZrStoreRestore(file->c_str()));
        const std::string text = ZrStoreLastErrorText();
        if (!text.empty()) print(text + "\n");
        return Exit::Ok;
    });
}

}  // namespace zr
