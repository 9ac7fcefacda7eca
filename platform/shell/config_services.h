#pragma once

// The services that a provisioning document can name, and what a parm means to them.

#include <string_view>

#include "platform/registry.h"
#include "platform/types.h"

namespace zr::platform {

class ConfigDocument;
struct ConfigElement;

struct ConfigService {
    std::u16string_view name;
    LPCWSTR root;  // the key below HKEY_LOCAL_MACHINE whose keys are its entries; NULL: keys of the registry, anywhere
};

// NULL: there is none of that name.
const ConfigService* find_config_service(std::u16string_view name) noexcept;

// The data of a value, of the document's memory.
struct ConfigData {
    DWORD type;
    const BYTE* bytes;
    DWORD size;
};

// What a parm sets; false when the service has no such parm or it does not take the value. May throw std::bad_alloc.
bool read_config_value(const ConfigService& service, const ConfigElement& parm, ConfigDocument& document,
                       ConfigData& data);
// Whether the service has a parm of that name.
bool has_config_parm(const ConfigService& service, std::u16string_view name) noexcept;

// The datatype of data; empty for what no datatype stands for.
std::u16string_view config_datatype(DWORD type) noexcept;

// Splits "HKLM\path"; false when it begins with no root.
bool split_config_key(std::u16string_view text, HKEY& root, std::u16string_view& path) noexcept;

}  // namespace zr::platform
