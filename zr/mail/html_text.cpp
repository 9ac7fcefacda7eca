#include "zr/mail/html_text.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "zr/base/text.h"

namespace zr {
namespace {

// Of a tag its name is needed, and of a link nothing.
constexpr std::size_t kLongestTag = 64;
constexpr std::size_t kLongestReference = 10;

constexpr std::string_view kSkipped[] = {"script", "style", "title", "head", "template"};
constexpr std::string_view kBlocks[] = {"address", "article", "aside", "blockquote", "br",   "dd",   "div", "dl",
                                        "dt",      "footer",  "form",  "h1",         "h2",   "h3",   "h4",  "h5",
                                        "h6",      "header",  "hr",    "li",         "main", "nav",  "ol",  "p",
                                        "pre",     "section", "table", "tr",         "ul",   "title"};
constexpr std::string_view kParagraphs[] = {"p", "h1", "h2", "h3", "h4", "h5", "h6", "blockquote", "table", "hr"};

constexpr std::pair<std::string_view, std::string_view> kReferences[] = {
    {"amp", "&"},         {"lt", "<"},          {"gt", ">"},          {"quot", "\""},       {"apos", "'"},
    {"nbsp", " "},        {"copy", "\u00A9"},   {"reg", "\u00AE"},    {"trade", "\u2122"},  {"euro", "\u20AC"},
    {"pound", "\u00A3"},  {"hellip", "\u2026"}, {"mdash", "\u2014"},  {"ndash", "\u2013"},  {"lsquo", "\u2018"},
    {"rsquo", "\u2019"},  {"ldquo", "\u201C"},  {"rdquo", "\u201D"},  {"bull", "\u2022"},   {"middot", "\u00B7"},
    {"auml", "\u00E4"},   {"ouml", "\u00F6"},   {"uuml", "\u00FC"},   {"Auml", "\u00C4"},   {"Ouml", "\u00D6"},
    {"Uuml", "\u00DC"},   {"szlig", "\u00DF"},  {"eacute", "\u00E9"}, {"egrave", "\u00E8"}, {"agrave", "\u00E0"},
    {"aacute", "\u00E1"}, {"ccedil", "\u00E7"}, {"ntilde", "\u00F1"}, {"laquo", "\u00AB"},  {"raquo", "\u00BB"}};

template <std::size_t N>
bool is_one_of(std::string_view name, const std::string_view (&names)[N]) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

// The character that a number names; U+FFFD for what is none.
std::string numbered(std::string_view digits) {
    const bool hexadecimal = digits.starts_with('x') || digits.starts_with('X');
    if (hexadecimal) digits.remove_prefix(1);
    std::uint32_t number = 0;
    for (const char c : digits) {
        const int value = hexadecimal ? g_ascii_xdigit_value(c) : g_ascii_digit_value(c);
        if (value < 0) return {};
        number =
            std::min<std::uint32_t>(number * (hexadecimal ? 16 : 10) + static_cast<std::uint32_t>(value), 0x110000);
    }
    if (digits.empty()) return {};
    const bool character = number > 0 && number < 0x110000 && (number < 0xD800 || number > 0xDFFF);
    std::string out;
    append_utf8(out, character ? number : 0xFFFD);
    return out;
}

std::string referenced(std::string_view name) {
    if (name.starts_with('#')) return numbered(name.substr(1));
    for (const auto& [known, text] : kReferences) {
        if (known == name) return std::string(text);
    }
    return {};
}

}  // namespace

void HtmlText::read(std::string_view html, std::string& out) {
    for (const char c : html) {
        take(c, out);
    }
}

void HtmlText::finish(std::string& out) {
    if (state_ == State::Reference) end_reference(out);
    if (state_ == State::Tag && held_.empty()) text("<", out);
    if (any_) out += '\n';
    *this = HtmlText();
}

void HtmlText::take(char c, std::string& out) {
    switch (state_) {
        case State::Text:
            if (c == '<') {
                state_ = State::Tag;
                held_.clear();
            } else if (c == '&' && skipped_.empty()) {
                state_ = State::Reference;
                held_.clear();
            } else {
                text({&c, 1}, out);
            }
            return;
        case State::Tag:
            if (held_.empty() && !g_ascii_isalpha(c) && c != '/' && c != '!' && c != '?') {
                state_ = State::Text;
                text("<", out);
                take(c, out);
            } else if (c == '>') {
                state_ = State::Text;
                end_tag(out);
            } else if ((c == '"' || c == '\'') && held_.find(' ') != std::string::npos) {
                state_ = State::Quoted;
                quote_ = c;
            } else {
                if (held_.size() < kLongestTag) held_ += is_blank(c) ? ' ' : g_ascii_tolower(c);
                if (held_ == "!--") state_ = State::Comment;
            }
            return;
        case State::Quoted:
            if (c == quote_) state_ = State::Tag;
            return;
        case State::Comment:
            held_ += c;
            held_.erase(0, held_.size() - std::min<std::size_t>(3, held_.size()));
            if (held_ == "-->") state_ = State::Text;
            return;
        case State::Reference:
            if (g_ascii_isalnum(c) || (c == '#' && held_.empty())) {
                held_ += c;
                if (held_.size() > kLongestReference) end_reference(out);
                return;
            }
            if (c == ';') {
                held_ += c;
                end_reference(out);
                return;
            }
            end_reference(out);
            take(c, out);
            return;
    }
}

void HtmlText::text(std::string_view characters, std::string& out) {
    if (!skipped_.empty()) return;
    for (const char c : characters) {
        if (!preformatted_ && is_blank(c)) {
            blank_ = true;
            continue;
        }
        if (breaks_ > 0) {
            if (any_) out.append(static_cast<std::size_t>(breaks_), '\n');
            breaks_ = 0;
        } else if (blank_ && any_) {
            out += ' ';
        }
        blank_ = false;
        any_ = true;
        if (c != '\r') out += c;
    }
}

void HtmlText::end_tag(std::string& out) {
    const bool closes = held_.starts_with('/');
    std::string_view name = std::string_view(held_).substr(closes ? 1 : 0);
    name = name.substr(0, name.find_first_of(" /"));
    if (!skipped_.empty()) {
        if (closes && name == skipped_) skipped_.clear();
        return;
    }
    // A head that is not closed ends with the body.
    if (!closes && is_one_of(name, kSkipped) && name != "head") skipped_ = name;
    if (name == "pre" || name == "textarea") preformatted_ = !closes;
    if (name == "li" && !closes) {
        line(1);
        text("*", out);
        blank_ = true;
    } else if (name == "br") {
        line(std::min(breaks_ + 1, 2));
    } else if (is_one_of(name, kBlocks)) {
        line(is_one_of(name, kParagraphs) ? 2 : 1);
    } else if (name == "td" || name == "th") {
        blank_ = true;
    }
}

void HtmlText::line(int breaks) {
    breaks_ = std::max(breaks_, breaks);
    blank_ = false;
}

void HtmlText::end_reference(std::string& out) {
    state_ = State::Text;
    std::string whole;
    whole.swap(held_);
    const bool ended = whole.ends_with(';');
    const std::string character = referenced(std::string_view(whole).substr(0, whole.size() - (ended ? 1 : 0)));
    if (character.empty()) {
        text("&", out);
        text(whole, out);
    } else if (character == " ") {
        blank_ = true;
    } else {
        text(character, out);
    }
}

}  // namespace zr
