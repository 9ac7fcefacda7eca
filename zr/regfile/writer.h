#pragma once

// Writes registry text files that RegReader reads back as they were, bit by bit, and that other programs read too.
// Text is written in quotes where that keeps it, everything else as bytes. A lone surrogate in a name is written as it
// is: such a file is not valid UTF-16 or UTF-8.

#include <functional>
#include <string>
#include <string_view>

#include "zr/regfile/path.h"
#include "zr/regfile/reader.h"
#include "zr/regfile/value.h"

namespace zr {

// With a byte-order mark but for Windows-1252, which is for version 4 only.
enum class RegEncoding { Utf16, Utf8, Windows1252 };

class RegWriter {
public:
    using Write = std::function<void(std::string_view)>;
    RegWriter(RegVersion version, RegEncoding encoding, Write write);

    void begin();
    // The key, and then its values. Each returns why it cannot be written, and writes nothing then; else an empty text.
    // A key that cannot be written has no values and nothing below it written.
    // Version 5 in UTF-16 or UTF-8 can say everything but a line break in a key's name. Version 4 cannot say texts of
    // types 2 and 7 outside of Windows-1252, and in that encoding no names outside of it.
    std::string key(const RegPath& path);
    std::string value(std::u16string_view name, const RegValue& value);

private:
    bool put(std::string_view line);
    std::string put_bytes(const std::string& start, const RegValue& value);

    RegVersion version_;
    RegEncoding encoding_;
    Write write_;
};

}  // namespace zr
