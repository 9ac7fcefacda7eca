#pragma once

// What every import does: its files one after the other, problems named on standard error as they are met, batches that
// are stored whole or not at all, and a count at the end.

#include <string>
#include <vector>

#include "zr/base/exit_code.h"
#include "zr/base/failure.h"
#include "zr/base/input_file.h"
#include "zr/base/json.h"
#include "zr/base/problem.h"
#include "zr/base/progress.h"
#include "zr/commands/command.h"

namespace zr {

struct ImportOptions {
    std::vector<std::string> files;
    bool json = false;
    bool quiet = false;
    bool dry_run = false;

    void add_to(Command command, const char* what_files);
};

// What the import calls the things that it makes, what it makes them of, and what it says of one that came in without
// something.
struct ImportWords {
    const char* made;        // "contact"
    const char* all_made;    // "contacts"
    const char* source;      // "card"
    const char* sources;     // "cards"
    const char* incomplete;  // "line left out"
    bool knows = false;      // tells how many were there already
    bool updates = false;    // and how many are other ones now
};

// For imports that know what is there.
struct DuplicateOptions : ImportOptions {
    std::string on_duplicate = "update";

    void add_to(Command command, const char* what_files);
};

class Import {
public:
    virtual ~Import() = default;
    Import(const Import&) = delete;
    Import& operator=(const Import&) = delete;

    Exit run();

protected:
    // A batch is one transaction of the store. It is small enough that other programs do not wait for it long.
    static constexpr std::size_t kBatchItems = 1000;
    static constexpr std::size_t kBatchBytes = std::size_t{4} << 20;

    Import(const ImportOptions& options, const ImportWords& words)
        : options_(options), words_(words), progress_(!options.quiet && !options.json, words.all_made) {}

    // Whether the user had enough. What was read before is stored, and the rest left.
    virtual bool interrupted() const { return false; }
    // Ends the program as the interruption asks for.
    virtual void end_interrupted() {}
    // How the names of files end that are read of a folder; none: folders are not read.
    virtual std::vector<std::string> endings() const { return {}; }
    // Reads what the command line names: a file, or the files of a folder, unless an import knows more.
    virtual void read_path(const std::string& path);
    virtual void read(InputFile& file) = 0;
    // Stores the batch at hand and returns how many were in it. Called once more behind the last file.
    virtual long save_batch() = 0;
    // How many were stored besides what save_batch told of, when the store failed.
    virtual long stored_before_failing() { return 0; }

    void save() { imported_ += save_batch(); }
    void note(const std::string& file, const std::vector<Problem>& problems, bool left_out);
    // An item that was read and that the store did not take.
    void note_refused(const std::string& name, const std::string& why);
    void note_known() { ++known_; }      // an item that was there already
    void note_updated() { ++updated_; }  // an item that was there, and is another one now
    // A file that cannot be read, which does not end the import.
    void note_unreadable(const Failure& failure);
    void show(const InputFile& file, std::uint64_t bytes_read, std::size_t waiting);
    void show(const std::string& what, std::uint64_t done, std::uint64_t total, std::size_t waiting);

private:
    void read_folder(const std::string& path);
    void report();

    const ImportOptions& options_;
    const ImportWords& words_;
    Progress progress_;
    Exit code_ = Exit::Ok;
    long imported_ = 0;
    long known_ = 0;
    long updated_ = 0;
    long left_out_ = 0;    // sources
    long incomplete_ = 0;  // sources that came in without something
    Json problems_ = Json::array();
};

}  // namespace zr
