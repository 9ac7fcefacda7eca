#pragma once

#include "ZrUtility/Export.h"
#include "platform/kernel.h"

// Named regions of memory that the user's processes share, at most five for each manager.
//
// A region begins with a header, and the content follows it; all fields are little-endian:
//   offset 0, 4 bytes  size            the region's bytes, this header included
//   offset 4, 4 bytes  content length  how many bytes of content are stored
//   offset 8           content
// A region lives as long as some process has it open. Header and content are read and written without any lock: who
// writes and who reads is settled elsewhere, and a reader may see a new length before the content is complete.
//
// A manager belongs to one thread. Names are compared in their first 259 characters, with case.
//
// Results are S_OK, E_FAIL, E_INVALIDARG, E_OUTOFMEMORY and E_ACCESSDENIED; nothing is logged. On every failure of
// Create, Open and CreateOrOpen *info is NULL, where `info` itself is not.
//
// Copies are shallow: they share handles, views and identifiers. Only one of them may release or be destroyed.
class ZRUTILITY_API SharedMemManager {
public:
    struct SharedMemHeader {
        ULONG size;
        ULONG contentLength;
    };

    // One open region, or none. Belongs to its manager and stays valid until the region is released.
    struct ZRUTILITY_API SharedMemInfo {
        WCHAR* identifier;  // owned; NULL when the slot is free
        HANDLE mapping;
        unsigned char* view;     // kept once GetContent has mapped one
        SharedMemHeader header;  // as it was first read; all zero before

        SharedMemInfo();
        // Makes the identifier a copy of the first `length` characters of `name`, or of all of a shorter one. NULL for
        // a NULL `name`, or when memory is short.
        void SetIdentifier(WCHAR* name, unsigned int length);
        // Unmaps, closes and forgets everything: the slot is free.
        void ReleaseMem();

    private:
        friend class SharedMemManager;
        SIZE_T m_viewSize;
        // Through which contents are written when `view` is none or too short; mapped at the first such write.
        unsigned char* m_writingView;
        SIZE_T m_writingViewSize;
    };

    SharedMemManager();
    SharedMemManager(const SharedMemManager&) = default;
    SharedMemManager& operator=(const SharedMemManager&) = default;
    virtual ~SharedMemManager();

    // Creates a region with room for `size` bytes of content. E_FAIL when it exists or cannot be made, for a protection
    // that the platform refuses and for a size that with the header passes 32 bits too. E_OUTOFMEMORY when all five
    // slots are in use, or when memory is short; E_INVALIDARG for a name that is NULL or empty.
    LONG Create(WCHAR* const name, ULONG size, ULONG protection, SharedMemInfo** info);
    // Opens a region that exists; one that this manager has open already is handed out again. E_INVALIDARG when nobody
    // has created it; else as Create.
    LONG Open(WCHAR* const name, ULONG protection, SharedMemInfo** info);
    // Opens the region or creates it; `size` is the whole region's, and the header of one that exists stays. A region
    // that this manager has open already takes another slot. A new one whose pages may not be written has no header.
    LONG CreateOrOpen(WCHAR* const name, ULONG size, ULONG protection, SharedMemInfo** info);

    // All of these give E_INVALIDARG for a name that is NULL, empty or not open here, and E_ACCESSDENIED when the
    // region's pages cannot be mapped for reading and writing.
    //
    // The header is read once, when one of them first needs it, and not again until the region is released: what this
    // or another process writes later does not show in it. (A header whose size is 0 is read again.)
    LONG GetHeader(WCHAR* const name, SharedMemHeader* header);
    // *content is where the content begins, good until the region is released, with room for the content length of the
    // header as it was read. Either of `content` and `header` may be NULL.
    LONG GetContent(WCHAR* const name, unsigned char** content, SharedMemHeader* header);
    // Stores `length` bytes. Nothing is done, with S_OK, for NULL data or length 0. E_OUTOFMEMORY when the length is
    // not below the header's size; it counts the header's own 8 bytes too, so up to 7 bytes more than Create was asked
    // for are taken. Where these last ones would lie outside the region's pages, E_ACCESSDENIED.
    LONG SetContent(WCHAR* const name, unsigned char* data, ULONG length);
    // Sets the content length to 0; S_OK also when the header cannot be read.
    LONG CleanContent(WCHAR* const name);

    // E_INVALIDARG when the region is not open here.
    LONG Release(WCHAR* const name);
    // E_FAIL when a view or a handle could not be given back.
    LONG ReleaseAll();

private:
    static constexpr int SLOTS = 5;

    int GetNextUsableStruct();
    int GetMemStruct(const WCHAR* name) const;
    SharedMemInfo* Find(const WCHAR* name);

    static LONG GetHeader(SharedMemInfo* slot, SharedMemHeader* header);
    static LONG SetHeader(SharedMemInfo* slot, const SharedMemHeader& header);
    static LONG GetContent(SharedMemInfo* slot, unsigned char** content, SharedMemHeader* header);
    static LONG SetContent(SharedMemInfo* slot, const unsigned char* data, ULONG length);
    static unsigned char* ViewForWriting(SharedMemInfo* slot, SIZE_T size);

    SharedMemInfo m_slots[SLOTS];
    int m_highestSlot;  // searches look at the slots up to this one; -1 when none was ever used
};
