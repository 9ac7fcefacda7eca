// zr reg export: keys and all below them as registry text.

#include <memory>

#include "command.h"
#include "output.h"
#include "output_file.h"
#include "reg_store.h"
#include "reg_writer.h"

namespace zr {
namespace {

struct Options {
    std::vector<std::string> keys;
    std::string output;
    std::string format = "5";
    std::string encoding;
    bool json = false;
};

RegEncoding encoding_of(const Options& options) {
    const bool five = options.format == "5";
    if (options.encoding.empty()) return five ? RegEncoding::Utf16 : RegEncoding::Windows1252;
    if (options.encoding == "utf-8") return RegEncoding::Utf8;
    if (options.encoding == "utf-16") return RegEncoding::Utf16;
    if (five) throw Failure{Exit::Usage, "windows-1252 is for --format 4"};
    return RegEncoding::Windows1252;
}

class Export {
public:
    Export(const Options& options, OutputFile& file)
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

    Exit code() const { return any_left_out_ ? Exit::DamagedCards : Exit::Ok; }

private:
    bool write_key(const RegPath& path, const std::vector<NamedRegValue>& values) {
        // A root without values need not be said; the others are there by having keys.
        if (path.below.empty() && values.empty()) return true;
        if (const std::string fault = writer_.key(path); !fault.empty()) {
            leave_out(shown(path) + " with all below it: " + fault);
            return false;
        }
        for (const NamedRegValue& each : values) {
            const std::string fault = writer_.value(each.name, each.value);
            if (!fault.empty()) leave_out(shown(path) + ": " + shown_name(each.name) + ": " + fault);
        }
        return true;
    }

    void leave_out(const std::string& what) {
        any_left_out_ = true;
        complain("left out: " + what);
    }

    const bool json_;
    OutputFile& file_;
    RegWriter writer_;
    bool any_left_out_ = false;
};

Exit export_keys(const Options& options) {
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
    OutputFile file(options.output);
    Export all(options, file);
    for (const RegPath& top : tops) {
        all.write(top);
    }
    file.finish();
    return all.code();
}

}  // namespace

void add_reg_export(Command reg) {
    const auto options = std::make_shared<Options>();
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
    runs_with_registry(command, [options] { return export_keys(*options); });
}

}  // namespace zr
