#include "base/error_text.h"

#include "base/utf.h"

namespace zr::platform {

void keep_sentence(std::span<WCHAR> room, std::string_view sentence) noexcept {
    const std::span<WCHAR> text = room.first(room.size() - 1);
    std::size_t length = host_to_wide(sentence, text);
    // Text in UTF-8 never has more units than bytes.
    if (length > text.size()) length = host_to_wide(sentence.substr(0, text.size()), text);
    room[length > text.size() ? 0 : length] = 0;
}

}  // namespace zr::platform
