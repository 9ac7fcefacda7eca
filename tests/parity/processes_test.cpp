// Processes: starting them, waiting for them, ending them.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "platform/kernel/kernel_support.h"
#include "platform/modules.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/sandbox.h"

using namespace zr::test;

namespace {

// A program of the test's own in a folder of the handheld's: a script, which writes to the file `out`.
class Script {
public:
    explicit Script(const std::string& text) {
        std::ofstream(folder_.host() / "program") << "#!/bin/sh\nout='" << out().string() << "'\n" << text;
        std::filesystem::permissions(folder_.host() / "program", std::filesystem::perms::owner_all);
    }

    std::u16string path() const { return folder_.handheld() + u"\\program"; }
    std::filesystem::path out() const { return folder_.host() / "out"; }
    std::string written() const {
        std::ifstream file(out());
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    std::filesystem::path host() const { return folder_.host(); }
    std::u16string folder() const { return folder_.handheld(); }

private:
    TempFolder folder_;
};

class Started {
public:
    Started(LPCWSTR image, LPCWSTR line) {
        result_ = CreateProcessW(image, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, &information_);
        error_ = result_ ? DWORD{ERROR_SUCCESS} : GetLastError();
    }
    ~Started() {
        if (!result_) return;
        CloseHandle(information_.hProcess);
        CloseHandle(information_.hThread);
    }
    Started(const Started&) = delete;
    Started& operator=(const Started&) = delete;

    explicit operator bool() const { return result_ != FALSE; }
    DWORD error() const { return error_; }
    HANDLE process() const { return information_.hProcess; }
    HANDLE thread() const { return information_.hThread; }
    const PROCESS_INFORMATION& information() const { return information_; }
    DWORD code() const {
        EXPECT_EQ(WaitForSingleObject(process(), INFINITE), WAIT_OBJECT_0);
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeProcess(process(), &code));
        return code;
    }

private:
    PROCESS_INFORMATION information_{};
    BOOL result_ = FALSE;
    DWORD error_ = 0;
};

TEST(CreateProcess, RunsAProgramAndTellsItsExitCode) {
    const Script script("exit 42\n");
    const Started child(script.path().c_str(), nullptr);
    ASSERT_TRUE(child) << child.error();
    EXPECT_EQ(child.code(), 42u);
    EXPECT_EQ(WaitForSingleObject(child.thread(), INFINITE), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(child.thread(), &code));
    EXPECT_EQ(code, 42u);
    EXPECT_EQ(GetProcessId(child.process()), child.information().dwProcessId);
    EXPECT_EQ(GetThreadId(child.thread()), child.information().dwThreadId);
    EXPECT_NE(child.information().dwProcessId, GetCurrentProcessId());
}

TEST(CreateProcess, WordsOfTheLineAreArguments) {
    const Script script("for word in \"$@\"; do printf '<%s>\\n' \"$word\" >> \"$out\"; done\n");
    const Started child(script.path().c_str(),
                        u" one\t\"two words\" \"\" a\\b \\\"c\\\" \"d\\\\\" e\"f g\"h \\\\\\\"i ");
    ASSERT_TRUE(child) << child.error();
    EXPECT_EQ(child.code(), 0u);
    EXPECT_EQ(script.written(), "<one>\n<two words>\n<>\n<a\\b>\n<\"c\">\n<d\\>\n<ef gh>\n<\\\"i>\n");
}

TEST(CreateProcess, WithoutAnImageTheFirstWordIsTheProgram) {
    const Script script("echo \"$#:$1\" > \"$out\"; exit 3\n");
    const Started child(nullptr, (u"\"" + script.path() + u"\" first").c_str());
    ASSERT_TRUE(child) << child.error();
    EXPECT_EQ(child.code(), 3u);
    EXPECT_EQ(script.written(), "1:first\n");
}

TEST(CreateProcess, ABareNameIsLookedForWhereTheHostDoes) {
    const Started child(u"sh", u"-c \"exit 5\"");
    ASSERT_TRUE(child) << child.error();
    EXPECT_EQ(child.code(), 5u);
    EXPECT_EQ(Started(u"no-such-program-anywhere", nullptr).error(), ERROR_FILE_NOT_FOUND);
}

TEST(CreateProcess, GivesTheProgramNoDescriptorsAndNoBlockedSignals) {
    const Script script("ls /proc/$$/fd > \"$out\"; grep -E 'SigBlk|SigIgn' /proc/self/status >> \"$out\"\n");
    const int open_one = open("/dev/null", O_RDONLY);
    const int kept = fcntl(open_one, F_DUPFD, 100);
    sigset_t set;
    sigset_t before;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, &before);
    const auto ignored = signal(SIGUSR2, SIG_IGN);
    const Started child(script.path().c_str(), nullptr);
    signal(SIGUSR2, ignored);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(open_one);
    close(kept);
    ASSERT_TRUE(child) << child.error();
    EXPECT_EQ(child.code(), 0u);
    const std::string text = script.written();
    EXPECT_EQ(text.find("\n" + std::to_string(kept) + "\n"), text.npos) << text;
    EXPECT_NE(text.find("SigBlk:\t0000000000000000"), text.npos) << text;
    const std::size_t ignores = text.find("SigIgn:");
    ASSERT_NE(ignores, text.npos);
    EXPECT_EQ(std::stoull(text.substr(ignores + 7), nullptr, 16) & 1u << (SIGUSR2 - 1), 0u) << text;
}

TEST(CreateProcess, RefusesWhatCannotBe) {
    PROCESS_INFORMATION information{};
    const auto error = [&](LPCWSTR image, LPCWSTR line, DWORD flags, LPVOID environment, PROCESS_INFORMATION* out) {
        SetLastError(NO_ERROR);
        EXPECT_FALSE(CreateProcessW(image, line, nullptr, nullptr, FALSE, flags, environment, nullptr, nullptr, out));
        return GetLastError();
    };
    EXPECT_EQ(error(nullptr, nullptr, 0, nullptr, &information), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(error(nullptr, u"  ", 0, nullptr, &information), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(error(u"sh", nullptr, 0, nullptr, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(error(u"sh", nullptr, 0, &information, &information), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(error(u"sh", nullptr, 0x80000000, nullptr, &information), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(error(u"sh", nullptr, CREATE_SUSPENDED, nullptr, &information), ERROR_NOT_SUPPORTED);
    const Script script("exit 0\n");
    EXPECT_EQ(Started((script.folder() + u"\\none").c_str(), nullptr).error(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Started((script.folder() + u"\\no\\way").c_str(), nullptr).error(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(Started(script.folder().c_str(), nullptr).error(), ERROR_ACCESS_DENIED);
    std::ofstream(script.host() / "text") << "no program\n";
    EXPECT_EQ(Started((script.folder() + u"\\text").c_str(), nullptr).error(), ERROR_ACCESS_DENIED);
    std::filesystem::permissions(script.host() / "text", std::filesystem::perms::owner_all);
    EXPECT_EQ(Started((script.folder() + u"\\text").c_str(), nullptr).error(), ERROR_BAD_EXE_FORMAT);
}

TEST(CreateProcess, WhoLetsGoOfItsHandlesLeavesNothingBehind) {
    DWORD id = 0;
    {
        const Script script("exit 0\n");
        const Started child(script.path().c_str(), nullptr);
        ASSERT_TRUE(child);
        id = child.information().dwProcessId;
    }
    // It is reaped here all the same: then no process has that number any more.
    while (kill(static_cast<pid_t>(id), 0) == 0) {
        sched_yield();
    }
    SetLastError(NO_ERROR);
    EXPECT_EQ(OpenProcess(SYNCHRONIZE, FALSE, id), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(TerminateProcess, EndsAProcessWithThatCode) {
    const Script script("echo > \"$out\"; exec sleep 1000\n");
    const Started child(script.path().c_str(), nullptr);
    ASSERT_TRUE(child);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(child.process(), &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(child.process(), 0), WAIT_TIMEOUT);
    EXPECT_TRUE(GetExitCodeThread(child.thread(), &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_TRUE(TerminateProcess(child.process(), 0x12345678));
    EXPECT_EQ(child.code(), 0x12345678u);
    EXPECT_TRUE(GetExitCodeThread(child.thread(), &code));
    SetLastError(NO_ERROR);
    EXPECT_FALSE(TerminateProcess(child.process(), 1));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST(TerminateProcess, OfASignalTheCodeSaysSo) {
    const Started child(u"sh", u"-c \"kill -9 $$\"");
    ASSERT_TRUE(child);
    EXPECT_EQ(child.code(), ERROR_PROCESS_ABORTED);
}

TEST(TerminateProcess, OfThisOneDoesNotReturn) {
    EXPECT_EQ(in_fork([] {
                  TerminateProcess(GetCurrentProcess(), 17);
                  return 1;
              }),
              17);
    EXPECT_EQ(in_fork([]() -> int { ExitProcess(18); }), 18);
}

TEST(OpenProcess, OfThisProcess) {
    const Handle self = Handle(OpenProcess(PROCESS_ALL_ACCESS, FALSE, GetCurrentProcessId()));
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(GetProcessId(self), GetCurrentProcessId());
    EXPECT_EQ(GetProcessId(GetCurrentProcess()), GetCurrentProcessId());
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(self, &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(self, 0), WAIT_TIMEOUT);
}

TEST(OpenProcess, OfOneThatWasStartedHereKnowsItsCode) {
    const Script script("read line < \"$out\"; exit 9\n");
    ASSERT_EQ(mkfifo(script.out().c_str(), 0600), 0);
    auto child = std::make_unique<Started>(script.path().c_str(), nullptr);
    ASSERT_TRUE(*child);
    const DWORD id = child->information().dwProcessId;
    const Handle opened = Handle(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, id));
    ASSERT_NE(opened, nullptr);
    child.reset();
    EXPECT_EQ(WaitForSingleObject(opened, 0), WAIT_TIMEOUT);
    std::ofstream(script.out()) << "go\n";
    EXPECT_EQ(WaitForSingleObject(opened, INFINITE), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(opened, &code));
    EXPECT_EQ(code, 9u);
    // Its number is its own while somebody has a handle to it.
    const Handle again = Handle(OpenProcess(SYNCHRONIZE, FALSE, id));
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(GetExitCodeProcess(again, &code));
    EXPECT_EQ(code, 9u);
}

ZR_CHILD(parity_waits_for_a_line) {
    say("ready");
    return hear() == "go" ? 7 : 8;
}

// The test's own child, of which only the test is told what became of it.
TEST(OpenProcess, OfAStranger) {
    Child stranger("parity_waits_for_a_line");
    EXPECT_EQ(stranger.hear(), "ready");
    const Handle opened = Handle(OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(stranger.pid())));
    ASSERT_NE(opened, nullptr);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(opened, &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(opened, 0), WAIT_TIMEOUT);
    Worker waiter([&] { return WaitForSingleObject(opened, INFINITE); });
    waiter.until_asleep();
    stranger.say("go");
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(GetExitCodeProcess(opened, &code));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(stranger.wait(), 7);
}

TEST(OpenProcess, RefusesWhatIsNone) {
    for (const DWORD wrong : {DWORD{0}, DWORD{0x7FFFFFFF}, DWORD{0xFFFFFFFF}}) {
        SetLastError(NO_ERROR);
        EXPECT_EQ(OpenProcess(SYNCHRONIZE, FALSE, wrong), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    const Handle event = auto_event();
    DWORD code = 0;
    SetLastError(NO_ERROR);
    EXPECT_FALSE(GetExitCodeProcess(event, &code));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(GetExitCodeProcess(GetCurrentProcess(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(TerminateProcess(event, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetProcessId(event), 0u);
    EXPECT_FALSE(SetEvent(GetCurrentProcess()));
}

TEST(OpenProcess, AnotherUsersProcessIsNotForEnding) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    EXPECT_EQ(in_fork([] {
                  if (setuid(65534) != 0) return 1;
                  const auto parent = static_cast<DWORD>(getppid());
                  const Handle looked_at = Handle(OpenProcess(SYNCHRONIZE, FALSE, parent));
                  if (!looked_at || WaitForSingleObject(looked_at, 0) != WAIT_TIMEOUT) return 2;
                  if (TerminateProcess(looked_at, 1) || GetLastError() != ERROR_ACCESS_DENIED) return 3;
                  if (OpenProcess(PROCESS_TERMINATE, FALSE, parent)) return 4;
                  return GetLastError() == ERROR_ACCESS_DENIED ? 0 : 5;
              }),
              0);
}

TEST(ProcessHandles, MixInWaits) {
    const Script script("read line < \"$out\"\n");
    ASSERT_EQ(mkfifo(script.out().c_str(), 0600), 0);
    const Started child(script.path().c_str(), nullptr);
    ASSERT_TRUE(child);
    const Handle event = auto_event(true);
    const HANDLE both[] = {child.process(), event};
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    SetEvent(event);
    std::thread opener([&] { std::ofstream(script.out()) << "go\n"; });
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, INFINITE), WAIT_OBJECT_0);
    opener.join();
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(1, both, INFINITE, QS_ALLINPUT, 0), WAIT_OBJECT_0);
}

// Whoever asks is told, whether or not anything of this process has run since.
TEST(ProcessHandles, AreSignalledAsSoonAsTheProcessHasEnded) {
    for (int i = 0; i < 50; ++i) {
        const Started child(u"true", nullptr);
        ASSERT_TRUE(child) << child.error();
        const int host = static_cast<int>(syscall(SYS_pidfd_open, child.information().dwProcessId, 0));
        if (host >= 0) {  // else it is reaped by now
            pollfd ended{host, POLLIN, 0};
            EXPECT_EQ(poll(&ended, 1, -1), 1);
            close(host);
        }
        EXPECT_EQ(WaitForSingleObject(child.process(), 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(child.thread(), 0), WAIT_OBJECT_0);
    }
}

TEST(ProcessHandles, GoOnInAForkedChild) {
    const Script script("read line < \"$out\"; exit 4\n");
    ASSERT_EQ(mkfifo(script.out().c_str(), 0600), 0);
    const Started child(script.path().c_str(), nullptr);
    ASSERT_TRUE(child);
    EXPECT_EQ(in_fork([&] {
                  if (WaitForSingleObject(child.process(), 0) != WAIT_TIMEOUT) return 1;
                  std::ofstream(script.out()) << "go\n";
                  if (WaitForSingleObject(child.process(), 30'000) != WAIT_OBJECT_0) return 2;
                  DWORD code = 0;
                  SetLastError(NO_ERROR);
                  if (GetExitCodeProcess(child.process(), &code) || GetLastError() != ERROR_NOT_SUPPORTED) return 3;
                  // Its own it knows.
                  const Started own(u"sh", u"-c \"exit 6\"");
                  return own && own.code() == 6 ? 0 : 4;
              }),
              0);
    EXPECT_EQ(child.code(), 4u);
}

TEST(ProcessHandles, ManyAtOnce) {
    std::vector<std::unique_ptr<Started>> children;
    for (int i = 0; i < 20; ++i) {
        const std::u16string line = u"-c \"exit " + std::u16string(1, static_cast<char16_t>(u'0' + i % 10)) + u"\"";
        children.push_back(std::make_unique<Started>(u"sh", line.c_str()));
        ASSERT_TRUE(*children.back());
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(children[static_cast<std::size_t>(i)]->code(), static_cast<DWORD>(i % 10));
    }
}

}  // namespace
