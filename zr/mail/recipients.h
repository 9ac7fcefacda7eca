#pragma once

// Recipient texts split by the library, AddressUtilities::NextRecipient.

#include <string_view>
#include <vector>

#include "zr/mail/message_reader.h"

namespace zr {

// The recipients of a list separated by semicolons. One without angle brackets is an address. Recipients without a
// usable address are left out.
std::vector<Sender> split_recipients(std::string_view list);

}  // namespace zr
