#include "zr/stores/contact_index.h"

#include <charconv>

namespace zr {

ContactIndex::ContactIndex(Store& store) {
    const int count = store.count();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (contact) add(uid_of(contact.get()), oid_of(contact.get()));
    }
}

LONG ContactIndex::find(const std::string& uid) const {
    const auto found = oids_.find(uid);
    return found == oids_.end() ? 0 : found->second;
}

LONG find_contact(Store& store, const std::string& number_or_uid) {
    LONG oid = 0;
    const char* const end = number_or_uid.data() + number_or_uid.size();
    const auto [last, error] = std::from_chars(number_or_uid.data(), end, oid);
    if (error == std::errc() && last == end && store.with_oid(oid)) return oid;
    const int count = store.count();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (contact && uid_of(contact.get()) == number_or_uid) return oid_of(contact.get());
    }
    return 0;
}

}  // namespace zr
