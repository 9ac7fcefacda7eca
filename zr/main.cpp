// zr: who sent me this message, what is in my contacts, what does the log say?

#include <glib.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>

#include "command.h"
#include "failure.h"
#include "output.h"

#ifndef ZR_VERSION
#error "ZR_VERSION is the version to report"
#endif

namespace {

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0 done, found         1 nothing matches          2 wrong usage\n"
    "  3 several match       4 no usable From           5 not a message\n"
    "  6 unreadable file     7 damaged cards left out   8 disk full\n"
    "  9 newer store        10 damaged store           11 store failed otherwise\n"
    " 12 not a log\n"
    "\n"
    "ZR_HOME names the folder of the contact store (default: zrutility in the user's data folder).";

void drop_glib_message(const gchar*, GLogLevelFlags, const gchar*, gpointer) {}

// What the parsers complain about is told by us, with file and line.
void silence_glib() {
    g_log_set_default_handler(drop_glib_message, nullptr);
    g_log_set_writer_func([](GLogLevelFlags, const GLogField*, gsize, gpointer) { return G_LOG_WRITER_HANDLED; },
                          nullptr, nullptr);
}

void build(CLI::App& app, zr::Run& run) {
    app.require_subcommand(1);
    app.set_version_flag("--version", "zr " ZR_VERSION, "Print the version and exit");
    app.footer(kExitCodes);
    CLI::App* contacts = app.add_subcommand("contacts", "Read and change the contact store");
    contacts->require_subcommand(1);
    contacts->footer("Example:\n  zr contacts import phone.vcf\n\n'zr contacts COMMAND --help' tells more.");
    zr::add_contacts_import(*contacts, run);
    zr::add_contacts_export(*contacts, run);
    zr::add_contacts_list(*contacts, run);
    zr::add_contacts_find(*contacts, run);
    zr::add_contacts_show(*contacts, run);
    zr::add_contacts_add(*contacts, run);
    zr::add_contacts_change(*contacts, run);
    zr::add_contacts_remove(*contacts, run);
    zr::add_resolve(app, run);
    CLI::App* log = app.add_subcommand("log", "Read the binary log");
    log->require_subcommand(1);
    log->footer("Example:\n  zr log show client.zrlog");
    zr::add_log_show(*log, run);
}

zr::Exit execute(const zr::Run& run) {
    try {
        const zr::Exit code = run();
        zr::flush_output();
        return code;
    } catch (const zr::Failure& failure) {
        // What was printed before still counts; that the output is closed was said already, or need not be.
        std::fflush(stdout);
        zr::complain(failure.text);
        return failure.code;
    } catch (const std::bad_alloc&) {
        zr::complain("out of memory");
        return zr::Exit::StoreFailed;
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    std::signal(SIGPIPE, SIG_DFL);  // a reader that has seen enough ends us quietly
    silence_glib();
    CLI::App app("Contacts, senders of messages and the log, at a terminal.", "zr");
    zr::Run run;
    build(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
        zr::complain(std::string(error.what()) + " (zr --help tells more)");
        return static_cast<int>(zr::Exit::Usage);
    }
    return static_cast<int>(execute(run));
}
