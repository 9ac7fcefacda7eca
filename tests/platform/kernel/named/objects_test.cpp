// Named events and mutexes, in this process and with others.

#include <atomic>
#include <set>

#include "platform/kernel/named/support.h"
#include "support/child.h"

using namespace zr::test;

TEST(Named, SecondCreatorOpensTheFirstObject) {
    const Handle first = named_event(u"an event");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    const Handle second = named_event(u"an event", true, true);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_NE(first, second);
    // Neither kind nor state of the first one changed.
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(second));
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_TIMEOUT);
}

TEST(Named, NamesOfAnotherKindAreRefused) {
    const Handle event = named_event(u"one");
    EXPECT_EQ(CreateMutexW(nullptr, FALSE, u"one"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 10, u"one"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(OpenMutexW(SYNCHRONIZE, FALSE, u"one"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    const Handle mapping = named_mapping(u"two", 10);
    EXPECT_EQ(CreateEventW(nullptr, FALSE, FALSE, u"two"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Named, OpeningNeedsAnObjectAndAName) {
    EXPECT_EQ(OpenEventW(EVENT_ALL_ACCESS, FALSE, u"nobody made it"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, u"nobody made it"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenEventW(EVENT_ALL_ACCESS, FALSE, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(OpenEventW(EVENT_ALL_ACCESS, FALSE, u""), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    const Handle event = named_event(u"somebody made it");
    const Handle opened(OpenEventW(EVENT_ALL_ACCESS, FALSE, u"somebody made it"));
    EXPECT_TRUE(SetEvent(opened));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
}

TEST(Named, TheNameEndsWithTheLastHandle) {
    Handle first = named_event(u"short", true, true);
    Handle second = named_event(u"short");
    first = Handle();
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    second = Handle();
    const Handle third = named_event(u"short");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(third, 0), WAIT_TIMEOUT);
}

TEST(Named, ADuplicateKeepsTheName) {
    Handle first = named_event(u"kept");
    HANDLE copy = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), first, GetCurrentProcess(), &copy, 0, FALSE, 0));
    const Handle second(copy);
    first = Handle();
    named_event(u"kept");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
}

TEST(Named, AnyTextIsAName) {
    std::u16string everything;
    for (unsigned unit = 1; unit < 0x10000; ++unit) {
        everything += static_cast<char16_t>(unit);
    }
    std::vector<std::u16string> names = {
        u"\\",
        u"/",
        u"a/b",
        u"a\\b",
        u"..",
        u".",
        u" ",
        u"  ",
        u"\t",
        u"Global\\x",
        u"x",
        u"X",
        u"x ",
        u"\u00e9",
        u"e\u0301",
        u"a%sb",
        u"new.0.0.",
        u"objects-5",
        u"mapping.1",
        std::u16string(28, u'n'),
        std::u16string(29, u'n'),
        std::u16string(88, u'n'),
        std::u16string(89, u'n'),
        std::u16string(5000, u'n'),
        everything,
    };
    for (const char16_t lone : {u'\xD800', u'\xDBFF', u'\xDC00', u'\xDFFF'}) {
        names.push_back(std::u16string(1, lone));
    }
    std::vector<Handle> handles;
    for (const std::u16string& name : names) {
        handles.push_back(named_event(name.c_str()));
        ASSERT_NE(handles.back(), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        const Handle again = named_event(names[i].c_str());
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        EXPECT_TRUE(SetEvent(again));
        EXPECT_EQ(WaitForSingleObject(handles[i], 0), WAIT_OBJECT_0);
    }
    std::vector<std::u16string> in_list;
    for (const Listed& one : listed()) {
        in_list.push_back(one.name);
    }
    std::sort(names.begin(), names.end());
    EXPECT_TRUE(in_list == names);  // too long to print
}

TEST(Named, MutexOfTwoHandlesIsOne) {
    const Handle first = named_mutex(u"lock", true);
    const Handle second = named_mutex(u"lock", true);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    Worker other([&] { return WaitForSingleObject(second, 0); });
    EXPECT_EQ(other.join(), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);  // a second hold
    EXPECT_TRUE(ReleaseMutex(first));
    EXPECT_TRUE(ReleaseMutex(second));
    EXPECT_FALSE(ReleaseMutex(first));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
}

TEST(Named, ThreadThatEndsAbandons) {
    const Handle lock = named_mutex(u"left");
    Worker other([&] { return WaitForSingleObject(lock, INFINITE); });
    EXPECT_EQ(other.join(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(lock));
}

// Fills a page of the objects' table but for a few places, so that an object that is not freed makes the table grow.
class FullTable {
public:
    FullTable() {
        {  // the sleepers' table is there
            const Handle event = make();
            Worker first([&] { return WaitForSingleObject(event, 20); });
            Worker second([&] { return WaitForSingleObject(event, 20); });
            Worker third([&] { return WaitForSingleObject(event, 20); });
        }
        for (const std::uintmax_t before = region_size(); region_size() == before;) {
            all_.push_back(make());
        }
        constexpr std::size_t kObjectsPerPage = 4096 / 256;
        for (std::size_t there = 1; there < kObjectsPerPage - kPlaces; ++there) {
            all_.push_back(make());
        }
        full_ = region_size();
    }
    void expect_no_growth() {
        std::vector<Handle> last;
        for (std::size_t i = 0; i < kPlaces; ++i) {
            last.push_back(make());
        }
        EXPECT_EQ(region_size(), full_);
        last.push_back(make());
        EXPECT_GT(region_size(), full_);  // it was full
    }

private:
    static constexpr std::size_t kPlaces = 4;

    Handle make() { return named_event((u"filling " + std::u16string(1, next_++)).c_str()); }

    char16_t next_ = 0x4E00;
    std::vector<Handle> all_;
    std::uintmax_t full_ = 0;
};

// As often as it takes for the handle to be held in the quickest way.
static void use_often(HANDLE lock) {
    for (int i = 0; i < 20; ++i) {
        const DWORD result = WaitForSingleObject(lock, INFINITE);
        EXPECT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) << result;
        EXPECT_TRUE(ReleaseMutex(lock));
    }
}

TEST(Named, AMutexClosedWhileItIsOwnedLivesAsLongAsItsOwner) {
    FullTable table;
    for (int round = 0; round < 20; ++round) {
        Worker owner([&] {
            Handle made = named_mutex(u"closed", true);
            EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
            if (round % 2 != 0) {  // given up and taken again
                EXPECT_TRUE(ReleaseMutex(made));
                EXPECT_EQ(WaitForSingleObject(made, 0), WAIT_OBJECT_0);
            }
            EXPECT_TRUE(CloseHandle(made.detach()));
            return DWORD{0};
        });
        owner.join_and_close();
    }
    table.expect_no_growth();
}

// The handle is closed at any point between taking the mutex and giving it up.
TEST(Named, AMutexMayBeClosedAtAnyMomentOfItsUse) {
    FullTable table;
    for (int round = 0; round < 200; ++round) {
        Handle lock = named_mutex(u"closed in use");
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS) << round;
        std::atomic<int> turns = 0;
        const auto use = [&, handle = HANDLE(lock)] {
            while (WaitForSingleObject(handle, INFINITE) != WAIT_FAILED && ReleaseMutex(handle)) {
                ++turns;
            }
            return DWORD{0};
        };
        Worker first(use);
        Worker second(use);
        // Some are closed when they have been used often enough for the quickest way, others before.
        while (turns < round % 24) {
            sched_yield();
        }
        EXPECT_TRUE(CloseHandle(lock.detach()));
    }
    table.expect_no_growth();
}

// Each thread's handle may be the last one when it is closed, while another opens the mutex again and uses that.
TEST(Named, AMutexIsOpenedAgainWhileItIsClosed) {
    FullTable table;
    {
        const auto use = [] {
            for (int round = 0; round < 100; ++round) {
                const Handle lock = named_mutex(u"open and closed");
                use_often(lock);
            }
            return DWORD{0};
        };
        Worker first(use);
        Worker second(use);
        Worker third(use);
    }
    table.expect_no_growth();
}

TEST(Named, AMutexThatIsUsedOftenIsStillCounted) {
    const Handle lock = named_mutex(u"often");
    use_often(lock);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_OBJECT_0);
    }
    Worker other([&] {
        EXPECT_FALSE(ReleaseMutex(lock));
        EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
        return WaitForSingleObject(lock, 0);
    });
    EXPECT_EQ(other.join(), WAIT_TIMEOUT);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(ReleaseMutex(lock));
    }
    EXPECT_FALSE(ReleaseMutex(lock));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    Worker last([&] { return WaitForSingleObject(lock, 0); });  // ends with it
    EXPECT_EQ(last.join(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(lock));
    use_often(lock);
}

TEST(Named, AClosedMutexThatWasUsedOftenIsRefused) {
    Handle lock = named_mutex(u"stale");
    use_often(lock);
    const HANDLE stale = lock;
    lock = Handle();
    EXPECT_EQ(WaitForSingleObject(stale, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(0);
    EXPECT_FALSE(ReleaseMutex(stale));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Named, WaitersAreServedInOrder) {
    const Handle event = named_event(u"order");
    std::string order;
    const auto wait_and_note = [&](char who) {
        const DWORD got = WaitForSingleObject(event, INFINITE);
        order += who;
        return got;
    };
    Worker first([&] { return wait_and_note('1'); });
    first.until_asleep();
    Worker second([&] { return wait_and_note('2'); });
    second.until_asleep();
    SetEvent(event);
    EXPECT_EQ(first.join(), WAIT_OBJECT_0);
    SetEvent(event);
    EXPECT_EQ(second.join(), WAIT_OBJECT_0);
    EXPECT_EQ(order, "12");
}

TEST(Named, MixesWithUnnamedObjectsInAWaitForAny) {
    const Handle named = named_event(u"mixed");
    const Handle lock = named_mutex(u"mixed lock");
    const Handle plain = auto_event();
    const HANDLE all[] = {named, plain, lock};
    Worker holder([&] {
        WaitForSingleObject(lock, INFINITE);
        Worker waiter([&] { return WaitForMultipleObjects(3, all, FALSE, INFINITE); });
        waiter.until_asleep();
        SetEvent(plain);
        EXPECT_EQ(waiter.join(), WAIT_OBJECT_0 + 1);
        Worker again([&] { return WaitForMultipleObjects(3, all, FALSE, INFINITE); });
        again.until_asleep();
        SetEvent(named);
        EXPECT_EQ(again.join(), WAIT_OBJECT_0);
        Worker third([&] {
            const DWORD result = WaitForMultipleObjects(3, all, FALSE, INFINITE);
            ReleaseMutex(lock);
            return result;
        });
        third.until_asleep();
        ReleaseMutex(lock);
        EXPECT_EQ(third.join(), WAIT_OBJECT_0 + 2);
        return DWORD{0};
    });
    holder.join();
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(WaitForMultipleObjects(2, all, FALSE, 5), WAIT_TIMEOUT);
    ReleaseMutex(lock);
}

TEST(Named, AWaitForAllTakesEverythingOrNothing) {
    const Handle named = named_event(u"all 1");
    const Handle other = named_event(u"all 2");
    const Handle plain = auto_event();
    for (const DWORD count : {DWORD{2}, DWORD{3}}) {  // named ones only; mixed
        const HANDLE all[] = {named, other, plain};
        Worker waiter([&] { return WaitForMultipleObjects(count, all, TRUE, INFINITE); });
        waiter.until_asleep();
        SetEvent(named);
        EXPECT_EQ(WaitForSingleObject(named, 0), WAIT_OBJECT_0);  // not taken yet
        SetEvent(plain);
        SetEvent(named);
        SetEvent(other);
        EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(named, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObject(other, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObject(plain, 0), count == 3 ? WAIT_TIMEOUT : WAIT_OBJECT_0);
    }
}

TEST(Named, AMixedWaitForAllEndsByWhicheverComesLast) {
    const Handle named = named_event(u"last");
    const Handle plain = auto_event();
    const HANDLE all[] = {named, plain};
    for (int round = 0; round < 2; ++round) {
        Worker waiter([&] { return WaitForMultipleObjects(2, all, TRUE, INFINITE); });
        waiter.until_asleep();
        SetEvent(all[round]);
        SetEvent(all[1 - round]);
        EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(named, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObject(plain, 0), WAIT_TIMEOUT);
    }
}

TEST(Named, PulseLetsGoThoseWhoWait) {
    const Handle manual = named_event(u"pulse", true);
    Worker first([&] { return WaitForSingleObject(manual, INFINITE); });
    Worker second([&] { return WaitForSingleObject(manual, INFINITE); });
    first.until_asleep();
    second.until_asleep();
    EXPECT_TRUE(PulseEvent(manual));
    EXPECT_EQ(first.join(), WAIT_OBJECT_0);
    EXPECT_EQ(second.join(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);
    const Handle automatic = named_event(u"pulse one");
    EXPECT_TRUE(PulseEvent(automatic));
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
    Worker third([&] { return WaitForSingleObject(automatic, INFINITE); });
    third.until_asleep();
    EXPECT_TRUE(EventModify(automatic, EVENT_PULSE));
    EXPECT_EQ(third.join(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
}

TEST(Named, AWaitingThreadCanBeEnded) {
    const Handle event = named_event(u"never set");
    const Handle plain = auto_event();
    const HANDLE both[] = {event, plain};
    Worker pure([&] { return WaitForSingleObject(event, INFINITE); });
    Worker mixed([&] { return WaitForMultipleObjects(2, both, FALSE, INFINITE); });
    pure.until_asleep();
    mixed.until_asleep();
    EXPECT_TRUE(TerminateThread(pure.handle(), 7));
    EXPECT_TRUE(TerminateThread(mixed.handle(), 8));
    EXPECT_EQ(pure.join(), 7u);
    EXPECT_EQ(mixed.join(), 8u);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
}

TEST(Named, TimeoutsAreKept) {
    const Handle event = named_event(u"late");
    const DWORD begin = GetTickCount();
    EXPECT_EQ(WaitForSingleObject(event, 30), WAIT_TIMEOUT);
    EXPECT_GE(GetTickCount() - begin, 29u);
}

// --- Other processes -------------------------------------------------------------------------------------------------

ZR_CHILD(named_peer) {
    const Handle there = named_event(u"there");
    if (GetLastError() != ERROR_ALREADY_EXISTS) return 1;
    const Handle back(OpenEventW(EVENT_MODIFY_STATE, FALSE, u"back"));
    for (int i = 0; i < 100; ++i) {
        if (WaitForSingleObject(there, INFINITE) != WAIT_OBJECT_0) return 2;
        if (!SetEvent(back)) return 3;
    }
    return 0;
}

TEST(NamedProcesses, EventsReachAnotherProgram) {
    const Handle there = named_event(u"there");
    const Handle back = named_event(u"back");
    Child child("named_peer");
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(SetEvent(there));
        ASSERT_EQ(WaitForSingleObject(back, 10000), WAIT_OBJECT_0);
    }
    EXPECT_EQ(child.wait(), 0);
}

TEST(NamedProcesses, AMutexKeepsProcessesApart) {
    const Handle lock = named_mutex(u"apart");
    const Handle memory = named_mapping(u"apart counter", 8);
    auto* counter = static_cast<volatile LONGLONG*>(MapViewOfFile(memory, FILE_MAP_WRITE, 0, 0, 8));
    ASSERT_NE(counter, nullptr);
    const auto body = [&] {
        const Handle mine = named_mutex(u"apart");
        for (int i = 0; i < 500; ++i) {
            if (WaitForSingleObject(mine, INFINITE) != WAIT_OBJECT_0) return 1;
            *counter = *counter + 1;
            if (!ReleaseMutex(mine)) return 2;
        }
        return 0;
    };
    Fork first(body);
    Fork second(body);
    Fork third(body);
    EXPECT_EQ(first.join(), 0);
    EXPECT_EQ(second.join(), 0);
    EXPECT_EQ(third.join(), 0);
    EXPECT_EQ(*counter, 1500);
    UnmapViewOfFile(const_cast<LONGLONG*>(counter));
}

TEST(NamedProcesses, AKilledOwnerAbandonsToTheSleepingWaiter) {
    const Handle lock = named_mutex(u"owned by the dead");
    Fork owner([] {
        const Handle mine = named_mutex(u"owned by the dead");
        WaitForSingleObject(mine, INFINITE);
        Fork::say('o');
        pause();
        return 0;
    });
    ASSERT_EQ(owner.hear(), 'o');
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_TIMEOUT);
    Worker waiter([&] {
        const DWORD result = WaitForSingleObject(lock, INFINITE);
        ReleaseMutex(lock);
        return result;
    });
    waiter.until_asleep();
    owner.kill();
    EXPECT_EQ(waiter.join(), WAIT_ABANDONED);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    ReleaseMutex(lock);
}

// At any moment of a loop that takes it and gives it up.
TEST(NamedProcesses, AUserOfAMutexIsKilled) {
    const Handle lock = named_mutex(u"used by the dead");
    use_often(lock);
    for (int round = 0; round < 20; ++round) {
        Fork user([] {
            const Handle mine = named_mutex(u"used by the dead");
            use_often(mine);
            Fork::say('u');
            while (WaitForSingleObject(mine, INFINITE) != WAIT_FAILED && ReleaseMutex(mine)) {
            }
            return 1;
        });
        ASSERT_EQ(user.hear(), 'u');
        use_often(lock);
        user.kill();
        const DWORD result = WaitForSingleObject(lock, INFINITE);
        EXPECT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) << result;
        EXPECT_TRUE(ReleaseMutex(lock));
    }
}

TEST(NamedProcesses, AKilledProcessTakesItsNamesAlong) {
    const Handle anchor = named_event(u"anchor");  // keeps this process among those that share objects
    Fork owner([] {
        CreateEventW(nullptr, TRUE, TRUE, u"gone event");
        CreateMutexW(nullptr, TRUE, u"gone mutex");
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100, u"gone mapping");
        Fork::say('o');
        pause();
        return 0;
    });
    ASSERT_EQ(owner.hear(), 'o');
    EXPECT_EQ(listed().size(), 4u);
    owner.kill();
    EXPECT_EQ(listed().size(), 1u);
    const Handle event = named_event(u"gone event");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    const Handle lock = named_mutex(u"gone mutex");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    ReleaseMutex(lock);
}

// Also when nobody has come round to clear up after it: each kind is looked for first thing after the end.
TEST(NamedProcesses, ANameIsFreeAtOnceWhenItsProcessHasEnded) {
    const Handle anchor = named_event(u"anchor");
    for (int round = 0; round < 60; ++round) {
        Fork owner([] {
            CreateEventW(nullptr, TRUE, TRUE, u"at once event");
            CreateMutexW(nullptr, TRUE, u"at once mutex");
            CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100, u"at once mapping");
            Fork::say('o');
            pause();
            return 0;
        });
        ASSERT_EQ(owner.hear(), 'o');
        owner.kill();
        const Handle made = round % 3 == 0   ? named_event(u"at once event")
                            : round % 3 == 1 ? named_mutex(u"at once mutex")
                                             : named_mapping(u"at once mapping", 100);
        ASSERT_EQ(GetLastError(), ERROR_SUCCESS) << round;
        ASSERT_NE(static_cast<HANDLE>(made), nullptr) << round;
    }
}

TEST(NamedProcesses, WhoComesAfterAllAreDeadFindsNothing) {
    Fork owner([] {
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100, u"left behind");
        Fork::say('o');
        pause();
        return 0;
    });
    ASSERT_EQ(owner.hear(), 'o');
    owner.kill();
    const Handle memory = named_mapping(u"left behind", 100);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(View(memory, FILE_MAP_READ)[0], 0);
}

TEST(NamedProcesses, ExactlyOneOfManyMakesIt) {
    const Handle go = named_event(u"go", true);
    for (int round = 0; round < 20; ++round) {
        ResetEvent(go);
        std::vector<std::unique_ptr<Fork>> racers;
        for (int i = 0; i < 4; ++i) {
            racers.push_back(std::make_unique<Fork>([&] {
                const Handle start = named_event(u"go");
                Fork::say('r');
                WaitForSingleObject(start, INFINITE);
                Handle made;
                switch (round % 3) {
                    case 0:
                        made = named_event(u"race");
                        break;
                    case 1:
                        made = named_mutex(u"race");
                        break;
                    default:
                        made = named_mapping(u"race", 1000);
                }
                const DWORD error = GetLastError();
                if (made) Fork::say(error == ERROR_SUCCESS ? 'm' : error == ERROR_ALREADY_EXISTS ? 'o' : '?');
                pause();
                return 0;
            }));
        }
        for (auto& racer : racers) {
            ASSERT_EQ(racer->hear(), 'r');
        }
        SetEvent(go);
        std::string said;
        for (auto& racer : racers) {
            said += racer->hear();
        }
        std::sort(said.begin(), said.end());
        EXPECT_EQ(said, "mooo");
    }
}

TEST(NamedProcesses, ForkedChildHasNoneOfTheHandles) {
    const Handle event = named_event(u"parent's", true, true);
    Fork child([&] {
        if (WaitForSingleObject(event, 0) != WAIT_FAILED || GetLastError() != ERROR_INVALID_HANDLE) return 1;
        if (SetEvent(event) || GetLastError() != ERROR_INVALID_HANDLE) return 2;
        const Handle own = named_event(u"parent's");
        if (GetLastError() != ERROR_ALREADY_EXISTS) return 3;
        return WaitForSingleObject(own, 0) == WAIT_OBJECT_0 ? 0 : 4;
    });
    EXPECT_EQ(child.join(), 0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
}

TEST(NamedProcesses, ForkedChildHasNoMutexThatItsParentUsesOften) {
    const Handle lock = named_mutex(u"parent's");
    use_often(lock);
    EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_OBJECT_0);
    Fork child([&] {
        if (ReleaseMutex(lock)) return 1;
        if (WaitForSingleObject(lock, 0) != WAIT_FAILED || GetLastError() != ERROR_INVALID_HANDLE) return 2;
        const Handle own = named_mutex(u"parent's");
        if (WaitForSingleObject(own, 0) != WAIT_TIMEOUT) return 3;
        Fork::say('r');
        if (WaitForSingleObject(own, INFINITE) != WAIT_OBJECT_0 || !ReleaseMutex(own)) return 4;
        use_often(own);
        return WaitForSingleObject(lock, 0) == WAIT_FAILED && !ReleaseMutex(lock) ? 0 : 5;
    });
    EXPECT_EQ(child.hear(), 'r');
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_EQ(child.join(), 0);
    use_often(lock);
}
