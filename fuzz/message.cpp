// The way of a message from its bytes to the addresses that are looked up.

#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "zr/base/text.h"
#include "zr/mail/message_reader.h"
#include "zr/mail/recipients.h"

namespace {

void drop(const gchar*, GLogLevelFlags, const gchar*, gpointer) {}

void check(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    g_log_set_default_handler(drop, nullptr);
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const zr::Message message = zr::read_message(zr::read_from_memory(bytes));
    check((message.status == zr::MessageStatus::Ok) == !message.senders.empty());
    for (const zr::Sender& sender : message.senders) {
        check(zr::is_utf8(sender.name) && zr::is_utf8(sender.address) && !sender.address.empty());
    }
    zr::split_recipients(bytes);
    return 0;
}
