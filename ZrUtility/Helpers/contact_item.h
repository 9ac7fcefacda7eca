#pragma once

#include "platform/pim.h"

// The contact behind an item, whose reference is taken over; given back when it is another kind of item. An item that
// knows no identifier of the four kinds is taken for a contact, which is what the contacts folder holds.
LONG ContactOfItem(IDispatch* item, IContact*& contact);
