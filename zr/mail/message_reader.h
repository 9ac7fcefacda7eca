#pragma once

// Who sent a message: the From of an RFC 5322 message, read by GMime.

#include <string>
#include <vector>

#include "zr/base/line_reader.h"
#include "zr/mail/header.h"

namespace zr {

enum class MessageStatus { Ok, Unreadable, NotAMessage, NoSender };

struct Message {
    MessageStatus status = MessageStatus::Ok;
    int error = 0;                // errno of Unreadable
    std::vector<Sender> senders;  // at least one when Ok
    std::string subject;
};

// Reads the header only, so a message of any size costs its header. An mbox separator before it is skipped.
// Thread-safe.
Message read_message(const ReadFunction& read);

}  // namespace zr
