#pragma once

// What a message in the store is made of, and its bytes. Every function throws Failure when the store fails.

#include <string>
#include <string_view>
#include <vector>

#include "zr/stores/mail.h"

namespace zr {

struct MailRecipient {
    LONG type = 0;  // MAPI_TO, MAPI_CC, MAPI_BCC
    std::string name;
    std::string address;
};
std::vector<MailRecipient> recipients_of(IMessage* message);

struct MailAttachment {
    LONG number = 0;
    std::string name;  // as somebody wrote it: no path to be followed
    std::string type;
    LONG size = 0;
};
std::vector<MailAttachment> attachments_of(IMessage* message);

// A message as an HTML page: its HTML, with the pictures that came with it in it, or its text.
std::string mail_page(IMessage* message);

// The bytes of a message, piece by piece: as they came, or, where a program made it of properties, written from these.
void read_message_bytes(IMessage* message, const std::function<void(std::string_view)>& take);

}  // namespace zr
