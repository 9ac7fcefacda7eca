#include "zr/mail/html_source.h"

#include <glib.h>

#include <algorithm>
#include <memory>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::string_view kScheme = "cid:";

// Where an address may begin: at the start of an attribute's value, or in a style's url().
bool may_begin_behind(char c) {
    return std::string_view("\"'(= \t\r\n\f").find(c) != std::string_view::npos;
}

std::size_t end_of_address(std::string_view html, std::size_t from) {
    return std::min(html.find_first_of("\"'()<> \t\r\n\f", from), html.size());
}

std::string id_in_address(std::string_view id) {
    std::string out;
    for (std::size_t i = 0; i < id.size(); ++i) {
        const int high = id[i] == '%' && i + 2 < id.size() ? g_ascii_xdigit_value(id[i + 1]) : -1;
        const int low = high >= 0 ? g_ascii_xdigit_value(id[i + 2]) : -1;
        if (low >= 0) {
            out += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            out += id[i];
        }
    }
    return out;
}

bool is_type(std::string_view type) {
    const auto fits = [](char c) {
        return g_ascii_isalnum(c) || std::string_view("/.+-_").find(c) != std::string_view::npos;
    };
    return !type.empty() && std::all_of(type.begin(), type.end(), fits);
}

std::string data_address(const HtmlPart& part) {
    const std::unique_ptr<gchar, decltype(&g_free)> text(
        g_base64_encode(reinterpret_cast<const guchar*>(part.bytes.data()), part.bytes.size()), &g_free);
    return "data:" + (is_type(part.type) ? part.type : "application/octet-stream") + ";base64," + text.get();
}

}  // namespace

std::string with_parts(std::string_view html, const std::function<HtmlPart(const std::string& id)>& part,
                       std::size_t most) {
    std::string out;
    std::size_t copied = 0;
    for (std::size_t at = 0; at + kScheme.size() <= html.size(); ++at) {
        if ((html[at] != 'c' && html[at] != 'C') || at == 0 || !may_begin_behind(html[at - 1]) ||
            !equal_ignoring_case(html.substr(at, kScheme.size()), kScheme))
            continue;
        const std::size_t end = end_of_address(html, at);
        const HtmlPart found = part(id_in_address(html.substr(at + kScheme.size(), end - at - kScheme.size())));
        if (found.bytes.empty()) continue;
        if (found.bytes.size() > most) break;
        most -= found.bytes.size();
        out += html.substr(copied, at - copied);
        out += data_address(found);
        copied = end;
        at = end - 1;
    }
    out += html.substr(copied);
    return out;
}

std::string text_page(std::string_view text) {
    std::string out = "<!DOCTYPE html><pre style=\"white-space:pre-wrap;overflow-wrap:anywhere\">\n";
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            default:
                out += c;
        }
    }
    return out + "</pre>\n";
}

}  // namespace zr
