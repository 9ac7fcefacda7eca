#pragma once

#include "ZrUtility/Export.h"
#include "platform/types.h"

// Functions over NUL-terminated UTF-16 strings, with a few over narrow buffers. A character is a code unit; half of a
// surrogate pair is one like any other. Truth values are 1 and 0.
//
// Ownership: a string that a function here hands out anew is released with DeleteString(), and with nothing else.
// Arguments are valid pointers unless a function says what NULL gives. All functions are reentrant, from any thread.
//
// "Whitespace" is the platform's space class (iswspace); a "space" is U+0020 alone. The two are kept apart.
class ZRUTILITY_API StringUtilities {
public:
    enum COMPARE_TYPE : int {
        COMPARE_EXACT = 0,        // equal, ignoring case; so does every value without a name
        COMPARE_PREFIX = 1,       // the first string begins with the second, ignoring case
        COMPARE_WORD_PREFIX = 2,  // some space-separated word of the first begins with the second, ignoring case
    };

    // ---- Allocation

    // Room for `count` characters, not initialised and without a terminator. NULL for a negative count, or when memory
    // is short.
    static WCHAR* NewString(int count);
    // A copy; NULL for NULL, or when memory is short.
    static WCHAR* NewAndCopyString(const WCHAR* s);
    // Releases the string and sets the pointer to NULL. NULL is harmless.
    static void DeleteString(WCHAR*& s);
    static void DeleteString(const WCHAR*& s);

    // ---- Whitespace

    // Nonzero for whitespace, as the class test returns it.
    static int IsWhitespace(WCHAR c);
    // Moves `p` past spaces, not past other whitespace. A NULL `p` stays.
    static void SkipPreceedingSpaces(const WCHAR*& p);
    // Moves *pp past whitespace. Nothing is done for a NULL `pp` or *pp.
    static void TrimLeadingWhitespace(const WCHAR** pp);
    // Overwrites each trailing whitespace character with NUL. It stops at the start of the string, and neither reads
    // nor writes before it: a string of nothing but whitespace becomes all NUL, an empty one stays. Nothing is done for
    // NULL.
    static void TrimTrailingWhitespace(WCHAR* s);

    // ---- Comparison

    // 1 for a match of `a` with `b` in the given mode, else 0: a truth value, not an ordering. In COMPARE_WORD_PREFIX a
    // NULL `a` gives 0; otherwise neither may be NULL. `b` may hold spaces: it is compared from a word's start on.
    static int CompareFunction(const WCHAR* a, const WCHAR* b, COMPARE_TYPE mode);
    // The same, and 0 when either is NULL.
    static int CompareFunctionWithNulls(const WCHAR* a, const WCHAR* b, COMPARE_TYPE mode);
    // The prefix comes first. 1 when `s` begins with it, ignoring case; an empty prefix matches. 0 for NULL.
    static int StartsWithIgnoreCase(WCHAR* prefix, WCHAR* s);
    // The suffix comes first. 1 when `s` ends with it. Unlike an empty prefix, an empty suffix never matches. Case is
    // ignored one-sidedly: in the suffix only A to Z are folded, in `s` every letter is; so an upper-case letter beyond
    // ASCII in the suffix never matches. 0 for NULL.
    static int EndsWithIgnoreCase(const WCHAR* suffix, const WCHAR* s);
    // An ordering in the manner of wcscmp, 0 for equal. One CR or LF that one string has at its end beyond the other's
    // length is left out. When either string holds an LF, a CR and an LF in the same place count as equal; otherwise
    // they differ. Lengths that differ in any other way give 1.
    static int CompareStringIgnoreCRAndLF(const WCHAR* a, const WCHAR* b);

    // ---- Narrow buffers, not necessarily terminated

    // The first place within the first `n` bytes of `hay` that holds `needle`: its first byte exactly, case included,
    // the others ignoring the case of ASCII letters. NULL when there is none. An empty needle is found at the first NUL
    // byte among the `n`.
    static const char* strnistr(const char* hay, unsigned int n, const char* needle);
    // How many leading bytes of `s`, at most `n`, are neither in `reject` nor NUL.
    static unsigned int strncspn(const char* s, unsigned int n, const char* reject);
    // Removes every byte that is not a decimal digit from a terminated narrow string, in place.
    static void StripNonDigitsFromString(char* s);

    // ---- Parsing

    // Copies the characters from `cur` to the next delimiter, or to `end`, into `out`, and returns where the token
    // after it begins: past the whole run of delimiters, and `end` at most. Feed the result back as `cur`.
    //   - NULL, with `out` untouched, when *cur is NUL; an empty token and `cur` itself when `cur` is at or past `end`.
    //     So *cur must be readable at `end` too.
    //   - A token of more than outSize - 1 characters comes in pieces on successive calls. When a piece fills `out`,
    //   the
    //     delimiter that may follow it is left for the next call, which then gives an empty token.
    //   - A text that begins with a delimiter gives an empty first token.
    // `out` holds `outSize` characters; with an outSize below 1 nothing is written or consumed, with 1 nothing is
    // consumed.
    static WCHAR* NextToken(WCHAR* cur, WCHAR* end, WCHAR* out, int outSize, WCHAR* delimiters);
    // The decimal number at the start of the first `len` characters, at most 19: leading whitespace and a sign are
    // allowed, 0 when there is none. No character after a NUL is read. Out of range as _wtol has it.
    static int DecodeInteger(WCHAR* s, int len);
    // Splits "Display Name" <address> in place. *address and *name point into `s`; *name is NULL when there is no '<',
    // and then the whole text, without its double quotes, is the address. Double quotes before the '<' are removed;
    // spaces around the name's end and around the address are not part of them. Empty angle brackets give the
    // address ">".
    static void DecodeAddress(WCHAR* s, WCHAR** address, WCHAR** name);
    // *out is the part of an attachment's name after its "x-keldevice...:" prefix (matched ignoring case) and one
    // space, or the whole name when it has no such prefix or no colon. Nothing is done for a NULL `out` or `name`.
    static void BypassKelAttachmentPrefix(WCHAR* name, WCHAR** out);

    // ---- Conversion and formatting

    // Two upper-case hexadecimal digits per byte, then a terminator: `out` holds 2 * count + 1 characters.
    static void HexFromBin(unsigned char* bytes, int count, WCHAR* out);
    // Writes `count` characters as Windows-1252 to dst[dstOffset] and on, then a NUL; with a count below 1 only the
    // NUL. NUL characters in `src` do not end it. A character below 256 keeps its value; what 1252 cannot represent
    // becomes 0x9D, a byte that it leaves undefined.
    static void ToASCII(unsigned char* dst, const WCHAR* src, int count, int dstOffset);
    // Reads `count` bytes of Windows-1252 into dst[dstOffset] and on, then a NUL; with a count below 1 only the NUL.
    // The five bytes that 1252 leaves undefined become the characters of their value.
    static void ToWCHAR(WCHAR* dst, unsigned char* src, int count, int dstOffset);
    // A new string with every lone CR and every lone LF made CR LF. NULL for NULL, or when memory is short.
    static WCHAR* FixNewLine(const WCHAR* s);
    // Copies `count` characters and adds an LF after each CR that has none; `dst` holds up to 2 * count characters, and
    // no terminator is written. Lone LFs stay. 0 when either is NULL, else 1.
    static int FixUnicodeReturnChar(const WCHAR* src, WCHAR* dst, int count);
    // Makes each CR LF a CR, in place; of several LFs after a CR the first goes. 0 for NULL, else 1.
    static int removeLFFromCRLF(WCHAR* s);
    // Formats as StringCchPrintfW does, into a new string of any length. NULL when memory is short; a format that the
    // formatter refuses gives what it had written. What does not fit into 256 characters starts with the room that the
    // longest text of the process has taken so far, and doubles it until it fits: that room never shrinks.
    static WCHAR* SafeFormatString(const WCHAR* format, ...);

private:
    friend class AddressUtilities;

    StringUtilities() {}
    StringUtilities& operator=(const StringUtilities&) { return *this; }

    static int ComparePrefixFunction(const WCHAR* s, const WCHAR* prefix);
    static int CompareWordPrefixFunction(const WCHAR* s, const WCHAR* prefix);
    static int MyStringCompareIgnoreCRAndLF(const WCHAR* a, const WCHAR* b, int len);
    // Terminates the address that follows a '<' before its '>', without spaces around it, and returns its start.
    static WCHAR* CutBracketedAddress(WCHAR* s);
};
