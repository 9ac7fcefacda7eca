#include "zr/mail/html_charset.h"

#include <algorithm>

namespace zr {
namespace {

constexpr std::size_t kLookedAt = 1024;
constexpr std::string_view kHtmlBlanks = " \t\r\n\f";
constexpr std::string_view kHtmlBlanksAndSlash = " \t\r\n\f/";

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return out;
}

// What stands behind "charset", blanks and "=", in quotes or up to a blank or semicolon.
std::string value_behind(std::string_view tag, std::size_t name) {
    tag.remove_prefix(name + std::string_view("charset").size());
    tag.remove_prefix(std::min(tag.find_first_not_of(kHtmlBlanks), tag.size()));
    if (!tag.starts_with('=')) return {};
    tag.remove_prefix(1);
    tag.remove_prefix(std::min(tag.find_first_not_of(kHtmlBlanks), tag.size()));
    if (tag.starts_with('"') || tag.starts_with('\'')) {
        const char quote = tag.front();
        tag.remove_prefix(1);
        return std::string(tag.substr(0, tag.find(quote)));
    }
    return std::string(tag.substr(0, tag.find_first_of(" \t\r\n\f;\"'/>")));
}

// Of a meta element, without its brackets.
std::string charset_of(std::string_view tag) {
    for (std::size_t at = 0; (at = tag.find("charset", at)) != std::string_view::npos; ++at) {
        std::string value = value_behind(tag, at);
        if (!value.empty()) return value;
    }
    return {};
}

}  // namespace

std::string html_charset(std::string_view html) {
    if (html.starts_with("\xEF\xBB\xBF")) return "utf-8";
    if (html.starts_with("\xFF\xFE")) return "utf-16le";
    if (html.starts_with("\xFE\xFF")) return "utf-16be";
    const std::string head = lower(html.substr(0, kLookedAt));
    for (std::size_t at = 0; (at = head.find('<', at)) != std::string::npos; ++at) {
        if (head.compare(at, 4, "<!--") == 0) {
            at = head.find("-->", at + 2);
            if (at == std::string::npos) return {};
            continue;
        }
        if (head.compare(at, 5, "<meta") != 0 || at + 5 >= head.size() ||
            kHtmlBlanksAndSlash.find(head[at + 5]) == std::string_view::npos)
            continue;
        std::string name = charset_of(std::string_view(head).substr(at, head.find('>', at) - at));
        // Whoever can read this reads no 16-bit set.
        if (!name.empty()) return name.starts_with("utf-16") ? "utf-8" : name;
    }
    return {};
}

}  // namespace zr
