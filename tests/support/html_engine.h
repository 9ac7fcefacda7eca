#pragma once

// Whether tests that show documents run. Where documents follow each other as quickly as an idle computer lets them,
// the engine may take one for the next, and what is asked of it then fails: such tests are no judges until that is
// mended.

#include <gtest/gtest.h>

#include <cstdlib>

#define ZR_MAY_SHOW_DOCUMENTS()                                                                                     \
    if (std::getenv("ZR_TEST_HTML") == nullptr)                                                                     \
    GTEST_SKIP() << "documents in quick succession may be taken for each other; ZR_TEST_HTML=1 shows them all the " \
                    "same"
