#include "ZrUtility/Reciprocal.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "ZrUtility/ZrHashTable.h"

namespace {

using zr::reciprocalOf;
using zr::remainderOf;

constexpr ULONG kLargest = std::numeric_limits<ULONG>::max();

static_assert(remainderOf(0, 1, reciprocalOf(1)) == 0);
static_assert(remainderOf(kLargest, 1, reciprocalOf(1)) == 0);
static_assert(remainderOf(kLargest, kLargest, reciprocalOf(kLargest)) == 0);
static_assert(remainderOf(kLargest - 1, kLargest, reciprocalOf(kLargest)) == kLargest - 1);

void expectExact(ULONG number, ULONG divisor) {
    ASSERT_EQ(remainderOf(number, divisor, reciprocalOf(divisor)), number % divisor) << number << " by " << divisor;
}

// Errors of a reciprocal grow with the number and show where a quotient steps up: right before, at and after
// multiples.
void expectExactAroundMultiples(ULONG divisor) {
    const ULONG last = kLargest / divisor;
    const ULONG stride = last / 20000 + 1;
    for (ULONGLONG quotient = last;; quotient -= stride) {
        const ULONGLONG multiple = quotient * divisor;
        for (const ULONGLONG number : {multiple - 1, multiple, multiple + 1, multiple + divisor - 1}) {
            if (number <= kLargest) expectExact(static_cast<ULONG>(number), divisor);
        }
        if (quotient < stride) break;
    }
    for (int bit = 0; bit < 32; ++bit) {
        for (const ULONG number : {(1u << bit) - 1, 1u << bit, (1u << bit) + 1, kLargest - (1u << bit)}) {
            expectExact(number, divisor);
        }
    }
}

TEST(Reciprocal, IsExactForEveryTableSize) {
    for (const ULONG prime : ZrHashTable::TABLESIZE) {
        expectExactAroundMultiples(prime);
        for (ULONG number = 0; number < 2 * prime; ++number) {
            expectExact(number, prime);
        }
    }
}

TEST(Reciprocal, IsExactForAnyDivisor) {
    std::mt19937 random(1);
    for (ULONG divisor :
         {1u, 2u, 3u, 7u, 0x7FFFu, 0x10000u, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, kLargest - 1, kLargest}) {
        expectExactAroundMultiples(divisor);
    }
    for (int i = 0; i < 20; ++i) {
        expectExactAroundMultiples(static_cast<ULONG>(random()) >> random() % 31 | 1);
    }
}

}  // namespace
