// zr reg export: keys and all below them as registry text.

#include <algorithm>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/output_file.h"
#include "zr/commands/reg_command.h"
#include "zr/regfile/writer.h"
#include "zr/stores/registry.h"
#include "zr/stores/same_store.h"

namespace zr {
namespace {

// Of writing a file while others change the registry.
constexpr int kMostTries = 5;
constexpr DWORD kNewsDelay = 10;

struct RegExportOptions {
    std::vector<std::string> keys;
    std::string output;
    std::string format = "5";
    std::string encoding;
    bool json = false;
};

RegEncoding encoding_of(const RegExportOptions& options) {
    const bool five = options.format == "5";
    if (options.encoding.empty()) return five ? RegEncoding::Utf16 : RegEncoding::Windows1252;
    if (options.encoding == "utf-8") return RegEncoding::Utf8;
    if (options.encoding == "utf-16") return RegEncoding::Utf16;
    if (five) throw Failure{Exit::Usage, "windows-1252 is for --format 4"};
    return RegEncoding::Windows1252;
}

class RegistryExport {
public:
    RegistryExport(const RegExportOptions& options, OutputFile& file)
        : json_(options.json),
          file_(file),
          writer_(options.format == "4" ? RegVersion::V4 : RegVersion::V5, encoding_of(options),
                  [&file](std::string_view text) { file.write(text); }) {
        if (!json_) writer_.begin();
    }

    void write(const RegPath& top) {
        walk_reg_tree(RegKey::existing(top), [this](const RegPath& path, const auto& values, int) {
            if (!json_) return write_key(path, values);
            file_.write(json_text(key_json(path, values)) + "\n");
            return true;
        });
    }

    const std::vector<std::string>& left_out() const { return left_out_; }

private:
    bool write_key(const RegPath& path, const std::vector<NamedRegValue>& values) {
        // A root without values need not be said; the others are there by having keys.
        if (path.below.empty() && values.empty()) return true;
        if (const std::string fault = writer_.key(path); !fault.empty()) {
            left_out_.push_back(shown(path) + " with all below it: " + fault);
            return false;
        }
        for (const NamedRegValue& each : values) {
            const std::string fault = writer_.value(each.name, each.value);
            if (!fault.empty()) left_out_.push_back(shown(path) + ": " + shown_name(each.name) + ": " + fault);
        }
        return true;
    }

    const bool json_;
    OutputFile& file_;
    RegWriter writer_;
    std::vector<std::string> left_out_;
};

// Whether nothing changed while it was written; if something did, a key or value may be missing that was there.
bool write_all(const std::vector<RegPath>& tops, RegistryExport& all) {
    std::vector<std::unique_ptr<RegChanges>> changes;
    changes.reserve(tops.size());
    for (const RegPath& top : tops) {
        changes.push_back(std::make_unique<RegChanges>(RegKey::existing(top), true));
    }
    for (const RegPath& top : tops) {
        all.write(top);
    }
    return std::none_of(changes.begin(), changes.end(), [](const auto& each) { return each->came(kNewsDelay); });
}

Failure damaged() {
    return {Exit::DamagedStore, "the registry is damaged; nothing was exported"};
}

Exit export_keys(const RegExportOptions& options, const SameStore& same) {
    std::vector<RegPath> tops;
    for (const std::string& each : options.keys) {
        tops.push_back(reg_path_of(each));
        RegKey::existing(tops.back());
    }
    if (tops.empty()) {
        for (const RegRoot root : kRegRoots) {
            tops.push_back({root, u""});
        }
    }
    encoding_of(options);
    for (int tries = 1;; ++tries) {
        OutputFile file(options.output);
        RegistryExport all(options, file);
        const bool settled = write_all(tops, all);
        // A damaged registry begins anew, empty, in the middle of whatever is read.
        if (was_set_aside()) throw damaged();
        same.expect();
        if (!settled && file.can_start_over() && tries < kMostTries) continue;
        for (const std::string& each : all.left_out()) {
            complain("left out: " + each);
        }
        if (!settled)
            complain(
                "warning: the registry was changed meanwhile; what others changed may be missing or of another moment");
        file.finish();
        return all.left_out().empty() ? Exit::Ok : Exit::DamagedCards;
    }
}

}  // namespace

void add_reg_export(Command reg) {
    const auto options = std::make_shared<RegExportOptions>();
    Command command = reg.add_command("export", "Write keys and all below them as a .reg file");
    command.add_option("KEY", options->keys, "The keys (default: the whole registry)");
    command.add_option("-o,--output", options->output,
                       "Write to this file, whole or not at all (default: standard output)");
    command.add_option("--format", options->format, "5: Windows Registry Editor Version 5.00; 4: REGEDIT4")
        .one_of({"4", "5"})
        .shows_default();
    command
        .add_option("--encoding", options->encoding,
                    "utf-16, utf-8 or windows-1252 (default: utf-16, for --format 4 windows-1252)")
        .one_of({"utf-16", "utf-8", "windows-1252"});
    command.add_flag("--json", options->json, "Write one JSON object per key and line instead");
    command.footer(
        "An import of it makes the keys and values again as they were, bit by bit. What the format or\n"
        "encoding cannot say is named and left out, and the exit code is 7: for version 4 that is text\n"
        "outside of Windows-1252, for version 5 a line break in a key's name.\n"
        "\n"
        "Examples:\n"
        "  zr reg export --output backup.reg\n"
        "  zr reg export 'HKCU\\Software\\Example' --format 4 > for-the-device.reg");
    reads_registry(command, [options] {
        try {
            const SameStore same("registry");
            return same.during([&] { return export_keys(*options, same); });
        } catch (const Failure&) {
            // A key that is not there any more, say.
            if (was_set_aside()) throw damaged();
            throw;
        }
    });
}

}  // namespace zr
