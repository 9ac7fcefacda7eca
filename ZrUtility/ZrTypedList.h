#pragma once

#include <new>

#include "ZrUtility/ZrIterator.h"
#include "ZrUtility/ZrLinkList.h"

// A ZrIterator whose items are T*. It owns the iterator it was made from. Copies are shallow: they share that iterator,
// and only one of them may be destroyed.
template <class T>
class ZrTypedIterator {
public:
    // Takes ownership. NULL is an iterator without items.
    explicit ZrTypedIterator(ZrIterator* iterator) noexcept : m_pIterator(iterator) {}
    ZrTypedIterator(const ZrTypedIterator&) = default;
    ZrTypedIterator& operator=(const ZrTypedIterator&) = default;
    virtual ~ZrTypedIterator() {
        delete m_pIterator;
        m_pIterator = nullptr;
    }

    virtual int hasNext() { return m_pIterator != nullptr ? m_pIterator->hasNext() : 0; }
    virtual T* next() { return m_pIterator != nullptr ? static_cast<T*>(m_pIterator->next()) : nullptr; }

private:
    ZrIterator* m_pIterator;
};

// A ZrLinkList whose items are T*: the same operations, results and rules. It does not own its items. Copies are
// shallow, as ZrLinkList's are.
template <class T>
class ZrTypedList {
public:
    ZrTypedList() = default;
    ZrTypedList(const ZrTypedList&) = default;
    ZrTypedList& operator=(const ZrTypedList&) = default;
    virtual ~ZrTypedList() = default;

    // Does not say whether there was memory; who must know compares getNumberOfElement().
    virtual void appendElement(T* item) { m_list.appendElement(item); }
    virtual int insertElement(int index, T* item) { return m_list.insertElement(index, item); }
    virtual int getNumberOfElement() { return m_list.getNumberOfElement(); }
    virtual T* getElementByIndex(int index) { return static_cast<T*>(m_list.getElementByIndex(index)); }
    virtual T* getLastElement() { return static_cast<T*>(m_list.getLastElement()); }
    virtual int removeElement(T* item) { return m_list.removeElement(static_cast<void*>(item)); }
    virtual T* removeElement(int index) { return static_cast<T*>(m_list.removeElement(index)); }
    virtual void clear() { m_list.clear(); }
    virtual int indexOf(T* item) { return m_list.indexOf(item); }
    // A new iterator, which the caller deletes; NULL when memory is short.
    virtual ZrTypedIterator<T>* iterator() {
        ZrIterator* untyped = m_list.iterator();
        if (untyped == nullptr) return nullptr;
        auto* typed = new (std::nothrow) ZrTypedIterator<T>(untyped);
        if (typed == nullptr) delete untyped;
        return typed;
    }
    // The list's own iterator, which the caller deletes; NULL when memory is short.
    virtual ZrIterator* untyped_iterator() { return m_list.iterator(); }

private:
    ZrLinkList m_list;
};
