#include "ZrUtility/ZrLinkList.h"

#include <new>

struct ZrLinkList::_Element {
    _Element* next;
    void* item;
};

// Walks a list's nodes; all it knows is the node whose item comes next.
class LinkListIterator final : public ZrIterator {
public:
    explicit LinkListIterator(ZrLinkList* list) noexcept : m_pList(list), m_pNext(list->m_pHead) {}

    int hasNext() override { return m_pNext != nullptr ? 1 : 0; }

    void* next() override {
        const ZrLinkList::_Element* element = m_pNext;
        if (element == nullptr) return nullptr;
        m_pNext = element->next;
        return element->item;
    }

private:
    [[maybe_unused]] ZrLinkList* m_pList;
    ZrLinkList::_Element* m_pNext;
};

ZrLinkList::ZrLinkList() noexcept : m_pHead(nullptr), m_pTail(nullptr), m_nCount(0) {}

ZrLinkList::~ZrLinkList() {
    ZrLinkList::clearElements();
}

int ZrLinkList::appendElement(void* item) {
    auto* element = new (std::nothrow) _Element{nullptr, item};
    if (element == nullptr) return -1;
    if (m_pTail != nullptr) {
        m_pTail->next = element;
    } else {
        m_pHead = element;
    }
    m_pTail = element;
    ++m_nCount;
    return 0;
}

int ZrLinkList::insertElement(int index, void* item) {
    if (m_nCount == 0) return appendElement(item);
    if (!validIndex(index)) return -1;
    auto* element = new (std::nothrow) _Element{nullptr, item};
    if (element == nullptr) return -1;
    _Element*& link = index == 0 ? m_pHead : findElementByIndex(index - 1)->next;
    element->next = link;
    link = element;
    ++m_nCount;
    return 0;
}

int ZrLinkList::getNumberOfElement() {
    return m_nCount;
}

void* ZrLinkList::getElementByIndex(int index) {
    return validIndex(index) ? findElementByIndex(index)->item : nullptr;
}

void* ZrLinkList::getLastElement() {
    return m_pTail != nullptr ? m_pTail->item : nullptr;
}

int ZrLinkList::removeElement(void* item) {
    const int index = indexOf(item);
    if (index < 0) return 0;
    removeElement(index);
    return 1;
}

void* ZrLinkList::removeElement(int index) {
    if (!validIndex(index)) return nullptr;
    _Element* before = index > 0 ? findElementByIndex(index - 1) : nullptr;
    _Element*& link = before != nullptr ? before->next : m_pHead;
    _Element* element = link;
    link = element->next;
    if (m_pTail == element) m_pTail = before;
    --m_nCount;
    void* item = element->item;
    delete element;
    return item;
}

void ZrLinkList::clear() {
    clearElements();
    m_pHead = nullptr;
    m_pTail = nullptr;
    m_nCount = 0;
}

int ZrLinkList::indexOf(void* item) {
    int index = 0;
    for (const _Element* element = m_pHead; element != nullptr; element = element->next, ++index) {
        if (element->item == item) return index;
    }
    return -1;
}

ZrIterator* ZrLinkList::iterator() {
    return new (std::nothrow) LinkListIterator(this);
}

void ZrLinkList::clearElements() {
    for (_Element* element = m_pHead; element != nullptr;) {
        _Element* next = element->next;
        delete element;
        element = next;
    }
}

int ZrLinkList::validIndex(int index) const {
    return index >= 0 && index < m_nCount ? 1 : 0;
}

// The caller has checked the index.
ZrLinkList::_Element* ZrLinkList::findElementByIndex(int index) const {
    _Element* element = m_pHead;
    for (; index > 0; --index) {
        element = element->next;
    }
    return element;
}
