#include "zr/mail/digest.h"

#include <glib.h>

#include <memory>
#include <vector>

namespace zr {

std::string sha256_of(const ReadFunction& read) {
    const std::unique_ptr<GChecksum, decltype(&g_checksum_free)> sum(g_checksum_new(G_CHECKSUM_SHA256),
                                                                     &g_checksum_free);
    std::vector<char> buffer(std::size_t{64} << 10);
    for (ssize_t got = 0; (got = read(buffer.data(), buffer.size())) > 0;) {
        g_checksum_update(sum.get(), reinterpret_cast<const guchar*>(buffer.data()), got);
    }
    return g_checksum_get_string(sum.get());
}

}  // namespace zr
