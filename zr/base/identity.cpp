#include "zr/base/identity.h"

#include <glib.h>

#include <memory>

namespace zr {
namespace {

constexpr std::size_t kHalfDigest = 32;

std::string given(gchar* text) {
    const std::unique_ptr<gchar, decltype(&g_free)> owned(text, &g_free);
    return owned ? owned.get() : "";
}

}  // namespace

std::string new_identifier() {
    return "urn:uuid:" + given(g_uuid_string_random());
}

std::string identifier_of(std::string_view prefix, std::string_view bytes) {
    const std::string digest = given(
        g_compute_checksum_for_data(G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(bytes.data()), bytes.size()));
    return std::string(prefix) + digest.substr(0, kHalfDigest);
}

}  // namespace zr
