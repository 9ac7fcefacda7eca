#pragma once

#include "ZrUtility/Export.h"
#include "platform/types.h"

// Large buffers from one stretch of 2 MiB that is reserved once: runs of 32 KiB blocks, which have memory behind them
// only while they are handed out.
//
// There is one manager. It is not locked: its callers use it from one thread, or lock around every call, GetInstance
// and Release included. Nothing is logged; failures say no more than that they are.
class ZRUTILITY_API VirtualMemoryManager {
public:
    static constexpr unsigned int BLOCK_SIZE = 0x8000;
    static constexpr unsigned int BLOCK_COUNT = 64;

    // The manager, made at the first call; NULL when there is no memory for it. When the stretch cannot be reserved,
    // the manager is there and has nothing to hand out.
    static VirtualMemoryManager* GetInstance();
    // Ends the manager with everything it handed out. 1, or 0 when there was none. A later GetInstance makes a new one.
    static int Release();

    // A run of as many blocks as *size bytes need, zeroed; *size becomes the run's size. It is the first free run that
    // is long enough, and NULL, with *size unchanged, when there is none, when that one reaches the last block, which
    // is never handed out, when memory is short, and for 0 bytes or a NULL `size`.
    void* GetMemory(ULONG* size);
    // Gives back the whole blocks among `size` bytes from the block that holds `memory`; a part at the end stays.
    // Always 0. Blocks that are not handed out are left alone, as is all of the run that lies outside the stretch. An
    // address less than a block before the stretch counts as its first block.
    int FreeMemory(void* memory, ULONG size);

    // Copies what the manager knows, not the memory.
    VirtualMemoryManager& operator=(const VirtualMemoryManager&) = default;

    // Ends the manager when the library is unloaded.
    class ZRUTILITY_API Releaser {
    public:
        ~Releaser();
    };

    static VirtualMemoryManager* m_pInstance;
    static Releaser m_Releaser;

protected:
    VirtualMemoryManager();
    VirtualMemoryManager(const VirtualMemoryManager&) = default;
    ~VirtualMemoryManager();

    // Gives memory to `count` blocks from `first` on. 1, or 0 when that fails, or without a stretch, or when the run
    // does not end before the last block.
    int CommitMemory(unsigned int first, unsigned int count);

private:
    int FindFreeRun(ULONG count) const;
    void DecommitMemory(unsigned int first, unsigned int end);

    char* m_base;                 // NULL without a stretch
    void* m_blocks[BLOCK_COUNT];  // each block's address while it is handed out, else NULL
};
