#pragma once

// Finds the companion modules of a product in a folder by what they answer, not by what their files are called.
//
//     ZrIModuleEnumerator walk;
//     if (walk.start(7, {1, 2, 0, 0, 0}, 2, folder, pattern) != 0) ...  // the folder cannot be read
//     for (; walk.isValid(); walk.advance()) use(walk.value());         // each is freed with FreeLibrary
//
// A module exports, with C linkage, `int ZrIGetModuleId()`. One thread at a time per enumerator.

#include "ZrUtility/Enumerator.h"
#include "ZrUtility/Export.h"
#include "ZrUtility/FileEnumerator.h"
#include "platform/types.h"

struct _ModuleVersion {
    int major;
    int minor;
    int build;
    int revision;
    int debug;  // never compared
};

// Copies are shallow: they share the walk over the files, and the current module is freed once.
class ZRUTILITY_API ZrIModuleEnumerator : public Enumerator<HINSTANCE> {
public:
    ZrIModuleEnumerator();
    ZrIModuleEnumerator(const ZrIModuleEnumerator&) = default;
    ZrIModuleEnumerator& operator=(const ZrIModuleEnumerator&) = default;
    // Does not free the current module.
    ~ZrIModuleEnumerator() override = default;

    // Goes to the next match. The module that was current stays loaded and is the caller's.
    void advance() override;
    int isValid() override;
    // The current module, NULL without one.
    HINSTANCE value() override;

    // Loads the files of `folder` that match `pattern` one by one until one answers `moduleId`. 0, whether or not there
    // is one; else what FileEnumerator::start returned. `matchLevel` says which parts of the product version in the
    // file must equal `version`: 1 or less all four, 2 minor, build and revision, 3 build and revision, 4 the revision,
    // 5 or more none; 0 does not read versions at all. A file without a readable version matches no other level. What
    // cannot be loaded, answers otherwise or not at all is skipped and unloaded.
    virtual int start(int moduleId, _ModuleVersion version, int matchLevel, WCHAR* folder, WCHAR* pattern);

private:
    void nextModule();
    bool isWanted(HINSTANCE module) const;
    bool hasWantedVersion(HINSTANCE module) const;

    FileEnumerator m_files;
    HINSTANCE m_hModule;
    int m_moduleId;
    _ModuleVersion m_version;
    int m_matchLevel;
};
