// Single values of the registry, beside SQLite on the same database and beside GSettings.
//
//   RegistryGetDWORD, RegistryGetString  a value of a key below three others, with nothing changing. `select`: one
//                                        prepared SELECT of the value by its key's number and its name; `gsettings`:
//                                        the same value by g_settings_get over a dconf database
//   RegistrySetDWORD                     a value, on the disk when the call returns. `sqlite`: one durable transaction
//                                        that replaces such a row in a database of its own, in the same folder
//   RegistryMoveKey                      ten sub-keys of a thousand values each, copied key by key, and the first key
//                                        deleted. `sqlite`: copying the rows and deleting the first ones by two
//                                        statements in one durable transaction

#define G_SETTINGS_ENABLE_BACKEND
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "ZrUtility/Helpers/RegistryAccessor.h"
#include "platform/stores.h"

namespace {

constexpr const WCHAR* kPath = u"Software\\Example\\Mail";

[[noreturn]] void give_up(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

// A folder of this run's own: home of the registry, and of what the peers keep.
const std::filesystem::path& folder() {
    static const std::filesystem::path made = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) give_up("no folder");
        setenv("ZR_HOME", (pattern + "/home").c_str(), 1);
        setenv("XDG_RUNTIME_DIR", pattern.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (pattern + "/config").c_str(), 1);
        setenv("GSETTINGS_SCHEMA_DIR", pattern.c_str(), 1);
        setenv("GSETTINGS_BACKEND", "dconf", 1);
        static std::string left = pattern;
        atexit([] { std::filesystem::remove_all(left); });
        return std::filesystem::path(pattern);
    }();
    return made;
}
const bool in_own_folder = !folder().empty();

void fill() {
    static const bool done = [] {
        WCHAR text[] = u"imap.example.org";
        RegistryAccessor::RegistrySetDWORD(HKEY_CURRENT_USER, kPath, u"Port", 993);
        return RegistryAccessor::RegistrySetString(HKEY_CURRENT_USER, kPath, u"Server", text, sizeof text) == 1;
    }();
    if (!done) give_up("the registry cannot be written");
}

// ---- SQLite --------------------------------------------------------------------------------------------------------

class Database {
public:
    // A store that is open is read through the stores' layer: others are kept out.
    explicit Database(const std::filesystem::path& file, const char* layer = nullptr) {
        constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
        if (sqlite3_open_v2(file.c_str(), &database_, kFlags, layer) != SQLITE_OK)
            give_up("cannot open " + file.string());
        run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;");
    }
    ~Database() { sqlite3_close(database_); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void run(const std::string& sql) {
        if (sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) give_up(text());
    }
    sqlite3_stmt* prepare(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) give_up(text());
        return statement;
    }
    sqlite3_int64 number(const std::string& sql) {
        sqlite3_stmt* const statement = prepare(sql);
        const sqlite3_int64 found = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : -1;
        sqlite3_finalize(statement);
        return found;
    }

private:
    std::string text() const { return sqlite3_errmsg(database_); }
    sqlite3* database_ = nullptr;
};

// One prepared SELECT of a value, with the key's number known.
void select(benchmark::State& state, const std::u16string& folded) {
    fill();
    Database database(folder() / "home" / "registry.db", ZrStoreLayer());
    const sqlite3_int64 key = database.number("SELECT key FROM value LIMIT 1");
    sqlite3_stmt* const statement = database.prepare("SELECT type, data FROM value WHERE key = ? AND folded = ?");
    char copy[64];
    for (auto _ : state) {
        sqlite3_bind_int64(statement, 1, key);
        sqlite3_bind_blob(statement, 2, folded.data(), static_cast<int>(folded.size() * 2), SQLITE_STATIC);
        if (sqlite3_step(statement) != SQLITE_ROW) give_up("no row");
        benchmark::DoNotOptimize(sqlite3_column_int(statement, 0));
        const void* const data = sqlite3_column_blob(statement, 1);
        __builtin_memcpy(copy, data, static_cast<std::size_t>(sqlite3_column_bytes(statement, 1)));
        benchmark::DoNotOptimize(copy);
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
}

// ---- GSettings -----------------------------------------------------------------------------------------------------

void write(const std::filesystem::path& file, const char* text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

GSettings* settings() {
    static GSettings* const made = [] {
        write(folder() / "org.example.mail.gschema.xml",
              "<schemalist><schema id='org.example.mail' path='/software/example/mail/'>"
              "<key name='port' type='u'><default>143</default></key>"
              "<key name='server' type='s'><default>''</default></key></schema></schemalist>");
        write(folder() / "keys" / "mail", "[software/example/mail]\nport=uint32 993\nserver='imap.example.org'\n");
        std::filesystem::create_directories(folder() / "config" / "dconf");
        const std::string in = " '" + folder().string();
        if (system(("glib-compile-schemas" + in + "' && dconf compile" + in + "/config/dconf/user'" + in + "/keys'")
                       .c_str()))
            give_up("glib-compile-schemas and dconf (Debian: libglib2.0-bin, dconf-cli) are needed");
        GSettings* const opened = g_settings_new("org.example.mail");
        if (g_settings_get_uint(opened, "port") != 993) give_up("GSettings does not read the dconf database");
        return opened;
    }();
    return made;
}

// ---- reading -------------------------------------------------------------------------------------------------------

void get_dword(benchmark::State& state) {
    fill();
    for (auto _ : state) {
        benchmark::DoNotOptimize(RegistryAccessor::RegistryGetDWORD(HKEY_CURRENT_USER, kPath, u"Port", 0));
    }
    if (RegistryAccessor::RegistryGetDWORD(HKEY_CURRENT_USER, kPath, u"Port", 0) != 993) give_up("wrong number");
}
BENCHMARK(get_dword)->Name("RegistryGetDWORD/ours");
BENCHMARK_CAPTURE(select, dword, u"port")->Name("RegistryGetDWORD/select");
void get_dword_gsettings(benchmark::State& state) {
    GSettings* const open = settings();
    for (auto _ : state) {
        benchmark::DoNotOptimize(g_settings_get_uint(open, "port"));
    }
}
BENCHMARK(get_dword_gsettings)->Name("RegistryGetDWORD/gsettings");

void get_string(benchmark::State& state) {
    fill();
    WCHAR text[64];
    for (auto _ : state) {
        const auto characters =
            RegistryAccessor::RegistryGetString(HKEY_CURRENT_USER, kPath, u"Server", text, 64, nullptr);
        if (characters != 17) give_up("wrong text");
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(get_string)->Name("RegistryGetString/ours");
BENCHMARK_CAPTURE(select, string, u"server")->Name("RegistryGetString/select");
void get_string_gsettings(benchmark::State& state) {
    GSettings* const open = settings();
    for (auto _ : state) {
        gchar* const text = g_settings_get_string(open, "server");
        benchmark::DoNotOptimize(text);
        g_free(text);
    }
}
BENCHMARK(get_string_gsettings)->Name("RegistryGetString/gsettings");

// ---- writing -------------------------------------------------------------------------------------------------------

void set_dword(benchmark::State& state) {
    fill();
    ULONG number = 0;
    for (auto _ : state) {
        RegistryAccessor::RegistrySetDWORD(HKEY_CURRENT_USER, kPath, u"Count", ++number);
    }
    if (RegistryAccessor::RegistryGetDWORD(HKEY_CURRENT_USER, kPath, u"Count", 0) != number) give_up("not written");
}
BENCHMARK(set_dword)->Name("RegistrySetDWORD/ours")->UseRealTime();

void set_dword_sqlite(benchmark::State& state) {
    Database database(folder() / "peer.db");
    database.run(
        "CREATE TABLE IF NOT EXISTS value(key INTEGER, name TEXT, type INTEGER, data BLOB,"
        " PRIMARY KEY(key, name)) WITHOUT ROWID");
    sqlite3_stmt* const statement = database.prepare("REPLACE INTO value VALUES(7, 'count', 4, ?)");
    ULONG number = 0;
    for (auto _ : state) {
        ++number;
        sqlite3_bind_blob(statement, 1, &number, sizeof number, SQLITE_TRANSIENT);
        if (sqlite3_step(statement) != SQLITE_DONE) give_up("not written");
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
}
BENCHMARK(set_dword_sqlite)->Name("RegistrySetDWORD/sqlite")->UseRealTime();

// ---- moving --------------------------------------------------------------------------------------------------------

constexpr int kSubKeys = 10;
constexpr int kValues = 1000;

std::u16string number_text(int number) {
    const std::string digits = std::to_string(number);
    return std::u16string(digits.begin(), digits.end());
}

void fill_key(const WCHAR* path) {
    HKEY root = nullptr;
    RegCreateKeyExW(HKEY_CURRENT_USER, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &root, nullptr);
    for (int key = 0; key < kSubKeys; ++key) {
        HKEY below = nullptr;
        RegCreateKeyExW(root, number_text(key).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &below, nullptr);
        for (int value = 0; value < kValues; ++value) {
            RegSetValueExW(below, number_text(value).c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), 4);
        }
        RegCloseKey(below);
    }
    RegCloseKey(root);
}

void move_key(benchmark::State& state) {
    fill();
    fill_key(u"from");
    const WCHAR* from = u"from";
    const WCHAR* to = u"to";
    for (auto _ : state) {
        if (RegistryAccessor::RegistryMoveKey(HKEY_CURRENT_USER, from, to) != 0) give_up("not moved");
        std::swap(from, to);
    }
    if (!RegistryAccessor::RegistryKeyValueExists(HKEY_CURRENT_USER, (std::u16string(from) + u"\\9").c_str(), u"999"))
        give_up("lost");
}
BENCHMARK(move_key)->Name("RegistryMoveKey/ours/10000")->UseRealTime()->Unit(benchmark::kMillisecond);

void move_key_sqlite(benchmark::State& state) {
    Database database(folder() / "move.db");
    database.run(
        "CREATE TABLE IF NOT EXISTS value(key INTEGER, name TEXT, type INTEGER, data BLOB,"
        " PRIMARY KEY(key, name)) WITHOUT ROWID; DELETE FROM value;"
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 9999)"
        " INSERT INTO value SELECT i / 1000, i % 1000, 4, X'00000000' FROM n");
    int base = 0;
    for (auto _ : state) {
        const std::string below =
            " FROM value WHERE key >= " + std::to_string(base) + " AND key < " + std::to_string(base + kSubKeys);
        std::string move = "BEGIN IMMEDIATE; INSERT INTO value SELECT key + 10, name, type, data";
        database.run(move.append(below).append("; DELETE").append(below).append("; COMMIT"));
        base += kSubKeys;
    }
    if (database.number("SELECT count(*) FROM value") != kSubKeys * kValues) give_up("lost");
}
BENCHMARK(move_key_sqlite)->Name("RegistryMoveKey/sqlite/10000")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
