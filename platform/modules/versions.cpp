// The version resource: read from a note, handed out in the block that the handheld's callers expect.

#include <algorithm>
#include <cstring>
#include <string_view>

#include "base/fail.h"
#include "files/host_path.h"
#include "kernel/thread.h"
#include "module_file.h"
#include "platform/base.h"
#include "platform/modules.h"

namespace zr::platform {
namespace {

// A version block that has nothing but the fixed part.
struct Block {
    WORD length;
    WORD value_length;
    WORD type;
    WCHAR key[16];
    WORD padding;
    VS_FIXEDFILEINFO info;
};
constexpr WCHAR kKey[] = u"VS_VERSION_INFO";
static_assert(sizeof kKey == sizeof Block::key && offsetof(Block, info) == 40 && sizeof(Block) == 92);

DWORD read_version(LPCWSTR path, VS_FIXEDFILEINFO& info) {
    try {
        const HostPath host = existing_host_path(path);
        if (host.error) return host.error;
        const ModuleFile file(host.path.c_str());
        return file.error() ? file.error() : find_version(file, info);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

DWORD GetFileVersionInfoSizeW(LPCWSTR path, LPDWORD handle) {
    cancellation_point();
    if (handle) *handle = 0;
    VS_FIXEDFILEINFO info;
    const DWORD error = read_version(path, info);
    return error ? fail(error, DWORD{0}) : DWORD{sizeof(Block)};
}

BOOL GetFileVersionInfoW(LPCWSTR path, DWORD, DWORD size, LPVOID data) {
    cancellation_point();
    if (!data) return fail(ERROR_INVALID_PARAMETER, FALSE);
    Block block = {};
    if (const DWORD error = read_version(path, block.info)) return fail(error, FALSE);
    if (size < sizeof block) return fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    block.length = sizeof block;
    block.value_length = sizeof block.info;
    std::copy(std::begin(kKey), std::end(kKey), block.key);
    std::memcpy(data, &block, sizeof block);
    return TRUE;
}

BOOL VerQueryValueW(LPCVOID data, LPCWSTR name, LPVOID* value, UINT* size) {
    cancellation_point();
    if (!data || !name || !value) return fail(ERROR_INVALID_PARAMETER, FALSE);
    Block block;
    std::memcpy(&block.length, data, sizeof block.length);
    if (block.length != sizeof block) return fail(ERROR_INVALID_PARAMETER, FALSE);
    std::memcpy(&block, data, sizeof block);
    if (std::memcmp(block.key, kKey, sizeof kKey) != 0 || block.value_length != sizeof block.info)
        return fail(ERROR_INVALID_PARAMETER, FALSE);
    if (std::u16string_view(name) != u"\\") return fail(ERROR_RESOURCE_TYPE_NOT_FOUND, FALSE);
    *value = static_cast<std::byte*>(const_cast<void*>(data)) + offsetof(Block, info);
    if (size) *size = sizeof block.info;
    return TRUE;
}
