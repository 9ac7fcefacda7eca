#include "ZrUtility/Helpers/KeywordTable.h"

#include <iterator>

namespace {

constexpr const char* kKeywords[] = {
    // 0: priorities; the last is the default's
    "NORMAL", "HIGH", "LOW", "NORMAL",
    // 4: sensitivities
    "PERSONAL", "PRIVATE", "CONFIDENTIAL",
    // 7: recipient markers
    "Recipient", "To-List=Truncated", "Cc-List=Truncated",
    // 10: truth values
    "True", "False",
    // 12: read states
    "Insecure", "Unread", "Read",
    // 15: MIME types and subtypes
    "multipart", "text", "plain", "application", "octet-stream", "postscript", "X-keldevicecalendar", "message",
    "delivery-status", "rfc822", "image", "jpeg", "audio", "basic", "video", "mpeg",
    // 31: content disposition
    "/", "attachment", "inline", "filename", "creation-date", "modification-date", "read-date", "size",
    // 39: header punctuation
    "; ", "=", " ", "<", ">",
    // 44: body parts
    "Text", "Attachments",
    // 46: meeting responses
    "Accepted", "Declined", "Tentative", "Updated", "Canceled",
    // 51: HTTP requests; 55 and 56 together are the protocol's version
    "GET", "HEAD", "POST", "\r\n", "HTTP/1.", "1", "http://", "https://", "host", "content-length",
    // 61: days
    "Su", "Mo", "Tu", "We", "Th", "Fr", "Sa",
    // 68
    "Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday",
    // 75: months
    "January", "February", "March", "April", "May", "June", "July", "August", "September", "October", "November",
    "December",
    // 87
    "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec",
    // 99: recurrences
    "Daily", "Weekly", "Monthly", "Yearly",
    // 103: free/busy states
    "Free", "Tentative", "Busy", "Out of Office"};
static_assert(std::size(kKeywords) == 107);

}  // namespace

const char* GetKeyword(unsigned int id) noexcept {
    return id < std::size(kKeywords) ? kKeywords[id] : nullptr;
}
