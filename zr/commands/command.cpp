#include "zr/commands/command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>
#include <sstream>
#include <utility>

#include "zr/base/failure.h"
#include "zr/base/nearest.h"
#include "zr/base/output.h"
#include "zr/base/pager.h"
#include "zr/base/writable_copy.h"

namespace zr {
namespace {

constexpr const char* kNoPager = "--no-pager";

}  // namespace

struct CommandLineParser {
    // An option that takes all that follows.
    struct Rest {
        const CLI::App* command;
        std::string name;
        std::vector<std::string>* values;
    };

    CLI::App app;
    std::vector<std::string> words;  // of the command line, behind the program's name
    Run run;
    Run otherwise;
    std::vector<Rest> rests;
    bool json = false;      // without a command
    bool no_pager = false;  // for --help; it is taken out before the library sees it

    // The command that the words begin with, which are then those behind it.
    const CLI::App* command_of(std::vector<std::string>& behind) const;
    // The words in front of such an option.
    std::vector<std::string> without_rest() const;
    // What is wrong with the words, where they name a command or an option that is none. Empty: nothing.
    std::string mistyped() const;
};

const CLI::App* CommandLineParser::command_of(std::vector<std::string>& behind) const {
    const CLI::App* command = &app;
    while (!behind.empty()) {
        const auto below =
            command->get_subcommands([&](const CLI::App* each) { return each->check_name(behind.front()); });
        if (below.empty()) break;
        command = below.front();
        behind.erase(behind.begin());
    }
    return command;
}

std::string CommandLineParser::mistyped() const {
    std::vector<std::string> behind = words;
    std::erase(behind, kNoPager);
    const CLI::App* const command = command_of(behind);
    std::vector<std::string> known;
    for (const CLI::App* each : command->get_subcommands({})) {
        known.push_back(each->get_name());
    }
    if (!known.empty() && !behind.empty() && !behind.front().starts_with("-"))
        return "no command '" + behind.front() + "'" + did_you_mean(behind.front(), known);
    known.clear();
    for (const CLI::Option* each : command->get_options()) {
        for (const std::string& name : each->get_lnames()) {
            known.push_back("--" + name);
        }
    }
    for (const std::string& word : behind) {
        if (word == "--") break;
        const std::string name = word.substr(0, word.find('='));
        if (!name.starts_with("--") || std::find(known.begin(), known.end(), name) != known.end()) continue;
        return "no option '" + name + "'" + did_you_mean(name, known);
    }
    return {};
}

std::vector<std::string> CommandLineParser::without_rest() const {
    std::vector<std::string> front = words;
    std::vector<std::string> behind = words;
    const CLI::App* const command = command_of(behind);
    for (const Rest& rest : rests) {
        if (rest.command != command) continue;
        const auto found = std::find(front.begin(), front.end(), rest.name);
        if (found == front.end()) continue;
        rest.values->assign(found + 1, front.end());
        if (rest.values->empty()) throw CLI::ArgumentMismatch(rest.name + ": nothing follows it");
        front.erase(found, front.end());
    }
    return front;
}

Option& Option::required() {
    option_->required();
    return *this;
}

Option& Option::one_of(const std::vector<std::string>& values) {
    const auto check = [values](const std::string& word) {
        if (std::find(values.begin(), values.end(), word) != values.end()) return std::string();
        std::string all;
        for (const std::string& each : values) {
            all += (all.empty() ? "" : ", ") + each;
        }
        return "'" + word + "' is none of " + all + did_you_mean(word, values);
    };
    std::string description = "{";
    for (const std::string& each : values) {
        description += (description.size() == 1 ? "" : ",") + each;
    }
    option_->check(CLI::Validator(check, description + "}"));
    return *this;
}

Option& Option::positive() {
    option_->check(CLI::Range(1, std::numeric_limits<LONG>::max()));
    return *this;
}

Option& Option::one_at_a_time() {
    option_->allow_extra_args(false);
    return *this;
}

Option& Option::excludes(const Option& other) {
    option_->excludes(other.option_);
    return *this;
}

Option& Option::shows_default() {
    option_->capture_default_str();
    return *this;
}

bool Option::given() const {
    return option_->count() > 0;
}

void Command::add_group(const std::string& name, const std::string& description, void (*fill)(Command group)) {
    const Command group = add_command(name, description);
    group.app_->require_subcommand(1);
    if (std::find(parser_->words.begin(), parser_->words.end(), name) != parser_->words.end()) fill(group);
}

Command Command::add_command(const std::string& name, const std::string& description) {
    return Command(app_->add_subcommand(name, description), parser_);
}

Option Command::add_flag(const std::string& name, bool& value, const std::string& description) {
    return Option(app_->add_flag(name, value, description));
}

Option Command::add_option(const std::string& name, std::string& value, const std::string& description) {
    return Option(app_->add_option(name, value, description));
}

Option Command::add_option(const std::string& name, std::vector<std::string>& values, const std::string& description) {
    return Option(app_->add_option(name, values, description));
}

Option Command::add_option(const std::string& name, LONG& value, const std::string& description) {
    return Option(app_->add_option(name, value, description));
}

Option Command::add_option(const std::string& name, std::vector<LONG>& values, const std::string& description) {
    return Option(app_->add_option(name, values, description));
}

void Command::footer(const std::string& text) {
    app_->footer(text);
}

void Command::runs(Run run) {
    app_->callback([slot = &parser_->run, run = std::move(run)] { *slot = run; });
}

void Command::reads(Run run) {
    runs([run = std::move(run)] {
        const WritableCopy copy;
        return run();
    });
}

void Command::add_rest(const std::string& name, std::vector<std::string>& values, const std::string& description) {
    app_->add_option(name, values, description)->type_name("PROGRAM ...");
    parser_->rests.push_back({app_, name, &values});
}

CommandLine::CommandLine(const std::string& description, const std::string& version, int argc, char** argv)
    : parser_(std::make_unique<CommandLineParser>()) {
    parser_->words.assign(argv + std::min(argc, 1), argv + argc);
    parser_->app.description(description);
    parser_->app.name("zr");
    parser_->app.require_subcommand(0, 1);
    parser_->app.add_flag(kNoPager, parser_->no_pager,
                          "Page no long lists, whatever PAGER says; also behind any command");
    parser_->app.add_flag("--json", parser_->json, "Print the overview as JSON");
    parser_->app.set_version_flag("--version", version, "Print the version and exit");
}

CommandLine::~CommandLine() = default;

Command CommandLine::root() {
    return Command(&parser_->app, parser_.get());
}

std::optional<int> CommandLine::parse() {
    try {
        std::vector<std::string> words = parser_->without_rest();
        // Anywhere in the command line.
        const auto end = std::find(words.begin(), words.end(), "--");
        const auto refused = std::remove(words.begin(), end, kNoPager);
        if (refused != end) Pager::instance().refuse();
        words.erase(refused, end);
        std::reverse(words.begin(), words.end());  // as the library wants them
        parser_->app.parse(std::move(words));
        if (parser_->run && parser_->json) {
            complain("--json stands behind the command that it is for");
            return static_cast<int>(Exit::Usage);
        }
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            std::ostringstream text;
            parser_->app.exit(error, text, text);
            parser_->run = [text = text.str()] {
                print(text);
                return Exit::Ok;
            };
            return std::nullopt;
        }
        const bool unknown = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError) ||
                             error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
        std::string text = unknown ? parser_->mistyped() : std::string();
        if (text.empty()) text = error.what();
        complain(text + " (zr --help tells more)");
        return static_cast<int>(Exit::Usage);
    }
    return std::nullopt;
}

void CommandLine::otherwise(std::function<Exit(bool as_json)> run) {
    parser_->otherwise = [parser = parser_.get(), run = std::move(run)] { return run(parser->json); };
}

const Run& CommandLine::run() const {
    return parser_->run ? parser_->run : parser_->otherwise;
}

}  // namespace zr
