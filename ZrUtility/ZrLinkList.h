#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrList.h"

// A singly linked list. Appending takes constant time; access by index, insertion, removal and indexOf() walk from
// the head.
//
// An iterator is invalid once the element it would return next is removed, or the list is cleared or destroyed;
// removing other elements does not disturb it. It sees items that are appended before it has reached the end; once at
// the end it stays there. To visit every item use an iterator: indexing each one costs the square of the count.
//
// Copies are shallow: a copy shares its source's nodes, so only one of the two may be changed, cleared or destroyed.
class ZRUTILITY_API ZrLinkList : public ZrList {
public:
    ZrLinkList() noexcept;
    ZrLinkList(const ZrLinkList&) = default;
    ZrLinkList& operator=(const ZrLinkList&) = default;
    // Frees the nodes, not the items.
    ~ZrLinkList() override;

    int appendElement(void* item) override;
    int insertElement(int index, void* item) override;
    int getNumberOfElement() override;
    void* getElementByIndex(int index) override;
    void* getLastElement() override;
    int removeElement(void* item) override;
    void* removeElement(int index) override;
    void clear() override;
    int indexOf(void* item) override;
    ZrIterator* iterator() override;

protected:
    // Frees every node, and leaves the fields as they are: the caller resets them.
    virtual void clearElements();

private:
    struct _Element;
    friend class LinkListIterator;

    int validIndex(int index) const;
    _Element* findElementByIndex(int index) const;

    _Element* m_pHead;
    _Element* m_pTail;
    int m_nCount;
};
