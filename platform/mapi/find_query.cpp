#include "find_query.h"

#include "base/utf.h"

namespace zr::platform::mapi {
namespace {

constexpr std::string_view kBlank = " \t\r\n";

void add_phrase(std::string& query, std::string_view words, bool beginning) {
    if (words.empty()) return;
    if (!query.empty()) query += " AND ";
    query += '"';
    query += words;
    query += '"';
    if (beginning) query += " *";
}

}  // namespace

std::string find_query(std::u16string_view words) {
    std::string text = wide_to_host(words);
    for (char& character : text) {
        if (character == 0) character = ' ';
    }
    std::string query;
    for (std::size_t at = text.find_first_not_of(kBlank); at < text.size(); at = text.find_first_not_of(kBlank, at)) {
        const bool quoted = text[at] == '"';
        if (quoted) ++at;
        const std::size_t end =
            std::min(quoted ? text.find('"', at) : text.find_first_of(" \t\r\n\"", at), text.size());
        std::string_view phrase = std::string_view(text).substr(at, end - at);
        at = end;
        if (quoted && at < text.size()) ++at;
        bool beginning = quoted && at < text.size() && text[at] == '*';
        if (beginning) ++at;
        if (!quoted && phrase.ends_with('*')) {
            beginning = true;
            while (phrase.ends_with('*')) {
                phrase.remove_suffix(1);
            }
        }
        add_phrase(query, phrase, beginning);
    }
    return query;
}

}  // namespace zr::platform::mapi
