#pragma once

#include "ZrUtility/Export.h"
#include "platform/types.h"

// Cuts a text into the pieces between delimiters. Pieces of no characters are passed over, so a run of delimiters
// counts as one, and delimiters at the start or the end yield nothing.
//
//     StringTokenizer words(text, u",;", 0);
//     int offset = 0;
//     while (WCHAR* word = words.NextToken(&offset)) ...
//
// The tokenizer works on copies: the caller's texts may change or go after the constructor. A tokenizer belongs to one
// thread at a time.
//
// Copies are shallow: both have the same buffers, and one place each in the text. Only one of the two may be destroyed,
// and what an assignment overwrites is not freed.
class ZRUTILITY_API StringTokenizer {
public:
    // With `delimiterIsString` 0 any one of the characters in `delimiters` ends a token, else only the whole string
    // does. No delimiters at all leave the text in one piece. When a text is NULL or memory is short there are no
    // tokens.
    StringTokenizer(WCHAR* text, WCHAR* delimiters, int delimiterIsString);
    StringTokenizer(const StringTokenizer&) = default;
    StringTokenizer& operator=(const StringTokenizer&) = default;
    ~StringTokenizer();

    // The next token; NULL when there is none left, however often it is asked. It is the tokenizer's own, writable, and
    // stays until Reset() or destruction. `*offset` receives its place in the text, counted in characters; with NULL,
    // that of the last empty piece that was passed over, if there was one. `offset` may be NULL.
    WCHAR* NextToken(int* offset);
    // Starts again from the first token. Earlier tokens are no longer cut.
    void Reset();

private:
    WCHAR* passToken();

    WCHAR* m_pwzBuffer;  // the text, cut into tokens
    WCHAR* m_pwzSource;  // the text as it came
    WCHAR* m_pwzDelimiters;
    WCHAR* m_pwzPosition;  // where in the source the next token is looked for; NULL at the start
    int m_nDelimiterIsString;
};
