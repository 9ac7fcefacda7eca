#pragma once

// Contacts to vCards, for any program to read: CR LF, lines folded at 75 bytes between characters, UTF-8.

#include <string>

#include "zr/vcard/card.h"

namespace zr {

// Appends the card to `out`, in the syntax of the version and in the words of the card that it came from, where its
// fields still say the same. False when it has kept lines that no reader would take for properties; they are left out.
bool write_card(const Card& card, CardVersion version, std::string& out);

}  // namespace zr
