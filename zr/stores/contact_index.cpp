#include "zr/stores/contact_index.h"

#include <charconv>

namespace zr {
namespace {

std::unordered_map<std::string, LONG> unnamed_contacts(Store& store) {
    std::unordered_map<std::string, LONG> found;
    for (LONG oid = store.with_uid({}); oid != 0; oid = store.with_uid({}, oid)) {
        const ComPtr<IContact> contact = store.with_oid(oid);
        if (contact) found.emplace(content_uid(contact.get()), oid);
    }
    return found;
}

}  // namespace

LONG ContactIndex::find(const std::string& uid) {
    if (const auto found = added_.find(uid); found != added_.end()) return found->second;
    if (const LONG oid = store_.with_uid(uid); oid != 0) return oid;
    const LONG numbered = number_in_made_uid(uid);
    const ComPtr<IContact> contact = numbered != 0 ? store_.with_oid(numbered) : ComPtr<IContact>();
    if (contact && uid_of(contact.get()) == uid) return numbered;
    if (!unnamed_) unnamed_ = unnamed_contacts(store_);
    const auto found = unnamed_->find(uid);
    return found == unnamed_->end() ? 0 : found->second;
}

LONG find_contact(Store& store, const std::string& number_or_uid) {
    LONG oid = 0;
    const char* const end = number_or_uid.data() + number_or_uid.size();
    const auto [last, error] = std::from_chars(number_or_uid.data(), end, oid);
    if (error == std::errc() && last == end && store.with_oid(oid)) return oid;
    return number_or_uid.empty() ? 0 : ContactIndex(store).find(number_or_uid);
}

}  // namespace zr
