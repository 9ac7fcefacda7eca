// zr mail, run as a process, beside notmuch, run as a process, and beside GMime alone.
//
//   mail_import   a Maildir of 10,000 messages into a store that is empty. `notmuch`: notmuch new with an empty
//                 database; `gmime`: each file opened and parsed whole, nothing kept
//   mail_import_memory   the most memory that zr ever had
//   mail_find     two words that are in one of 500 messages, of 10,000 and of 100,000; zr lists them. `notmuch`:
//   notmuch
//                 count
//   mail_import_large, mail_import_large_memory   10,000 messages of 200 KiB, when ZR_BENCH_LARGE is set

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <gmime/gmime.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

// ---- messages ------------------------------------------------------------------------------------------------------

// Words as often as in a language: the second half as often as the first, and so on.
class Words {
public:
    Words() {
        static constexpr const char* syllables[] = {"ka", "ter", "no", "lin", "ve", "mar", "si", "do", "pre", "ton"};
        for (int i = 0; i < kCount; ++i) {
            std::string word;
            for (int rest = i + 7; rest > 0; rest /= 10) {
                word += syllables[rest % 10];
            }
            words_.push_back(word);
        }
    }
    const std::string& any(std::mt19937& random) const {
        const double u = std::uniform_real_distribution<>(0, 1)(random);
        return words_[static_cast<std::size_t>(std::pow(kCount, u)) - 1];
    }

private:
    static constexpr int kCount = 30000;
    std::vector<std::string> words_;
};

std::string paragraphs(const Words& words, std::mt19937& random, std::size_t size, const char* line_end) {
    std::string text;
    for (std::size_t column = 0; text.size() < size;) {
        const std::string& word = words.any(random);
        text += word;
        column += word.size() + 1;
        text += column > 70 ? line_end : " ";
        if (column > 70) column = 0;
    }
    return text + line_end;
}

std::string base64_lines(std::mt19937& random, std::size_t size) {
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    while (text.size() < size) {
        for (int i = 0; i < 76; ++i) {
            text += digits[random() % 64];
        }
        text += "\n";
    }
    return text;
}

// As list servers and people's programs write them: a third plain, a third with HTML besides, and every tenth with a
// file. `file_size`: of every message's file, 0 for that mix.
std::string message(const Words& words, std::mt19937& random, int number, std::size_t file_size) {
    const std::string n = std::to_string(number);
    const std::string sender = words.any(random) + std::to_string(random() % 500);
    std::string header = "Return-Path: <" + sender + "@example.com>\n";
    for (const char* host : {"mx.example.net", "relay.example.org", "out.example.com"}) {
        header += "Received: from " + std::string(host) + " (" + host + " [192.0.2." + std::to_string(random() % 250) +
                  "])\n\tby inbox.example.net (Postfix) with ESMTPS id 4F" + std::to_string(random()) +
                  "\n\tfor <me@example.net>; Mon, 15 Jan 2024 10:" + std::to_string(10 + number % 50) + ":00 +0000\n";
    }
    header += "DKIM-Signature: v=1; a=rsa-sha256; c=relaxed/relaxed; d=example.com; s=mail;\n\tbh=" +
              base64_lines(random, 44).substr(0, 44) +
              ";\n\th=From:To:Subject:Date:Message-ID;\n\tb=" + base64_lines(random, 172).substr(0, 70) + "\n";
    header += "From: " + words.any(random) + " " + words.any(random) + " <" + sender + "@example.com>\n";
    header += "To: Me Myself <me@example.net>\nCc: =?utf-8?Q?J=C3=B6rg?= <joerg@example.org>, al@example.org\n";
    header += "Subject: Re: " + words.any(random) + " " + words.any(random) + " " + words.any(random) + "\n";
    header += "Date: Mon, 15 Jan 2024 " + std::to_string(10 + number % 10) + ":" + std::to_string(10 + number % 50) +
              ":00 +0000\nMessage-ID: <" + n + "@example.com>\nMIME-Version: 1.0\n";
    if (number % 3 != 0) header += "In-Reply-To: <" + std::to_string(number - 1) + "@example.com>\n";
    std::string text = paragraphs(words, random, 500 + random() % 3000, "\n");
    // What mail_find looks for.
    if (number % 500 == 0) text += "the zebracrossing and the quincetree\n";
    const std::string plain = "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n" + text;
    if (file_size == 0 && number % 3 == 0) return header + plain;
    std::string forms = "Content-Type: multipart/alternative; boundary=\"=_forms\"\n\n--=_forms\n" + plain +
                        "--=_forms\nContent-Type: text/html; charset=utf-8\n"
                        "Content-Transfer-Encoding: quoted-printable\n\n<html><body><div style=3D\"color:black\">" +
                        paragraphs(words, random, text.size() * 2, "=\n") + "</div></body></html>\n--=_forms--\n";
    if (file_size == 0 && number % 10 != 1) return header + forms;
    return header + "Content-Type: multipart/mixed; boundary=\"=_all\"\n\n--=_all\n" + forms +
           "--=_all\nContent-Type: application/pdf; name=\"report.pdf\"\nContent-Transfer-Encoding: base64\n"
           "Content-Disposition: attachment; filename=\"report.pdf\"\n\n" +
           base64_lines(random, file_size > 0 ? file_size : 20000 + random() % 60000) + "--=_all--\n";
}

// ---- folders -------------------------------------------------------------------------------------------------------

// Maildirs, stores and databases of this run, removed at the end.
class Scratch {
public:
    Scratch() {
        std::string pattern = (fs::temp_directory_path() / "zrbench-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
        setenv("ZR_HOME", (path_ / "home").c_str(), 1);
    }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const fs::path& path() const { return path_; }

    const std::string& maildir(int count, std::size_t file_size = 0) {
        std::string& made = made_[file_size > 0 ? 2 : count > 10000 ? 1 : 0];
        if (!made.empty()) return made;
        made = (path_ / ("Maildir" + std::to_string(count) + "-" + std::to_string(file_size))).string();
        for (const char* part : {"cur", "new", "tmp"}) {
            fs::create_directories(fs::path(made) / part);
        }
        const Words words;
        std::mt19937 random(1);
        for (int i = 0; i < count; ++i) {
            std::ofstream(made + "/cur/17000" + std::to_string(10000 + i) + ".M" + std::to_string(i) + ".host:2,S",
                          std::ios::binary)
                << message(words, random, i, file_size);
        }
        return made;
    }

    void fresh_home() { fs::remove_all(path_ / "home"); }
    void fresh_notmuch(const std::string& maildir) {
        fs::remove_all(maildir + "/.notmuch");
        const std::string config = path_ / "notmuch-config";
        std::ofstream(config) << "[database]\npath=" << maildir
                              << "\n[user]\nname=Me\nprimary_email=me@example.net\n[new]\ntags=unread;inbox;\n";
        setenv("NOTMUCH_CONFIG", config.c_str(), 1);
    }

private:
    fs::path path_;
    std::string made_[3];
};

Scratch& scratch() {
    static Scratch instance;
    return instance;
}

// ---- processes -----------------------------------------------------------------------------------------------------

std::string tool() {
    return fs::read_symlink("/proc/self/exe").parent_path() / "zr";
}

bool run(std::vector<std::string> command, rusage* usage = nullptr) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (std::string& word : command) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int status = 1;
    rusage used = {};
    const bool done = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0 &&
                      wait4(pid, &status, 0, &used) == pid && status == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (usage != nullptr) *usage = used;
    return done;
}

double processor_ms(const rusage& usage) {
    const auto ms = [](const timeval& time) {
        return static_cast<double>(time.tv_sec * 1000) + static_cast<double>(time.tv_usec) / 1000;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

int count_of(benchmark::State& state) {
    return static_cast<int>(state.range(0));
}

void import_ours(benchmark::State& state, std::size_t file_size) {
    const std::string maildir = scratch().maildir(count_of(state), file_size);
    long peak = 0;
    for (auto _ : state) {
        state.PauseTiming();
        scratch().fresh_home();
        state.ResumeTiming();
        rusage usage = {};
        if (!run({tool(), "mail", "import", "--quiet", maildir}, &usage)) state.SkipWithError("zr failed");
        peak = std::max(peak, usage.ru_maxrss);
        state.counters["processor_ms"] = processor_ms(usage);
    }
    state.counters["peak_MiB"] = static_cast<double>(peak) / 1024;
}

void import_notmuch(benchmark::State& state, std::size_t file_size) {
    const std::string maildir = scratch().maildir(count_of(state), file_size);
    for (auto _ : state) {
        state.PauseTiming();
        scratch().fresh_notmuch(maildir);
        state.ResumeTiming();
        rusage usage = {};
        if (!run({"notmuch", "new", "--quiet"}, &usage)) state.SkipWithError("notmuch failed");
        state.counters["processor_ms"] = processor_ms(usage);
    }
    fs::remove_all(maildir + "/.notmuch");
}

void parse_gmime(benchmark::State& state, std::size_t file_size) {
    const std::string maildir = scratch().maildir(count_of(state), file_size);
    g_mime_init();
    for (auto _ : state) {
        std::int64_t count = 0;
        for (const auto& each : fs::directory_iterator(maildir + "/cur")) {
            const int fd = open(each.path().c_str(), O_RDONLY | O_CLOEXEC);
            GMimeStream* const stream = g_mime_stream_fs_new(fd);
            GMimeParser* const parser = g_mime_parser_new_with_stream(stream);
            GMimeMessage* const parsed = g_mime_parser_construct_message(parser, nullptr);
            if (parsed != nullptr && g_mime_message_get_subject(parsed) != nullptr) ++count;
            if (parsed != nullptr) g_object_unref(parsed);
            g_object_unref(parser);
            g_object_unref(stream);
        }
        if (count != state.range(0)) state.SkipWithError("messages are missing");
    }
}

void find_ours(benchmark::State& state) {
    static std::string filled;
    const std::string maildir = scratch().maildir(count_of(state));
    if (filled != maildir) {
        scratch().fresh_home();
        if (run({tool(), "mail", "import", "--quiet", maildir})) filled = maildir;
    }
    for (auto _ : state) {
        rusage usage = {};
        if (!run({tool(), "mail", "find", "zebracrossing", "quincetree"}, &usage)) state.SkipWithError("zr failed");
        state.counters["processor_ms"] = processor_ms(usage);
    }
}

void find_notmuch(benchmark::State& state) {
    static std::string filled;
    const std::string maildir = scratch().maildir(count_of(state));
    if (filled != maildir) {
        scratch().fresh_notmuch(maildir);
        if (run({"notmuch", "new", "--quiet"})) filled = maildir;
    }
    for (auto _ : state) {
        rusage usage = {};
        if (!run({"notmuch", "count", "zebracrossing", "quincetree"}, &usage)) state.SkipWithError("notmuch failed");
        state.counters["processor_ms"] = processor_ms(usage);
    }
}

void settle(benchmark::internal::Benchmark* benchmark, const char* name, int count) {
    benchmark->Name(name)->Arg(count)->Unit(benchmark::kMillisecond)->UseRealTime();
}

// The counter processor_ms is the last process's; the ratios are of the real times.
const bool registered = [] {
    constexpr std::size_t kLarge = std::size_t{200} << 10;
    const auto add = [](const std::string& name, int count, auto function) {
        settle(benchmark::RegisterBenchmark(name.c_str(), function), name.c_str(), count);
    };
    for (const std::size_t size : {std::size_t{0}, kLarge}) {
        if (size > 0 && getenv("ZR_BENCH_LARGE") == nullptr) continue;
        const std::string name = size > 0 ? "mail_import_large" : "mail_import";
        add(name + "/ours", 10000, [size](benchmark::State& state) { import_ours(state, size); });
        add(name + "/notmuch", 10000, [size](benchmark::State& state) { import_notmuch(state, size); });
        add(name + "/gmime", 10000, [size](benchmark::State& state) { parse_gmime(state, size); });
        add(name + "_memory/ours", 10000, [size](benchmark::State& state) { import_ours(state, size); });
    }
    for (const int count : {10000, 100000}) {
        add("mail_find/ours", count, find_ours);
        add("mail_find/notmuch", count, find_notmuch);
    }
    return true;
}();

}  // namespace
