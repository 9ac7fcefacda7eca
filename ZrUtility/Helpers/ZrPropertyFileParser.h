#pragma once

#include "ZrUtility/Export.h"
#include "platform/types.h"

// Reads text files of `key = value` lines, with comments and quoted values:
//
//     # how the client connects
//     server = mail.example.org
//     greeting = "say \"hello\" # to all"   # quotes keep spaces and comment markers
//
// The comment markers are a multi-string: NUL-terminated texts one after the other, with an empty one behind the last
// (u"#\0;\0"); any of them begins a comment. A quote or escape character of 0 stands for none. All functions but
// ParsePropertyFile work in place on the caller's text. Whitespace is the platform's space class (iswspace).
//
// Reentrant, from any thread.
class ZRUTILITY_API ZrPropertyFileParser {
public:
    // With `trailing` nonzero overwrites the whitespace at the end with NUL; with `leading` nonzero returns where the
    // first other character stands, else `s`. NULL for NULL.
    static WCHAR* StripWhiteSpace(WCHAR* s, int trailing, int leading);

    // Ends the line at the first comment marker outside quotes and returns it; NULL for NULL. A quote that `escape`
    // precedes does not close quotes, but does open them. Behind the cut the search goes on: the line may get further
    // NULs there. Without markers (NULL or none) the line stays as it is.
    static WCHAR* StripComments(WCHAR* line, const WCHAR* markers, WCHAR quote, WCHAR escape);

    // Strips comments, then whitespace at both ends.
    static WCHAR* NormalizeLine(WCHAR* line, const WCHAR* markers, WCHAR quote, WCHAR escape);

    // For a text that begins with `quote`, returns what stands between it and the closing quote, which becomes NUL; the
    // text itself otherwise. NULL for NULL. A quote that `escape` precedes does not close; it is kept and the escape
    // before it removed. Without a closing quote the value goes on to the end of the text. With an `escape` of 0 no
    // quote closes, and each quote takes away the character before it: who has quotes names an escape.
    static WCHAR* StripQuotes(WCHAR* s, WCHAR quote, WCHAR escape);

    // Calls `callback` for each property of a file, in order. `lineNumber` counts all lines from 1, comments and empty
    // ones too. Key and value, both without whitespace around them and possibly empty, are split at the first '='; the
    // value has gone through StripQuotes. They are valid during the call only. Lines without '=' are passed over.
    //
    // A line is cut off at 1,023 characters, its end of line among them, and what follows is a line of its own, number
    // included; so memory stays the same for any file. CR LF is one end of line. A NUL ends what is seen of its line.
    //
    // The file is UTF-8, or UTF-16 if it begins with the byte-order mark of either order; a mark is not part of the
    // text. What is not valid UTF-8 reads as U+FFFD, so a file of any bytes can be read; half a character at the end of
    // a UTF-16 file does too.
    //
    // 1 when the end of the file was reached. 0 when `callback` returned 0, which stops the reading at once, when the
    // file cannot be opened (missing, a folder, not readable; the last error is CreateFileW's) or reading it failed
    // (the last error is ReadFile's), or when `path` or `callback` is NULL (ERROR_INVALID_PARAMETER).
    static int ParsePropertyFile(const WCHAR* path, const WCHAR* markers, WCHAR quote, WCHAR escape,
                                 int (*callback)(ULONG lineNumber, const WCHAR* key, const WCHAR* value, void* context),
                                 void* context);

private:
    ZrPropertyFileParser() {}
};
