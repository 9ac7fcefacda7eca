#pragma once

// The shape of everything that walks a sequence once, from its current item to its end.
//
//     for (; walk.isValid(); walk.advance()) use(walk.value());
//
// The operations stand in the order of the virtual slots.

template <class T>
class Enumerator {
public:
    virtual ~Enumerator() = default;
    virtual void advance() = 0;  // to the next item, or to the end
    virtual int isValid() = 0;   // non-zero while there is a current item
    virtual T value() = 0;       // the current item; meaningful while isValid()

protected:
    Enumerator() = default;
    Enumerator(const Enumerator&) = default;
    Enumerator& operator=(const Enumerator&) = default;
};
