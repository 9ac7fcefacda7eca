#pragma once

// HTML as text that can be read: without tags, scripts and styles, with characters for references, with lines where
// blocks begin and end. Piece by piece; nothing but a tag is remembered.

#include <string>
#include <string_view>

namespace zr {

class HtmlText {
public:
    // Appends text. The pieces are UTF-8 and may be parted anywhere.
    void read(std::string_view html, std::string& out);
    void finish(std::string& out);

private:
    enum class State { Text, Tag, Quoted, Comment, Reference };

    void take(char c, std::string& out);
    void text(std::string_view characters, std::string& out);
    void end_tag(std::string& out);
    void end_reference(std::string& out);
    void line(int breaks);

    State state_ = State::Text;
    std::string held_;     // of the tag, the comment's end, or the reference
    char quote_ = 0;       // of the attribute's value at hand
    std::string skipped_;  // the element whose content is no text: "script", "style", ...
    bool preformatted_ = false;
    bool blank_ = false;  // a space that is owed
    int breaks_ = 0;      // line ends that are owed
    bool any_ = false;    // there is text
};

}  // namespace zr
