#include "zr/commands/import.h"

#include <algorithm>
#include <filesystem>

#include "zr/base/output.h"
#include "zr/base/text.h"

namespace zr {

void ImportOptions::add_to(Command command, const char* what_files) {
    command.add_option("FILE", files, what_files).required();
    command.add_flag("--json", json, "Print the result as JSON");
    command.add_flag("-q,--quiet", quiet, "Print nothing but what went wrong");
}

void DuplicateOptions::add_to(Command command, const char* what_files) {
    ImportOptions::add_to(command, what_files);
    command
        .add_option("--on-duplicate", on_duplicate,
                    "What is there already: update it when the file is newer, skip it, or add it again")
        .one_of({"update", "skip", "add"})
        .shows_default();
    command.add_flag("--dry-run", dry_run, "Change nothing, tell what would be");
}

Exit Import::run() {
    try {
        for (const std::string& path : options_.files) {
            if (interrupted()) break;
            try {
                read_path(path);
            } catch (const Failure& failure) {
                if (failure.code != Exit::Unreadable) throw;
                note_unreadable(failure);
            }
        }
        save();
    } catch (const Failure& failure) {
        // The store failed: what was saved before stays, and nothing of the batch at hand is in.
        imported_ += stored_before_failing();
        progress_.clear();
        report();
        flush_output();
        throw Failure{failure.code, failure.text + "; " + std::to_string(imported_) + " " + words_.all_made +
                                        " are in, the rest is not"};
    }
    progress_.clear();
    report();
    if (interrupted()) {
        flush_output();
        complain("interrupted: " + std::to_string(imported_ + updated_ + known_) + " " + words_.all_made +
                 " are in; the same command goes on from there");
        end_interrupted();
    }
    if (code_ == Exit::Ok && left_out_ + incomplete_ > 0) code_ = Exit::DamagedCards;
    return code_;
}

void Import::read_path(const std::string& path) {
    std::error_code none;
    if (!endings().empty() && std::filesystem::is_directory(path, none)) return read_folder(path);
    InputFile file(path);
    read(file);
}

void Import::read_folder(const std::string& path) {
    const std::vector<std::string> wanted = endings();
    std::vector<std::string> files;
    std::error_code error;
    for (std::filesystem::directory_iterator each(path, error), end; !error && each != end; each.increment(error)) {
        const std::string ending = each->path().extension();
        const auto equal = [&](const std::string& other) { return equal_ignoring_case(ending, other); };
        std::error_code none;
        const bool file = each->is_regular_file(none);
        if (file && std::any_of(wanted.begin(), wanted.end(), equal)) files.push_back(each->path());
    }
    if (error) throw file_failure(path, error.value());
    if (files.empty()) throw Failure{Exit::Unreadable, path + ": no file in this folder ends in " + wanted.front()};
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) {
        if (interrupted()) return;
        try {
            read_path(file);
        } catch (const Failure& failure) {
            if (failure.code != Exit::Unreadable) throw;
            note_unreadable(failure);
        }
    }
}

void Import::note_unreadable(const Failure& failure) {
    progress_.clear();
    complain(failure.text);
    code_ = combine(code_, failure.code);
    if (options_.json) problems_.add({{"reason", failure.text}, {"effect", "not read"}});
}

void Import::note(const std::string& file, const std::vector<Problem>& problems, bool left_out) {
    if (problems.empty()) return;
    bool lost = false;
    progress_.clear();
    for (const Problem& problem : problems) {
        lost = lost || problem.lost;
        const std::string effect = !problem.lost ? "none"
                                   : left_out    ? std::string(words_.source) + " left out"
                                                 : words_.incomplete;
        complain(file + ":" + std::to_string(problem.line) + ": " + (problem.lost ? effect : "warning") + ": " +
                 problem.reason);
        if (!options_.json) continue;
        problems_.add({{"file", file}, {"line", problem.line}, {"reason", problem.reason}, {"effect", effect}});
    }
    if (!lost) return;
    ++(left_out ? left_out_ : incomplete_);
}

void Import::note_refused(const std::string& name, const std::string& why) {
    progress_.clear();
    complain(std::string(words_.made) + " left out: " + name + ": " + why);
    ++left_out_;
    if (options_.json)
        problems_.add({{"item", name}, {"reason", why}, {"effect", std::string(words_.made) + " left out"}});
}

void Import::show(const InputFile& file, std::uint64_t bytes_read, std::size_t waiting) {
    show(file.name(), bytes_read, static_cast<std::uint64_t>(file.size()), waiting);
}

void Import::show(const std::string& what, std::uint64_t done, std::uint64_t total, std::size_t waiting) {
    progress_.show(what, done, total, imported_ + static_cast<long>(waiting));
}

void Import::report() {
    if (options_.json) {
        Json json{{"imported", imported_}};
        if (words_.updates) json.set("updated", updated_);
        if (words_.knows) json.set("alreadyThere", known_);
        if (options_.dry_run) json.set("dryRun", true);
        json.set_all({{"leftOut", left_out_}, {"incomplete", incomplete_}, {"problems", problems_}});
        print_json_line(json);
        return;
    }
    if (options_.quiet) return;
    std::string text = (options_.dry_run ? "would import " : "imported ") + std::to_string(imported_) + " " +
                       (imported_ == 1 ? words_.made : words_.all_made);
    if (updated_ > 0) text += "; " + std::to_string(updated_) + (options_.dry_run ? " would be" : "") + " updated";
    if (known_ > 0) text += "; " + std::to_string(known_) + (known_ == 1 ? " was" : " were") + " there already";
    // What was there already is not in full either.
    if (incomplete_ > 0) text += "; " + std::to_string(incomplete_) + " not in full";
    if (left_out_ > 0) {
        text += "; left out " + std::to_string(left_out_) + " " + (left_out_ == 1 ? words_.source : words_.sources);
    }
    print(text + "\n");
}

}  // namespace zr
