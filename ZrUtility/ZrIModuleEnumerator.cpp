#include "ZrUtility/ZrIModuleEnumerator.h"

#include <memory>
#include <new>

#include "platform/modules.h"

namespace {

using GetModuleId = int (*)();
constexpr const WCHAR* IDENTITY_EXPORT = u"ZrIGetModuleId";

// The version that a module's file carries. False when it has none that can be read.
bool ReadVersion(HINSTANCE module, _ModuleVersion& version) {
    WCHAR path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return false;
    DWORD unused = 0;
    const DWORD size = GetFileVersionInfoSizeW(path, &unused);
    if (size == 0) return false;
    const std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[size]);
    LPVOID value = nullptr;
    UINT valueSize = 0;
    if (!block || !GetFileVersionInfoW(path, 0, size, block.get()) ||
        !VerQueryValueW(block.get(), u"\\", &value, &valueSize) || valueSize != sizeof(VS_FIXEDFILEINFO))
        return false;
    const auto& info = *static_cast<const VS_FIXEDFILEINFO*>(value);
    version.major = static_cast<int>(info.dwProductVersionMS >> 16);
    version.minor = static_cast<int>(info.dwProductVersionMS & 0xFFFF);
    version.build = static_cast<int>(info.dwProductVersionLS >> 16);
    version.revision = static_cast<int>(info.dwProductVersionLS & 0xFFFF);
    version.debug = static_cast<int>(info.dwFileFlags & VS_FF_DEBUG);
    return true;
}

}  // namespace

ZrIModuleEnumerator::ZrIModuleEnumerator() : m_hModule(nullptr), m_moduleId(0), m_version(), m_matchLevel(0) {}

int ZrIModuleEnumerator::start(int moduleId, _ModuleVersion version, int matchLevel, WCHAR* folder, WCHAR* pattern) {
    m_version = version;
    m_matchLevel = matchLevel;
    m_moduleId = moduleId;
    if (const int error = m_files.start(folder, pattern)) return error;
    nextModule();
    return 0;
}

int ZrIModuleEnumerator::isValid() {
    return m_hModule != nullptr ? 1 : 0;
}

HINSTANCE ZrIModuleEnumerator::value() {
    return m_hModule;
}

void ZrIModuleEnumerator::advance() {
    m_files.advance();
    nextModule();
}

void ZrIModuleEnumerator::nextModule() {
    m_hModule = nullptr;
    for (; m_files.isValid(); m_files.advance()) {
        const HINSTANCE module = LoadLibraryW(m_files.value());
        if (module == nullptr) continue;
        if (isWanted(module)) {
            m_hModule = module;
            return;
        }
        FreeLibrary(module);
    }
}

bool ZrIModuleEnumerator::isWanted(HINSTANCE module) const {
    if (m_matchLevel != 0 && !hasWantedVersion(module)) return false;
    const auto identity = reinterpret_cast<GetModuleId>(GetProcAddressW(module, IDENTITY_EXPORT));
    return identity != nullptr && identity() == m_moduleId;
}

bool ZrIModuleEnumerator::hasWantedVersion(HINSTANCE module) const {
    _ModuleVersion found;
    if (!ReadVersion(module, found)) return false;
    return (m_matchLevel > 1 || found.major == m_version.major) &&
           (m_matchLevel > 2 || found.minor == m_version.minor) &&
           (m_matchLevel > 3 || found.build == m_version.build) &&
           (m_matchLevel > 4 || found.revision == m_version.revision);
}
