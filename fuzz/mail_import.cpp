// A message on its way into the store: whatever the bytes are, they are kept or refused, and what was kept comes back.

// First: GLib makes macros of TRUE and FALSE, which the platform declares as constants.
#include "zr/stores/mail_filing.h"

#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "zr/stores/mail_content.h"

namespace {

constexpr int kKeepEach = 50;  // commits take long; the others are given up

void drop(const gchar*, GLogLevelFlags, const gchar*, gpointer) {}

void check(bool holds) {
    if (!holds) std::abort();
}

// A store of its own, for as long as the program runs.
class Store {
public:
    Store() {
        g_log_set_default_handler(drop, nullptr);
        std::string name = (std::filesystem::temp_directory_path() / "zr-fuzz-XXXXXX").string();
        check(mkdtemp(name.data()) != nullptr);
        home_ = name;
        setenv("ZR_HOME", name.c_str(), 1);
        mail_ = std::make_unique<zr::MailSession>();
        inbox_ = mail_->folder_named("Inbox");
    }
    ~Store() {
        inbox_.reset();
        mail_.reset();
        std::filesystem::remove_all(home_);
    }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    zr::MailSession& mail() { return *mail_; }
    IMAPIFolder* inbox() { return inbox_.get(); }
    zr::EntryBytes inbox_entry() { return zr::MailValues(inbox(), {PR_ENTRYID}).bytes(PR_ENTRYID); }

private:
    std::filesystem::path home_;
    std::unique_ptr<zr::MailSession> mail_;
    zr::ComPtr<IMAPIFolder> inbox_;
};

// The one message that is in the folder, and then is not any more.
void take_back(Store& store, std::string_view bytes) {
    zr::ComPtr<IMAPITable> table;
    check(store.inbox()->GetContentsTable(0, table.out()) == S_OK);
    int count = 0;
    zr::each_mail_row(table.get(), [&](const zr::MailRow& row) {
        ++count;
        zr::EntryBytes entry = row.entry;
        {
            const zr::ComPtr<IMessage> message = store.mail().message(entry);
            std::string kept;
            zr::read_message_bytes(message.get(), [&](std::string_view piece) { kept += piece; });
            check(kept == bytes);
            zr::attachments_of(message.get());
            zr::recipients_of(message.get());
        }
        SBinary one = {zr::size_of(entry), reinterpret_cast<BYTE*>(zr::entry_of(entry))};
        ENTRYLIST list = {1, &one};
        check(store.inbox()->DeleteMessages(&list, 0, nullptr, 0) == S_OK);
        return true;
    });
    check(count == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Store store;
    static int number = 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    zr::Arrival arrival;
    arrival.open = [&] { return zr::read_from_memory(bytes); };
    arrival.status_in_header = size % 2 == 1;
    zr::MailFiling filing(store.mail());
    filing.into(store.inbox_entry());
    const zr::Filed filed = filing.file(arrival);
    check(filed != zr::Filed::Known);
    if (filed != zr::Filed::Stored || ++number % kKeepEach != 0) return 0;
    filing.keep();
    check(filing.newly_kept() == 1);
    check(filing.file(arrival) == zr::Filed::Known);
    take_back(store, bytes);
    return 0;
}
