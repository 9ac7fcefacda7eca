#include "zr/commands/command.h"

#include <CLI/CLI.hpp>
#include <limits>
#include <sstream>
#include <utility>

#include "zr/base/failure.h"
#include "zr/base/output.h"

namespace zr {

Option& Option::required() {
    option_->required();
    return *this;
}

Option& Option::one_of(const std::vector<std::string>& values) {
    option_->check(CLI::IsMember(values));
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

Command Command::add_group(const std::string& name, const std::string& description) {
    Command group = add_command(name, description);
    group.app_->require_subcommand(1);
    return group;
}

Command Command::add_command(const std::string& name, const std::string& description) {
    return Command(app_->add_subcommand(name, description), run_);
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
    app_->callback([slot = run_, run = std::move(run)] { *slot = run; });
}

struct CommandLine::Parser {
    CLI::App app;
    Run run;
};

CommandLine::CommandLine(const std::string& description, const std::string& version)
    : parser_(std::make_unique<Parser>()) {
    parser_->app.description(description);
    parser_->app.name("zr");
    parser_->app.require_subcommand(1);
    parser_->app.set_version_flag("--version", version, "Print the version and exit");
}

CommandLine::~CommandLine() = default;

Command CommandLine::root() {
    return Command(&parser_->app, &parser_->run);
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
    try {
        parser_->app.parse(argc, argv);
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
        complain(std::string(error.what()) + " (zr --help tells more)");
        return static_cast<int>(Exit::Usage);
    }
    return std::nullopt;
}

const Run& CommandLine::run() const {
    return parser_->run;
}

}  // namespace zr
