#pragma once

// CEPROPVAL blocks: values to and from the layout that GetProps and SetProps exchange.

#include <vector>

#include "com/com_object.h"
#include "values.h"

namespace zr::platform::pim {

inline bool cleared_text(BSTR* text) {
    return cleared(text);
}

// Writes the block as IItem::GetProps describes it.
HRESULT write_property_block(const std::vector<Values::Entry>& entries, ULONG flags, CEPROPVAL** values, ULONG* size,
                             HANDLE heap);

// Reads what SetProps is given; all of it or nothing.
HRESULT read_property_values(WORD count, const CEPROPVAL* values, std::vector<Values::Entry>& entries);

}  // namespace zr::platform::pim
