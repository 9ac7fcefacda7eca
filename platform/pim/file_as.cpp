#include "file_as.h"

namespace zr::platform::pim {

std::u16string file_as_from(const std::u16string_view (&columns)[kColumns]) {
    std::u16string given(columns[kFirstName]);
    if (!given.empty() && !columns[kMiddleName].empty()) given += u' ';
    given += columns[kMiddleName];
    std::u16string name(columns[kLastName]);
    if (!name.empty() && !given.empty()) name += u", ";
    name += given;
    if (!name.empty()) return name;
    return std::u16string(columns[kCompanyName].empty() ? columns[kEmail1Address] : columns[kCompanyName]);
}

}  // namespace zr::platform::pim
