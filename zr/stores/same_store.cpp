#include "zr/stores/same_store.h"

#include <string>

namespace zr {

SameStore::SameStore(const char* store) : store_(store), before_(identity()) {}

ULONGLONG SameStore::identity() const {
    ULONGLONG number = 0;
    return ZrStoreIdentity(store_, &number) == static_cast<LONG>(ERROR_SUCCESS) ? number : 0;
}

void SameStore::expect() const {
    if (before_ == 0 || identity() == before_) return;
    throw Failure{Exit::DamagedStore,
                  std::string(store_) + ": the store was set aside as damaged, or replaced, while it was read"};
}

}  // namespace zr
