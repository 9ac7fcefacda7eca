// The message store beside SQLite: the same rows in a database of its own, with an index of the same order and the same
// settings.
//
//   mail_open_and_read   a message opened by its identifier, five properties read. `select`: one prepared SELECT of the
//                        five columns by key, copied
//   mail_read_again      the same five properties of a message that is open, with nothing changing
//   mail_walk            a contents table of 100,000 messages, five columns, in batches of 10. `select`: one SELECT
//   mail_walk_by_date    newest first. `select`: with ORDER BY, through an index
//   mail_move_one        one message into another folder. `sqlite`: one transaction that moves and logs it; neither
//                        waits for the disk, both outlive the process
//   mail_move_10000      in one call. `sqlite`: two statements for each of them, in one transaction

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/mapi.h"

namespace {

constexpr int kMessages = 100000;
constexpr int kMoved = 10000;

[[noreturn]] void give_up(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

void check(HRESULT result, const char* what) {
    if (FAILED(result)) give_up(what);
}

// A folder of this run's own.
const std::filesystem::path& folder() {
    static const std::filesystem::path made = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) give_up("no folder");
        setenv("ZR_HOME", (pattern + "/home").c_str(), 1);
        static std::string left = pattern;
        atexit([] { std::filesystem::remove_all(left); });
        return std::filesystem::path(pattern);
    }();
    return made;
}
const bool in_own_folder = !folder().empty();

std::u16string subject_of(int number) {
    const std::string digits = std::to_string(number);
    return u"Re: The meeting of the working group, number " + std::u16string(digits.begin(), digits.end());
}
constexpr const char16_t* kSender = u"Somebody Important";
constexpr const char16_t* kAddress = u"somebody.important@mail.example.org";
ULONGLONG date_of(int number) {
    return 0x01DB000000000000u + static_cast<ULONGLONG>(number) * 600000000u;
}

// ---- ours ----------------------------------------------------------------------------------------------------------

struct Ours {
    IMAPISession* session = nullptr;
    IMsgStore* store = nullptr;
    IMAPIFolder* inbox = nullptr;
    IMAPIFolder* other = nullptr;
    std::vector<BYTE> ids;  // one behind the other, as the peer's keys need no memory of their own
    ULONG id_size = 0;

    BYTE* id(std::size_t number) { return ids.data() + number * id_size; }

    static Ours& instance() {
        static Ours ours;
        return ours;
    }

private:
    Ours() {
        check(MAPIInitialize(nullptr), "initialising");
        check(MAPILogonEx(0, nullptr, nullptr, 0, &session), "logging on");
        check(session->OpenMsgStore(0, 0, nullptr, nullptr, MAPI_BEST_ACCESS, &store), "the store");
        inbox = open_folder(PR_CE_IPM_INBOX_ENTRYID);
        other = open_folder(PR_IPM_SENTMAIL_ENTRYID);
        fill();
    }

    IMAPIFolder* open_folder(ULONG role) {
        SPropTagArray tags = {1, {role}};
        ULONG count = 0;
        LPSPropValue values = nullptr;
        check(store->GetProps(&tags, MAPI_UNICODE, &count, &values), "the folder's identifier");
        IUnknown* found = nullptr;
        ULONG type = 0;
        check(session->OpenEntry(values[0].Value.bin.cb, reinterpret_cast<ENTRYID*>(values[0].Value.bin.lpb), nullptr,
                                 MAPI_MODIFY, &type, &found),
              "the folder");
        MAPIFreeBuffer(values);
        return static_cast<IMAPIFolder*>(found);
    }
    void fill() {
        IZrMail* extras = nullptr;
        check(session->QueryInterface(IID_IZrMail, reinterpret_cast<void**>(&extras)), "batches");
        for (int i = 0; i < kMessages;) {
            check(extras->BeginBatch(), "a batch");
            for (const int end = i + 5000; i < end; ++i) {
                add(i);
            }
            check(extras->CommitBatch(), "the batch");
        }
        extras->Release();
    }
    void add(int number) {
        IMessage* message = nullptr;
        check(inbox->CreateMessage(nullptr, 0, &message), "a message");
        const std::u16string subject = subject_of(number);
        SPropValue values[5] = {};
        values[0].ulPropTag = PR_SUBJECT_W;
        values[0].Value.lpszW = const_cast<LPWSTR>(subject.c_str());
        values[1].ulPropTag = PR_SENDER_NAME_W;
        values[1].Value.lpszW = const_cast<LPWSTR>(kSender);
        values[2].ulPropTag = PR_SENDER_EMAIL_ADDRESS_W;
        values[2].Value.lpszW = const_cast<LPWSTR>(kAddress);
        values[3].ulPropTag = PR_MESSAGE_DELIVERY_TIME;
        values[3].Value.ft = {static_cast<DWORD>(date_of(number)), static_cast<DWORD>(date_of(number) >> 32)};
        values[4].ulPropTag = PR_MESSAGE_FLAGS;
        check(message->SetProps(5, values, nullptr), "its properties");
        check(message->SaveChanges(0), "saving");
        SPropTagArray tags = {1, {PR_ENTRYID}};
        ULONG count = 0;
        LPSPropValue id = nullptr;
        check(message->GetProps(&tags, 0, &count, &id), "its identifier");
        id_size = id->Value.bin.cb;
        ids.insert(ids.end(), id->Value.bin.lpb, id->Value.bin.lpb + id_size);
        MAPIFreeBuffer(id);
        message->Release();
    }
};

struct FiveTags {
    ULONG cValues = 5;
    ULONG tags[5] = {PR_MESSAGE_CLASS_W, PR_SUBJECT_W, PR_SENDER_NAME_W, PR_SENDER_EMAIL_ADDRESS_W,
                     PR_MESSAGE_DELIVERY_TIME};
    operator LPSPropTagArray() { return reinterpret_cast<LPSPropTagArray>(this); }
};

IMessage* open_message(Ours& ours, std::size_t i) {
    IUnknown* message = nullptr;
    ULONG type = 0;
    check(ours.session->OpenEntry(ours.id_size, reinterpret_cast<ENTRYID*>(ours.id(i)), nullptr, 0, &type, &message),
          "opening");
    return static_cast<IMessage*>(message);
}

void read_five(IMessage* message) {
    static FiveTags tags;
    ULONG count = 0;
    LPSPropValue values = nullptr;
    check(message->GetProps(tags, MAPI_UNICODE, &count, &values), "reading");
    benchmark::DoNotOptimize(values);
    MAPIFreeBuffer(values);
}

void open_and_read(benchmark::State& state) {
    Ours& ours = Ours::instance();
    std::size_t i = 0;
    for (auto _ : state) {
        IMessage* const message = open_message(ours, i);
        read_five(message);
        message->Release();
        i = (i + 7919) % kMessages;
    }
}
BENCHMARK(open_and_read)->Name("mail_open_and_read/ours");

void read_again(benchmark::State& state) {
    IMessage* const message = open_message(Ours::instance(), 5000);
    for (auto _ : state) {
        read_five(message);
    }
    message->Release();
}
BENCHMARK(read_again)->Name("mail_read_again/ours");

void walk(benchmark::State& state, bool newest_first) {
    Ours& ours = Ours::instance();
    for (auto _ : state) {
        IMAPITable* table = nullptr;
        check(ours.inbox->GetContentsTable(0, &table), "the table");
        FiveTags tags;
        check(table->SetColumns(tags, 0), "columns");
        SSortOrderSet order = {1, 0, 0, {{PR_MESSAGE_DELIVERY_TIME, TABLE_SORT_DESCEND}}};
        if (newest_first) check(table->SortTable(&order, 0), "sorting");
        int seen = 0;
        for (ULONG count = 1; count != 0;) {
            LPSRowSet rows = nullptr;
            check(table->QueryRows(10, 0, &rows), "rows");
            count = rows->cRows;
            seen += static_cast<int>(count);
            FreeProws(rows);
        }
        if (seen < kMessages - 1) give_up("rows are missing");
        table->Release();
    }
}
BENCHMARK_CAPTURE(walk, plain, false)->Name("mail_walk/ours")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(walk, by_date, true)->Name("mail_walk_by_date/ours")->Unit(benchmark::kMillisecond);

void move(Ours& ours, std::vector<SBinary>& binaries, bool there) {
    ENTRYLIST list = {static_cast<ULONG>(binaries.size()), binaries.data()};
    IMAPIFolder* const from = there ? ours.inbox : ours.other;
    IMAPIFolder* const to = there ? ours.other : ours.inbox;
    if (from->CopyMessages(&list, nullptr, to, 0, nullptr, MESSAGE_MOVE) != S_OK) give_up("moving");
}

std::vector<SBinary> first_ids(Ours& ours, std::size_t count) {
    std::vector<SBinary> binaries;
    for (std::size_t i = 0; i < count; ++i) {
        binaries.push_back({ours.id_size, ours.id(i)});
    }
    return binaries;
}

void move_messages(benchmark::State& state, std::size_t count) {
    Ours& ours = Ours::instance();
    std::vector<SBinary> ids = first_ids(ours, count);
    bool there = true;
    for (auto _ : state) {
        move(ours, ids, there);
        there = !there;
    }
    if (!there) move(ours, ids, false);
}
BENCHMARK_CAPTURE(move_messages, one, 1)->Name("mail_move_one/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(move_messages, many, kMoved)->Name("mail_move_10000/ours")->Unit(benchmark::kMillisecond);

// ---- SQLite --------------------------------------------------------------------------------------------------------

class Database {
public:
    static Database& instance() {
        static Database database;
        return database;
    }
    void run(const char* sql) {
        if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) give_up(sqlite3_errmsg(database_));
    }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr) != SQLITE_OK)
            give_up(sqlite3_errmsg(database_));
        return statement;
    }

private:
    Database() {
        if (sqlite3_open((folder() / "peer.db").c_str(), &database_) != SQLITE_OK) give_up("the peer's database");
        run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -8192;"
            "PRAGMA wal_autocheckpoint = 4000;"
            "CREATE TABLE message(id INTEGER PRIMARY KEY, folder INTEGER, delivered INTEGER, class BLOB, subject BLOB,"
            " sender_name BLOB, sender_address BLOB);"
            "CREATE INDEX by_date ON message(folder, delivered);"
            "CREATE TABLE change(seq INTEGER PRIMARY KEY, kind INTEGER, id INTEGER, folder INTEGER, old INTEGER);"
            "BEGIN;");
        sqlite3_stmt* const insert = prepare("INSERT INTO message VALUES(?, 1, ?, ?, ?, ?, ?)");
        for (int i = 0; i < kMessages; ++i) {
            const std::u16string subject = subject_of(i);
            sqlite3_bind_int(insert, 1, i + 1);
            sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(date_of(i)));
            bind(insert, 3, u"IPM.Note");
            bind(insert, 4, subject);
            bind(insert, 5, kSender);
            bind(insert, 6, kAddress);
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        run("COMMIT; PRAGMA wal_checkpoint(TRUNCATE);");
    }
    static void bind(sqlite3_stmt* statement, int index, const std::u16string& text) {
        sqlite3_bind_blob(statement, index, text.data(), static_cast<int>(text.size() * 2), SQLITE_TRANSIENT);
    }
    sqlite3* database_ = nullptr;
};

// What a program does with a row: copies it.
void take(sqlite3_stmt* statement) {
    static char copy[1024];
    std::size_t at = 0;
    for (int column = 0; column < 4; ++column) {
        const void* const data = sqlite3_column_blob(statement, column);
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
        std::memcpy(copy + at, data, size);
        at += size;
    }
    benchmark::DoNotOptimize(sqlite3_column_int64(statement, 4));
    benchmark::DoNotOptimize(copy);
}

void select_one(benchmark::State& state, int stride) {
    sqlite3_stmt* const statement = Database::instance().prepare(
        "SELECT class, subject, sender_name, sender_address, delivered FROM message WHERE id = ?");
    int i = 0;
    for (auto _ : state) {
        sqlite3_bind_int(statement, 1, i + 1);
        if (sqlite3_step(statement) != SQLITE_ROW) give_up("no row");
        take(statement);
        sqlite3_reset(statement);
        i = (i + stride) % kMessages;
    }
    sqlite3_finalize(statement);
}
BENCHMARK_CAPTURE(select_one, any, 7919)->Name("mail_open_and_read/select");
BENCHMARK_CAPTURE(select_one, again, 0)->Name("mail_read_again/select");

void select_all(benchmark::State& state, const char* sql) {
    for (auto _ : state) {
        sqlite3_stmt* const statement = Database::instance().prepare(sql);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            take(statement);
        }
        sqlite3_finalize(statement);
    }
}
BENCHMARK_CAPTURE(select_all, plain,
                  "SELECT class, subject, sender_name, sender_address, delivered FROM message WHERE folder = 1")
    ->Name("mail_walk/select")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(select_all, by_date,
                  "SELECT class, subject, sender_name, sender_address, delivered FROM message WHERE folder = 1"
                  " ORDER BY delivered DESC")
    ->Name("mail_walk_by_date/select")
    ->Unit(benchmark::kMillisecond);

void update(benchmark::State& state, int count) {
    Database& database = Database::instance();
    sqlite3_stmt* const moving = database.prepare("UPDATE message SET folder = ? WHERE id = ? AND folder = ?");
    sqlite3_stmt* const logging = database.prepare("INSERT INTO change(kind, id, folder, old) VALUES(4, ?, ?, ?)");
    int to = 2;
    for (auto _ : state) {
        database.run("BEGIN IMMEDIATE");
        for (int i = 1; i <= count; ++i) {
            sqlite3_bind_int(moving, 1, to);
            sqlite3_bind_int(moving, 2, i);
            sqlite3_bind_int(moving, 3, 3 - to);
            sqlite3_step(moving);
            sqlite3_reset(moving);
            sqlite3_bind_int(logging, 1, i);
            sqlite3_bind_int(logging, 2, to);
            sqlite3_bind_int(logging, 3, 3 - to);
            sqlite3_step(logging);
            sqlite3_reset(logging);
        }
        database.run("COMMIT");
        to = 3 - to;
    }
    database.run("UPDATE message SET folder = 1");
    sqlite3_finalize(moving);
    sqlite3_finalize(logging);
}
BENCHMARK_CAPTURE(update, one, 1)->Name("mail_move_one/sqlite")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(update, many, kMoved)->Name("mail_move_10000/sqlite")->Unit(benchmark::kMillisecond);

}  // namespace
