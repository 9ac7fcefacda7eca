#include "ZrUtility/ZrCollections.h"

#include <cstdlib>

void ZrCollections::freeListItems(ZrList* list) {
    if (ZrIterator* items = list->iterator()) {
        while (items->hasNext()) {
            std::free(items->next());
        }
        delete items;
        return;
    }
    // No memory for an iterator is no reason to leak the items, slow as indexing is.
    for (int i = 0; i < list->getNumberOfElement(); ++i) {
        std::free(list->getElementByIndex(i));
    }
}

void ZrCollections::deleteListAndFreeItems(ZrList* list) {
    freeListItems(list);
    delete list;
}
