#include "zr/mail/meeting.h"

#include <algorithm>

#include "zr/base/text.h"

namespace zr {
namespace {

std::string joined_lines(std::string_view calendar) {
    std::string text;
    for (std::size_t i = 0; i < calendar.size(); ++i) {
        if (calendar[i] == '\r' || calendar[i] == '\0') continue;
        const bool folded =
            calendar[i] == '\n' && i + 1 < calendar.size() && (calendar[i + 1] == ' ' || calendar[i + 1] == '\t');
        if (folded) {
            ++i;
        } else {
            text += calendar[i];
        }
    }
    return upper(text);
}

// The value behind the first "NAME" of this form in a text in upper case.
std::string value_behind(std::string_view text, std::string_view name) {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) return {};
    const std::string_view rest = text.substr(at + name.size());
    return std::string(trimmed(rest.substr(0, rest.find_first_of(";:,\n"))));
}

}  // namespace

std::string meeting_class(std::string_view method, std::string_view calendar) {
    const std::string text = "\n" + joined_lines(calendar);
    std::string kind = upper(method);
    if (kind.empty()) kind = value_behind(text, "\nMETHOD:");
    if (kind == "REQUEST") return "IPM.Schedule.Meeting.Request";
    if (kind == "CANCEL") return "IPM.Schedule.Meeting.Canceled";
    if (kind != "REPLY") return {};
    const std::string answer = value_behind(text, "PARTSTAT=");
    if (answer == "DECLINED") return "IPM.Schedule.Meeting.Resp.Neg";
    if (answer == "TENTATIVE") return "IPM.Schedule.Meeting.Resp.Tent";
    return "IPM.Schedule.Meeting.Resp.Pos";
}

}  // namespace zr
