#include "zr/vcard/evcard.h"

namespace zr::evcard {
namespace {

bool load() {
    const LoadedLibrary library(ZR_EBOOK_CONTACTS_LIBRARY, "reading cards needs the package libebook-contacts");
    ZR_EVCARD_CALLS(ZR_FIND_LOADED_CALL)
    return true;
}

}  // namespace

ZR_EVCARD_CALLS(ZR_LOADED_CALL_HERE)

void start() {
    static const bool started = load();
    static_cast<void>(started);
}

}  // namespace zr::evcard
