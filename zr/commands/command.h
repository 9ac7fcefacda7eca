#pragma once

// The command line, as a subcommand sees it: it adds its options, and stores what to run when it is the one that was
// given. One source knows the parsing library and pays for compiling it.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/types.h"
#include "zr/base/exit_code.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace zr {

using Run = std::function<Exit()>;
struct CommandLineParser;

// An option, a flag or an argument of a command. Belongs to the command line, like the variable it fills.
class Option {
public:
    explicit Option(CLI::Option* option) : option_(option) {}

    Option& required();
    Option& one_of(const std::vector<std::string>& values);
    Option& positive();
    // Takes one value each time it is given, not all that follow.
    Option& one_at_a_time();
    Option& excludes(const Option& other);
    Option& shows_default();

    bool given() const;

private:
    CLI::Option* option_;
};

class Command {
public:
    Command(CLI::App* app, CommandLineParser* parser) : app_(app), parser_(parser) {}

    // A group takes one of its subcommands. `fill` adds them, when the command line names the group: there are so many
    // commands that making all of them takes longer than most take to run.
    void add_group(const std::string& name, const std::string& description, void (*fill)(Command group));
    Command add_command(const std::string& name, const std::string& description);

    Option add_flag(const std::string& name, bool& value, const std::string& description);
    Option add_option(const std::string& name, std::string& value, const std::string& description);
    Option add_option(const std::string& name, std::vector<std::string>& values, const std::string& description);
    Option add_option(const std::string& name, LONG& value, const std::string& description);
    Option add_option(const std::string& name, std::vector<LONG>& values, const std::string& description);

    // An option that comes last on the command line: all that follows it is its own, whatever it looks like.
    void add_rest(const std::string& name, std::vector<std::string>& values, const std::string& description);

    // What --help says last.
    void footer(const std::string& text);
    void runs(Run run);
    // What changes no store: it works where the stores cannot be written to, too.
    void reads(Run run);

private:
    CLI::App* app_;
    CommandLineParser* parser_;
};

class CommandLine {
public:
    // The arguments of main, which outlive it.
    CommandLine(const std::string& description, const std::string& version, int argc, char** argv);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    Command root();
    // What is run when no command is given; `as_json` for --json.
    void otherwise(std::function<Exit(bool as_json)> run);

    // The exit code when there is nothing to run: wrong usage, which has been complained about.
    std::optional<int> parse();
    const Run& run() const;

private:
    std::unique_ptr<CommandLineParser> parser_;
};

Exit show_overview(bool as_json);
void add_contacts_import(Command contacts);
void add_contacts_export(Command contacts);
void add_contacts_list(Command contacts);
void add_contacts_find(Command contacts);
void add_contacts_show(Command contacts);
void add_contacts_add(Command contacts);
void add_contacts_change(Command contacts);
void add_contacts_edit(Command contacts);
void add_contacts_remove(Command contacts);
void add_calendar_import(Command calendar);
void add_calendar_export(Command calendar);
void add_calendar_add(Command calendar);
void add_calendar_list(Command calendar);
void add_calendar_show(Command calendar);
void add_calendar_occurrence(Command calendar);
void add_calendar_remove(Command calendar);
void add_reg_get(Command reg);
void add_reg_set(Command reg);
void add_reg_delete(Command reg);
void add_reg_list(Command reg);
void add_reg_tree(Command reg);
void add_reg_find(Command reg);
void add_reg_copy(Command reg);
void add_reg_rename(Command reg);
void add_reg_diff(Command reg);
void add_reg_watch(Command reg);
void add_reg_import(Command reg);
void add_reg_export(Command reg);
void add_store_check(Command store);
void add_store_backup(Command store);
void add_store_compact(Command store);
void add_store_recover(Command store);
void add_store_restore(Command store);
void add_net_status(Command net);
void add_net_watch(Command net);
void add_proxy_list(Command proxy);
void add_proxy_show(Command proxy);
void add_proxy_changes(Command proxy);
void add_proxy_env(Command proxy);
void add_proxy_pac(Command proxy);
void add_proxy_watch(Command proxy);
void add_phone_lines(Command phone);
void add_phone_calls(Command phone);
void add_phone_watch(Command phone);
void add_phone_answer(Command phone);
void add_phone_hangup(Command phone);
void add_phone_dial(Command phone);
void add_provision(Command zr);
void add_mail_import(Command mail);
void add_mail_export(Command mail);
void add_mail_folders(Command mail);
void add_mail_list(Command mail);
void add_mail_find(Command mail);
void add_mail_show(Command mail);
void add_mail_attachments(Command mail);
void add_mail_move(Command mail);
void add_mail_save(Command mail);
void add_mail_mark(Command mail);
void add_mail_delete(Command mail);
void add_mail_meetings(Command mail);
void add_mail_watch(Command mail);
void add_resolve(Command zr);
void add_log_show(Command log);
void add_modules(Command zr);
void add_screen_info(Command screen);
void add_screen_fit(Command screen);
void add_html(Command zr);
void add_objects(Command zr);
void add_zone(Command zr);
void add_watch(Command zr);

}  // namespace zr
