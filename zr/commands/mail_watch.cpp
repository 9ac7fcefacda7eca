// zr mail watch: new mail as it comes.

#include <deque>
#include <memory>

#include "zr/base/event_loop.h"
#include "zr/base/output.h"
#include "zr/commands/command.h"
#include "zr/commands/mail_rows.h"

namespace zr {
namespace {

// Not made to be deleted through a base.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// Keeps what it is told until it is asked; for one thread.
class NewMail final : public IMAPIAdviseSink {
public:
    HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return ++references_; }
    ULONG Release() override { return --references_; }
    ULONG OnNotify(ULONG count, LPNOTIFICATION notifications) override {
        for (ULONG i = 0; i < count; ++i) {
            if (notifications[i].ulEventType == fnevCriticalError) lost_ = true;
            if (notifications[i].ulEventType != fnevNewMail) continue;
            const NEWMAIL_NOTIFICATION& mail = notifications[i].info.newmail;
            entries_.push_back(zr::bytes_of(SBinary{mail.cbEntryID, reinterpret_cast<BYTE*>(mail.lpEntryID)}));
        }
        return 0;
    }

    std::deque<EntryBytes>& entries() { return entries_; }
    bool is_lost() const { return lost_; }

private:
    ULONG references_ = 1;
    std::deque<EntryBytes> entries_;
    bool lost_ = false;
};

#pragma GCC diagnostic pop

class Advice {
public:
    Advice(IMsgStore* store, IMAPIAdviseSink* sink) : store_(store) {
        check_mail(store->Advise(0, nullptr, fnevNewMail | fnevCriticalError, sink, &connection_),
                   "watching the store");
    }
    ~Advice() { store_->Unadvise(connection_); }
    Advice(const Advice&) = delete;
    Advice& operator=(const Advice&) = delete;

private:
    IMsgStore* store_;
    ULONG connection_ = 0;
};

void print_new(MailSession& mail, NewMail& sink, SenderNames& names, bool json) {
    names.look_again();
    for (; !sink.entries().empty(); sink.entries().pop_front()) {
        try {
            const ComPtr<IMessage> message = mail.message(sink.entries().front());
            const MailRow row = mail_row_of(message.get());
            if (json) {
                print_json_line(mail_json(mail, row, names));
            } else {
                print(mail_line(mail, row, names));
            }
        } catch (const Failure& failure) {
            if (failure.code != Exit::None) throw;  // deleted meanwhile
        }
    }
    flush_output();
}

Exit watch_mail(bool json) {
    EventLoop loop;
    MailSession mail;
    SenderNames names;
    NewMail sink;
    const Advice advice(mail.store(), &sink);
    // Who reads along knows from here on that nothing is missed.
    complain("watching for new mail");
    while (loop.wait({})) {
        print_new(mail, sink, names, json);
        if (sink.is_lost()) throw Failure{Exit::DamagedStore, "the message store is damaged and was set aside"};
    }
    return Exit::Ok;
}

}  // namespace

void add_mail_watch(Command mail) {
    const auto json = std::make_shared<bool>(false);
    Command command = mail.add_command("watch", "Print new mail as it comes, until interrupted");
    command.add_flag("--json", *json, "Print one JSON object per message and line");
    command.footer(
        "New mail is what is put into the Inbox and was not read, by whichever program.\n"
        "A line is as zr mail list has it.\n"
        "\n"
        "Example:\n"
        "  zr mail watch --json | jq -r .subject");
    command.runs([json] { return watch_mail(*json); });
}

}  // namespace zr
