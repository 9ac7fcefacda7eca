// zr reg import: registry text files into the registry, all of them or none.
//
// Every file is read twice: first to see whether all of it can be had, while no other program has to wait, and then
// for the changes, which the registry makes as one. What cannot be read twice is kept in a file without a name.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "zr/base/input_file.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/progress.h"
#include "zr/commands/reg_command.h"
#include "zr/regfile/reader.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

constexpr long kMostProblems = 20;  // that are named before a file is given up

struct RegImportOptions {
    std::vector<std::string> files;
    bool keep_going = false;
    bool json = false;
    bool quiet = false;
};

struct Counts {
    long keys = 0;
    long values = 0;
    long deleted_keys = 0;
    long deleted_values = 0;
    long left_out = 0;

    bool operator==(const Counts&) const = default;

    void add(const RegStatement& statement) {
        switch (statement.kind) {
            case RegStatement::Kind::Key:
                ++keys;
                break;
            case RegStatement::Kind::Value:
                ++values;
                break;
            case RegStatement::Kind::DeletedKey:
                ++deleted_keys;
                break;
            case RegStatement::Kind::DeletedValue:
                ++deleted_values;
                break;
        }
    }
};

Counts operator+(const Counts& a, const Counts& b) {
    return {a.keys + b.keys, a.values + b.values, a.deleted_keys + b.deleted_keys, a.deleted_values + b.deleted_values,
            a.left_out + b.left_out};
}

// A file that can be read again from its beginning.
class Source {
public:
    explicit Source(const std::string& path) : file_(path) {
        struct stat status;
        if (::fstat(file_.descriptor(), &status) != 0) throw file_failure(name(), errno);
        refuse_own_output(status);
        if (S_ISREG(status.st_mode)) {
            start_ = ::lseek(file_.descriptor(), 0, SEEK_CUR);
        } else {
            keep();
        }
    }

    const std::string& name() const { return file_.name(); }
    off_t size() const { return file_.size(); }

    // One reading of the file at a time.
    int rewound() const {
        const int fd = kept_ ? ::fileno(kept_.get()) : file_.descriptor();
        if (::lseek(fd, start_, SEEK_SET) < 0) throw file_failure(name(), errno);
        return fd;
    }

    Counts counts;  // of the first reading

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void refuse_own_output(const struct stat& in) const {
        struct stat out;
        if (S_ISREG(in.st_mode) && ::fstat(STDOUT_FILENO, &out) == 0 && out.st_dev == in.st_dev &&
            out.st_ino == in.st_ino)
            throw Failure{Exit::Unreadable, name() + ": is what this command writes to"};
    }

    void keep() {
        kept_.reset(std::tmpfile());
        if (!kept_) throw file_failure(name(), errno);
        const ReadFunction read = file_.reader();
        char buffer[std::size_t{1} << 16];
        for (;;) {
            const ssize_t n = read(buffer, sizeof buffer);
            if (n < 0) throw file_failure(name(), errno);
            if (n == 0) break;
            const auto size = static_cast<std::size_t>(n);
            if (std::fwrite(buffer, 1, size, kept_.get()) != size) throw file_failure("a temporary file", errno);
        }
        if (std::fflush(kept_.get()) != 0) throw file_failure("a temporary file", errno);
    }

    InputFile file_;
    off_t start_ = 0;
    std::unique_ptr<std::FILE, Close> kept_;
};

class RegImport {
public:
    explicit RegImport(const RegImportOptions& options)
        : options_(options), progress_(!options.quiet && !options.json, "keys") {}

    Exit run();

private:
    void open_all();
    void look_at(Source& source);
    void note(const std::string& file, const Problem& problem);
    Exit refuse();
    void apply();
    bool next_statement();
    int next_change(ZrRegistryChange& change);
    Failure failure_of(LONG result) const;
    void report();

    const RegImportOptions& options_;
    Progress progress_;
    std::vector<std::unique_ptr<Source>> sources_;
    Counts counts_;
    Exit code_ = Exit::Ok;

    // The second reading.
    std::size_t place_ = 0;  // in sources_
    std::unique_ptr<LineReader> lines_;
    std::unique_ptr<RegReader> reader_;
    Counts again_;
    RegStatement statement_;
    RegPath key_;
    bool changed_ = false;
    bool out_of_memory_ = false;
};

Exit RegImport::run() {
    open_all();
    for (const auto& each : sources_) {
        look_at(*each);
    }
    progress_.clear();
    if (!options_.keep_going && code_ == Exit::Ok && counts_.left_out > 0) code_ = Exit::BadRegFile;
    if (!options_.keep_going && code_ != Exit::Ok) return refuse();
    apply();
    progress_.clear();
    report();
    return code_ == Exit::Ok && counts_.left_out > 0 ? Exit::DamagedCards : code_;
}

void RegImport::open_all() {
    for (const std::string& path : options_.files) {
        try {
            sources_.push_back(std::make_unique<Source>(path));
        } catch (const Failure& failure) {
            if (failure.code != Exit::Unreadable) throw;
            complain(failure.text);
            code_ = combine(code_, failure.code);
        }
    }
}

void RegImport::look_at(Source& source) {
    LineReader lines(read_from_descriptor(source.rewound()));
    RegReader reader(lines);
    RegStatement statement;
    std::vector<Problem> problems;
    for (;;) {
        problems.clear();
        const RegReader::Result result = reader.next(statement, problems);
        for (const Problem& each : problems) {
            note(source.name(), each);
        }
        if (result == RegReader::Result::End) break;
        if (result == RegReader::Result::Statement) {
            source.counts.add(statement);
        } else if (++source.counts.left_out == kMostProblems && !options_.keep_going) {
            complain(source.name() + ": given up");
            break;
        }
        progress_.show(source.name(), lines.bytes_read(), static_cast<std::uint64_t>(source.size()),
                       counts_.keys + source.counts.keys);
    }
    if (lines.error() != 0) {
        complain(file_failure(source.name(), lines.error()).text);
        code_ = combine(code_, Exit::Unreadable);
    }
    counts_ = counts_ + source.counts;
}

void RegImport::note(const std::string& file, const Problem& problem) {
    progress_.clear();
    const char* const effect = !problem.lost ? "warning" : options_.keep_going ? "left out" : "refused";
    complain(file + ":" + std::to_string(problem.line) + ": " + effect + ": " + problem.reason);
    if (!options_.json) return;
    print_json_line({{"file", file}, {"line", problem.line}, {"reason", problem.reason}, {"effect", effect}});
}

Exit RegImport::refuse() {
    complain("nothing was imported");
    counts_ = {.left_out = counts_.left_out};
    if (options_.json) report();
    return code_;
}

void RegImport::apply() {
    const auto next = [](ZrRegistryChange* change, LPVOID context) {
        auto& self = *static_cast<RegImport*>(context);
        try {
            return self.next_change(*change);
        } catch (const std::bad_alloc&) {
            self.out_of_memory_ = true;
        } catch (const Failure&) {
            self.changed_ = true;
        }
        return -1;
    };
    const LONG result = ZrRegistryApplyEach(next, this, nullptr);
    if (result != ERROR_SUCCESS) throw failure_of(result);
    flush_registry();
}

// The next one of all files, left out ones not; false at the end, or with changed_ when a file is no more what it was.
bool RegImport::next_statement() {
    for (; place_ < sources_.size(); ++place_) {
        if (!reader_) {
            lines_ = std::make_unique<LineReader>(read_from_descriptor(sources_[place_]->rewound()));
            reader_ = std::make_unique<RegReader>(*lines_);
            again_ = {};
        }
        std::vector<Problem> problems;
        for (;;) {
            problems.clear();
            const RegReader::Result result = reader_->next(statement_, problems);
            if (result == RegReader::Result::End) break;
            if (result == RegReader::Result::LeftOut) {
                ++again_.left_out;
                continue;
            }
            again_.add(statement_);
            return true;
        }
        changed_ = again_ != sources_[place_]->counts;
        if (changed_) return false;
        reader_.reset();
    }
    return false;
}

int RegImport::next_change(ZrRegistryChange& change) {
    if (!next_statement()) return changed_ ? -1 : 0;
    using Kind = RegStatement::Kind;
    const bool is_key = statement_.kind == Kind::Key || statement_.kind == Kind::DeletedKey;
    if (is_key) key_ = statement_.key;
    change = {};
    change.Root = root_handle(key_.root);
    change.Path = key_.below.c_str();
    switch (statement_.kind) {
        case Kind::Key:
            change.Step = ZrRegistryStep::CreateKey;
            break;
        case Kind::DeletedKey:
            change.Step = ZrRegistryStep::DeleteKey;
            break;
        case Kind::Value:
            change.Step = ZrRegistryStep::SetValue;
            change.Type = statement_.value.type;
            change.Data = reinterpret_cast<const BYTE*>(statement_.value.data.data());
            change.Size = static_cast<DWORD>(statement_.value.data.size());
            break;
        case Kind::DeletedValue:
            change.Step = ZrRegistryStep::DeleteValue;
            break;
    }
    if (!is_key) change.Name = statement_.name.c_str();
    return 1;
}

Failure RegImport::failure_of(LONG result) const {
    if (out_of_memory_) throw std::bad_alloc();
    if (changed_) return {Exit::Unreadable, sources_[place_]->name() + ": changed meanwhile; nothing was imported"};
    const bool at_statement = place_ < sources_.size() && reader_;
    Failure failure = reg_failure(
        result, at_statement ? sources_[place_]->name() + ":" + std::to_string(statement_.line) : "importing");
    failure.text += "; nothing was imported";
    return failure;
}

void RegImport::report() {
    if (options_.json) {
        print_json_line({{"keys", counts_.keys},
                         {"values", counts_.values},
                         {"deletedKeys", counts_.deleted_keys},
                         {"deletedValues", counts_.deleted_values},
                         {"leftOut", counts_.left_out}});
        return;
    }
    if (options_.quiet) return;
    const auto counted = [](long count, const char* one) {
        return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
    };
    std::string text = "imported " + counted(counts_.keys, "key") + ", " + counted(counts_.values, "value");
    const long deletions = counts_.deleted_keys + counts_.deleted_values;
    if (deletions > 0) text += ", " + counted(deletions, "deletion");
    if (counts_.left_out > 0) text += "; left out " + std::to_string(counts_.left_out);
    print(text + "\n");
}

}  // namespace

void add_reg_import(Command reg) {
    const auto options = std::make_shared<RegImportOptions>();
    Command command = reg.add_command("import", "Make the changes that .reg files tell of");
    command.add_option("FILE", options->files, ".reg files of version 4 or 5; - is standard input").required();
    command.add_flag("--keep-going", options->keep_going, "Import what is good of damaged files, and name the rest");
    command.add_flag("--json", options->json, "Print each problem and the result as a JSON object and line");
    command.add_flag("-q,--quiet", options->quiet, "Print nothing but what went wrong");
    command.footer(
        "All that the files say is done, in their order, or nothing: other programs never see a part of it.\n"
        "A damaged file is refused, with file, line and reason, and the exit code is 14. With --keep-going\n"
        "what is named is left out, a damaged key with its values, and the exit code is 7.\n"
        "\n"
        "Examples:\n"
        "  zr reg import device.reg\n"
        "  ssh server cat settings.reg | zr reg import --keep-going -");
    runs_with_registry(command, [options] { return RegImport(*options).run(); });
}

}  // namespace zr
