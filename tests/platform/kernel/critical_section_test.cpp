#include <cstring>
#include <memory>
#include <vector>

#include "platform/kernel/kernel_support.h"

using namespace zr::test;

namespace {

class Section {
public:
    Section() { InitializeCriticalSection(&section); }
    ~Section() { DeleteCriticalSection(&section); }
    CRITICAL_SECTION section;
};

bool others_may_enter(CRITICAL_SECTION* section) {
    return Worker([section]() -> DWORD {
               if (!TryEnterCriticalSection(section)) return 0;
               LeaveCriticalSection(section);
               return 1;
           }).join() == 1;
}

}  // namespace

TEST(CriticalSection, IsRecursive) {
    Section s;
    EnterCriticalSection(&s.section);
    EnterCriticalSection(&s.section);
    EXPECT_TRUE(TryEnterCriticalSection(&s.section));
    EXPECT_FALSE(others_may_enter(&s.section));
    LeaveCriticalSection(&s.section);
    LeaveCriticalSection(&s.section);
    EXPECT_FALSE(others_may_enter(&s.section));
    LeaveCriticalSection(&s.section);
    EXPECT_TRUE(others_may_enter(&s.section));
}

TEST(CriticalSection, LeavingWithoutBeingInsideChangesNothing) {
    Section s;
    LeaveCriticalSection(&s.section);
    EXPECT_TRUE(others_may_enter(&s.section));
    EnterCriticalSection(&s.section);
    Worker([&] {
        LeaveCriticalSection(&s.section);
        return DWORD{0};
    }).join();
    EXPECT_FALSE(others_may_enter(&s.section));
    LeaveCriticalSection(&s.section);
}

TEST(CriticalSection, WaitersEnterOneAfterTheOther) {
    Section s;
    EnterCriticalSection(&s.section);
    int inside = 0;  // plain on purpose
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 8; ++i) {
        workers.push_back(std::make_unique<Worker>([&] {
            EnterCriticalSection(&s.section);
            EXPECT_EQ(++inside, 1);
            --inside;
            LeaveCriticalSection(&s.section);
            return DWORD{0};
        }));
        workers.back()->until_asleep();
    }
    LeaveCriticalSection(&s.section);
    for (const auto& worker : workers) {
        worker->join();
    }
    EXPECT_TRUE(others_may_enter(&s.section));
}

TEST(CriticalSection, SixtyFourThreadsCount) {
    Section sections[2];
    int counts[2] = {};  // plain on purpose
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 64; ++i) {
        workers.push_back(std::make_unique<Worker>([&, i] {
            for (int round = 0; round < 500; ++round) {
                const int which = (i + round) % 2;
                EnterCriticalSection(&sections[which].section);
                EnterCriticalSection(&sections[which].section);
                ++counts[which];
                LeaveCriticalSection(&sections[which].section);
                LeaveCriticalSection(&sections[which].section);
            }
            return DWORD{0};
        }));
    }
    workers.clear();
    EXPECT_EQ(counts[0], 16000);
    EXPECT_EQ(counts[1], 16000);
}

TEST(CriticalSection, ACopyOfItsBytesIsASectionOfItsOwn) {
    Section s;
    CRITICAL_SECTION copy;
    std::memcpy(&copy, &s.section, sizeof copy);
    EnterCriticalSection(&s.section);
    EXPECT_TRUE(others_may_enter(&copy));
    LeaveCriticalSection(&s.section);
}

TEST(CriticalSection, MayBeDeletedAsSoonAsItIsLeft) {
    for (int i = 0; i < 300; ++i) {
        auto s = std::make_unique<Section>();
        EnterCriticalSection(&s->section);
        Worker other([&] {
            EnterCriticalSection(&s->section);
            LeaveCriticalSection(&s->section);
            s.reset();
            return DWORD{0};
        });
        LeaveCriticalSection(&s->section);
    }
}
