// zr: who sent me this message, what is in my contacts, what does the log say, who holds what?

#include <ZrLog/ZrLog.h>
#include <glib.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>

#include "zr/base/failure.h"
#include "zr/base/output.h"
#include "zr/base/pager.h"
#include "zr/base/streams.h"
#include "zr/commands/command.h"

#ifndef ZR_VERSION
#error "ZR_VERSION is the version to report"
#endif

namespace {

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0 done, found         1 nothing matches          2 wrong usage\n"
    "  3 several match       4 no usable From           5 not a message\n"
    "  6 unreadable file     7 something left out       8 disk full\n"
    "  9 newer store        10 damaged store           11 store failed otherwise\n"
    " 12 not a log            13 no time zone          14 not a sound .reg file\n"
    " 15 not a sound provisioning document            16 page cannot be shown\n"
    "\n"
    "ZR_HOME names the folder of contacts, mail and registry (default: zrutility in the user's\n"
    "data folder).";

void drop_glib_message(const gchar*, GLogLevelFlags, const gchar*, gpointer) {}

// What the parsers complain about is told by us, with file and line.
void silence_glib() {
    g_log_set_default_handler(drop_glib_message, nullptr);
    g_log_set_writer_func([](GLogLevelFlags, const GLogField*, gsize, gpointer) { return G_LOG_WRITER_HANDLED; },
                          nullptr, nullptr);
}

void fill_contacts(zr::Command contacts) {
    contacts.footer("Example:\n  zr contacts import phone.vcf\n\n'zr contacts COMMAND --help' tells more.");
    zr::add_contacts_import(contacts);
    zr::add_contacts_export(contacts);
    zr::add_contacts_list(contacts);
    zr::add_contacts_find(contacts);
    zr::add_contacts_show(contacts);
    zr::add_contacts_add(contacts);
    zr::add_contacts_change(contacts);
    zr::add_contacts_edit(contacts);
    zr::add_contacts_remove(contacts);
}

void fill_calendar(zr::Command calendar) {
    calendar.footer("Example:\n  zr calendar import work.ics\n\n'zr calendar COMMAND --help' tells more.");
    zr::add_calendar_import(calendar);
    zr::add_calendar_export(calendar);
    zr::add_calendar_add(calendar);
    zr::add_calendar_list(calendar);
    zr::add_calendar_show(calendar);
    zr::add_calendar_occurrence(calendar);
    zr::add_calendar_remove(calendar);
}

void fill_reg(zr::Command reg) {
    reg.footer("Example:\n  zr reg import device.reg\n\n'zr reg COMMAND --help' tells more.");
    zr::add_reg_get(reg);
    zr::add_reg_set(reg);
    zr::add_reg_delete(reg);
    zr::add_reg_list(reg);
    zr::add_reg_tree(reg);
    zr::add_reg_find(reg);
    zr::add_reg_copy(reg);
    zr::add_reg_rename(reg);
    zr::add_reg_diff(reg);
    zr::add_reg_watch(reg);
    zr::add_reg_import(reg);
    zr::add_reg_export(reg);
}

void fill_store(zr::Command store) {
    store.footer("Example:\n  zr store check\n\n'zr store COMMAND --help' tells more.");
    zr::add_store_check(store);
    zr::add_store_backup(store);
    zr::add_store_compact(store);
    zr::add_store_recover(store);
    zr::add_store_restore(store);
}

void fill_net(zr::Command net) {
    net.footer("Example:\n  zr net status\n\n'zr net COMMAND --help' tells more.");
    zr::add_net_status(net);
    zr::add_net_watch(net);
}

void fill_proxy(zr::Command proxy) {
    proxy.footer("Example:\n  zr proxy list\n\n'zr proxy COMMAND --help' tells more.");
    zr::add_proxy_list(proxy);
    zr::add_proxy_show(proxy);
    zr::add_proxy_changes(proxy);
    zr::add_proxy_env(proxy);
    zr::add_proxy_pac(proxy);
    zr::add_proxy_watch(proxy);
}

void fill_phone(zr::Command phone) {
    phone.footer("Example:\n  zr phone watch\n\n'zr phone COMMAND --help' tells more.");
    zr::add_phone_lines(phone);
    zr::add_phone_calls(phone);
    zr::add_phone_watch(phone);
    zr::add_phone_answer(phone);
    zr::add_phone_hangup(phone);
    zr::add_phone_dial(phone);
}

void fill_mail(zr::Command mail) {
    mail.footer("Example:\n  zr mail import ~/Maildir\n\n'zr mail COMMAND --help' tells more.");
    zr::add_mail_import(mail);
    zr::add_mail_export(mail);
    zr::add_mail_folders(mail);
    zr::add_mail_list(mail);
    zr::add_mail_find(mail);
    zr::add_mail_show(mail);
    zr::add_mail_attachments(mail);
    zr::add_mail_move(mail);
    zr::add_mail_save(mail);
    zr::add_mail_mark(mail);
    zr::add_mail_delete(mail);
    zr::add_mail_meetings(mail);
    zr::add_mail_watch(mail);
}

void fill_log(zr::Command log) {
    log.footer("Example:\n  zr log show client.zrlog");
    zr::add_log_show(log);
}

void fill_screen(zr::Command screen) {
    screen.footer("Example:\n  zr screen fit \"A long line of text\" --width 80");
    zr::add_screen_info(screen);
    zr::add_screen_fit(screen);
}

void build(zr::Command app) {
    app.footer(kExitCodes);
    app.add_group("contacts", "Read and change the contact store", fill_contacts);
    app.add_group("calendar", "Read and change the calendar and the tasks", fill_calendar);
    app.add_group("reg", "Read and change the registry", fill_reg);
    app.add_group("store", "Examine, back up and bring back what is kept", fill_store);
    app.add_group("net", "Show the connections of this computer", fill_net);
    app.add_group("proxy", "Show and change the proxies", fill_proxy);
    app.add_group("phone", "Show the calls of this computer, answer, end and make them", fill_phone);
    zr::add_provision(app);
    app.add_group("mail", "Read and change the message store", fill_mail);
    zr::add_resolve(app);
    app.add_group("log", "Read the binary log", fill_log);
    zr::add_modules(app);
    app.add_group("screen", "Show the screen, and fit text into a place on it", fill_screen);
    zr::add_html(app);
    zr::add_objects(app);
    zr::add_zone(app);
    zr::add_watch(app);
}

// What was printed before still counts; that the output is closed was said already, or need not be.
void end_output_after_failure() {
    try {
        zr::end_output();
    } catch (const zr::Failure&) {
        std::fflush(stdout);
    }
}

zr::Exit execute(const zr::Run& run) {
    try {
        const zr::Exit code = run();
        zr::end_output();
        return code;
    } catch (const zr::ReaderHasEnough&) {
        end_output_after_failure();
        return zr::Exit::Ok;
    } catch (const zr::Failure& failure) {
        end_output_after_failure();
        zr::complain(failure.text);
        return failure.code;
    } catch (const std::bad_alloc&) {
        end_output_after_failure();
        zr::complain("out of memory");
        return zr::Exit::StoreFailed;
    }
}

// A log that was asked for and is not kept harms no command, but is no secret.
void tell_log_trouble() {
    const char* const name = std::getenv("ZR_LOG");
    if (name == nullptr || *name == '\0') return;
    if (const char* const reason = zrLogError()) zr::complain("no log is kept in " + std::string(reason));
}

}  // namespace

int main(int argc, char** argv) {
    if (!zr::hold_standard_streams()) return static_cast<int>(zr::Exit::Unreadable);
    std::setlocale(LC_CTYPE, "C.UTF-8");
    std::signal(SIGPIPE, SIG_DFL);  // a reader that has seen enough ends us quietly
    std::signal(SIGXFSZ, SIG_IGN);  // a limit of file sizes is a disk that is full, which is told
    silence_glib();
    zr::CommandLine line(
        "Contacts, mail, senders of messages, the registry, the log, named objects and the time zone, at a terminal.",
        "zr " ZR_VERSION, argc, argv);
    build(line.root());
    line.otherwise(zr::show_overview);
    if (const std::optional<int> code = line.parse()) return *code;
    const zr::Exit code = execute(line.run());
    tell_log_trouble();
    return static_cast<int>(code);
}
