#include "zr/mail/encoded_words.h"

#include <glib.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::size_t npos = std::string_view::npos;
constexpr std::string_view kBlanks = " \t\r\n";
constexpr int kMostJoined = 4;  // over which a character may go

struct Word {
    std::string charset;
    std::string bytes;
};

std::string decode_base64(std::string_view text) {
    std::string copy(text);
    copy.append((4 - copy.size() % 4) % 4, '=');  // some programs leave it out
    gsize size = 0;
    const std::unique_ptr<guchar, decltype(&g_free)> bytes(g_base64_decode(copy.c_str(), &size), &g_free);
    return {reinterpret_cast<const char*>(bytes.get()), size};
}

std::string decode_q(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '=' && i + 2 < text.size() && g_ascii_isxdigit(text[i + 1]) && g_ascii_isxdigit(text[i + 2])) {
            out += static_cast<char>(g_ascii_xdigit_value(text[i + 1]) << 4 | g_ascii_xdigit_value(text[i + 2]));
            i += 2;
        } else {
            out += text[i] == '_' ? ' ' : text[i];
        }
    }
    return out;
}

// Reads the word that begins at the front of the text; its length, or 0 when there is none.
std::size_t read_word(std::string_view text, Word& word) {
    if (!text.starts_with("=?")) return 0;
    const std::size_t kind = text.find('?', 2);
    if (kind == npos || kind == 2 || kind + 2 >= text.size() || text[kind + 2] != '?') return 0;
    const std::size_t end = text.find_first_of("? \t\r\n", kind + 3);
    if (end == npos || !text.substr(end).starts_with("?=")) return 0;
    const std::string_view data = text.substr(kind + 3, end - (kind + 3));
    const char encoding = g_ascii_toupper(text[kind + 1]);
    if (encoding != 'B' && encoding != 'Q') return 0;
    const std::string_view charset = text.substr(2, kind - 2);
    if (charset.find_first_of(kBlanks) != npos) return 0;
    word.charset = upper(charset.substr(0, charset.find('*')));
    word.bytes = encoding == 'B' ? decode_base64(data) : decode_q(data);
    return end + 2;
}

// Reads words with nothing but blanks between them; the length of the run, or 0.
std::size_t read_run(std::string_view text, std::vector<Word>& words) {
    words.clear();
    std::size_t end = 0;
    for (std::size_t at = 0; at < text.size();) {
        Word word;
        const std::size_t length = read_word(text.substr(at), word);
        if (length == 0) break;
        words.push_back(std::move(word));
        end = at + length;
        at = std::min(text.find_first_not_of(kBlanks, end), text.size());
    }
    return end;
}

bool decode(const std::vector<Word>& words, std::string& out) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::string bytes = words[i].bytes;
        std::string text;
        for (int joined = 1; !decode_charset(bytes, words[i].charset, text); ++joined) {
            const bool next = i + 1 < words.size() && words[i + 1].charset == words[i].charset;
            if (!next || joined == kMostJoined) return false;
            bytes += words[++i].bytes;
        }
        out += text;
    }
    return true;
}

}  // namespace

std::string with_joined_words(std::string_view text) {
    std::string out;
    std::vector<Word> words;
    while (!text.empty()) {
        const std::size_t begin = std::min(text.find("=?"), text.size());
        out += text.substr(0, begin);
        text.remove_prefix(begin);
        std::string decoded;
        const std::size_t length = read_run(text, words);
        if (length > 0 && decode(words, decoded)) {
            const std::unique_ptr<gchar, decltype(&g_free)> encoded(
                g_base64_encode(reinterpret_cast<const guchar*>(decoded.data()), decoded.size()), &g_free);
            (((out += "=?UTF-8?B?") += encoded.get()) += "?=");
            text.remove_prefix(length);
        } else {
            const std::size_t kept = std::min<std::size_t>(std::max<std::size_t>(length, 2), text.size());
            out += text.substr(0, kept);
            text.remove_prefix(kept);
        }
    }
    return out;
}

}  // namespace zr
