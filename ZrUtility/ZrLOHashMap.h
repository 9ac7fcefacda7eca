#pragma once

#include "ZrUtility/ZrLLHashMap.h"

// A ZrLLHashMap whose values are heap objects that clear() releases with plain operator delete, without running a
// destructor: values are plain data from operator new, or NULL, and no two keys have the same one. Only clear()
// releases them: put() and remove() hand the old value to the caller, and destruction leaves the values alone.
class ZRUTILITY_API ZrLOHashMap : public ZrLLHashMap {
public:
    explicit ZrLOHashMap(int capacity) noexcept;
    ZrLOHashMap(const ZrLOHashMap&) = default;
    ZrLOHashMap& operator=(const ZrLOHashMap&) = default;
    ~ZrLOHashMap() override;

protected:
    void clearElements() override;
};
