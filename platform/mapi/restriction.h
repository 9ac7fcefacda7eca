#pragma once

// A copy of a program's restriction, and whether a row fits it.

#include <optional>
#include <string>
#include <vector>

#include "value.h"

namespace zr::platform::mapi {

class Restriction {
public:
    // MAPI_E_TOO_COMPLEX: nested too deeply, or of a kind that is not known; MAPI_E_INVALID_PARAMETER.
    static HRESULT take(const SRestriction& given, Restriction& restriction, int depth = 0);

    // The tags that a row must have for fits().
    void tags(std::vector<ULONG>& tags) const;
    // `row`: values of the tags, those that are missing as errors.
    bool fits(const SPropValue* row, std::size_t count) const;
    // The text that a property must have, where the restriction says so.
    std::optional<std::u16string> required_text(ULONG tag) const;

private:
    bool fits_content(const SPropValue& value) const;

    ULONG kind_ = RES_AND;
    ULONG relation_ = 0;  // or the kind of a comparison of texts
    ULONG tag_ = 0;
    ULONG other_tag_ = 0;
    ULONG number_ = 0;
    Value value_;
    std::vector<Restriction> parts_;
};

}  // namespace zr::platform::mapi
