#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrIterator.h"

// A map from keys to values, both untyped and as wide as a pointer. What a key means and who owns what is the derived
// class's to say. Not thread-safe: who shares a map guards it with a lock of his own.
class ZRUTILITY_API ZrMap {
public:
    virtual ~ZrMap() = default;

    // The value that the key had before, NULL when it is new.
    virtual void* put(void* key, void* value) = 0;
    // NULL when the key is not there.
    virtual void* get(void* key) = 0;
    // Takes the key out and returns its value; NULL when it is not there.
    virtual void* remove(void* key) = 0;
    virtual bool containsKey(void* key) = 0;
    virtual int size() = 0;
    // New iterators, which the caller deletes; NULL when memory is short.
    virtual ZrIterator* keys() = 0;
    virtual ZrIterator* values() = 0;
    virtual ZrIterator* entries() = 0;
    virtual void clear() = 0;

protected:
    ZrMap() = default;
    ZrMap(const ZrMap&) = default;
    ZrMap& operator=(const ZrMap&) = default;
};
