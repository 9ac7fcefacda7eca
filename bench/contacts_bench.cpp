// The contacts classes over the platform's contact store, beside prepared statements of SQLite on the same file.
//
//   FindContact_exact  who has this address, and the contact's eleven fields; the peer has an indexed table of
//                      addresses in a copy of the store
//   FindContact_scan   the same search through all contacts
//   build_index        Initialize and Uninitialize of the e-mail manager; the peer reads identifiers and addresses
//   linear_scan        a search that matches nobody; the peer reads the eleven fields of all contacts
//   walk_collection    every contact by its place, with its name; the peer reads identifiers and names
//   remove_first       an emptied folder, always removing the first; the peer deletes the rows from a copy of the
//   store's
//                      table, each in a transaction of its own, under the store's settings
//
// The store grows from measurement to measurement: smaller counts come first.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "ZrUtility/Helpers/OutlookManager.h"
#include "platform/pim.h"
#include "platform/stores.h"

namespace {

constexpr const char* kFields =
    "file_as, title, first_name, middle_name, last_name, suffix, company, email1, email2, email3, job_title";

[[noreturn]] void give_up(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

void require(HRESULT result, const char* what) {
    if (result < 0) give_up(std::string(what) + " failed");
}

std::u16string number_text(int number) {
    const std::string digits = std::to_string(number);
    return std::u16string(digits.begin(), digits.end());
}

std::u16string address_of(int contact, int which) {
    return u"user" + number_text(contact) + u"." + number_text(which) + u"@example.org";
}

int addresses_of(int contact) {
    return 1 + contact % 3;
}

// A home folder of this process's own, and its contacts: number i has the addresses address_of(i, 0) and on.
class World {
public:
    static World& get() {
        static World world;
        return world;
    }

    void grow(int count) {
        if (contacts_ >= count) return;
        IPOutlookItemCollection* items = collection();
        while (contacts_ < count) {
            require(store_->BeginBatch(), "BeginBatch");
            for (int i = 0; i < 1000 && contacts_ < count; ++i) {
                add(items, contacts_++);
            }
            require(store_->CommitBatch(), "CommitBatch");
        }
        items->Release();
    }
    void forget_contacts() { contacts_ = 0; }
    IPOutlookItemCollection* collection() {
        IFolder* folder = nullptr;
        IPOutlookItemCollection* items = nullptr;
        require(app_->GetDefaultFolder(olFolderContacts, &folder), "GetDefaultFolder");
        require(folder->get_Items(&items), "get_Items");
        folder->Release();
        return items;
    }
    std::filesystem::path file(const char* name) const { return home_ / name; }

private:
    World() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) give_up("no temporary folder");
        home_ = pattern;
        setenv("ZR_HOME", pattern.c_str(), 1);
        require(OutlookManager::Login(app_), "Login");
        void* object = nullptr;
        require(app_->QueryInterface(IID_IZrStore, &object), "IZrStore");
        store_ = static_cast<IZrStore*>(object);
    }
    ~World() {
        store_->Release();
        OutlookManager::Logout(app_);
        std::error_code ignored;
        std::filesystem::remove_all(home_, ignored);
    }

    static void add(IPOutlookItemCollection* items, int number) {
        IDispatch* item = nullptr;
        require(items->Add(&item), "Add");
        auto* contact = static_cast<IContact*>(item);
        std::u16string first = u"First" + number_text(number);
        std::u16string last = u"Last" + number_text(number * 7919 % 100003);
        std::u16string company = u"Company " + number_text(number % 500);
        std::u16string job = u"Engineer";
        contact->put_FirstName(first.data());
        contact->put_LastName(last.data());
        contact->put_CompanyName(company.data());
        contact->put_JobTitle(job.data());
        for (int i = 0; i < addresses_of(number); ++i) {
            std::u16string address = address_of(number, i);
            i == 0   ? contact->put_Email1Address(address.data())
            : i == 1 ? contact->put_Email2Address(address.data())
                     : contact->put_Email3Address(address.data());
        }
        require(contact->Save(), "Save");
        contact->Release();
    }

    std::filesystem::path home_;
    IPOutlookApp* app_ = nullptr;
    IZrStore* store_ = nullptr;
    int contacts_ = 0;
};

// ---- The peer ----

class Query {
public:
    Query(const std::string& file, const std::string& sql) {
        if (sqlite3_open_v2(file.c_str(), &database_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) give_up("open");
        if (sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement_, nullptr) != SQLITE_OK) {
            give_up(sqlite3_errmsg(database_));
        }
    }
    ~Query() {
        sqlite3_finalize(statement_);
        sqlite3_close(database_);
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    void bind(const std::u16string& text) {
        sqlite3_bind_text16(statement_, 1, text.data(), static_cast<int>(text.size() * 2), SQLITE_STATIC);
    }
    // Reads every column of every row; returns the rows.
    int run() {
        int rows = 0;
        const int columns = sqlite3_column_count(statement_);
        while (sqlite3_step(statement_) == SQLITE_ROW) {
            for (int i = 0; i < columns; ++i) {
                benchmark::DoNotOptimize(sqlite3_column_text16(statement_, i));
            }
            ++rows;
        }
        sqlite3_reset(statement_);
        return rows;
    }

private:
    sqlite3* database_ = nullptr;
    sqlite3_stmt* statement_ = nullptr;
};

void copy_store(const std::string& path) {
    if (ZrStoreBackUp("contacts", path.c_str()) != ERROR_SUCCESS) give_up(ZrStoreLastErrorText());
}

// The store as it is with so many contacts, for others to read: they cannot open it while ours have it open.
std::string plain_copy(int count) {
    std::string path = World::get().file(("plain" + std::to_string(count) + ".db").c_str()).string();
    if (!std::filesystem::exists(path)) copy_store(path);
    return path;
}

// A copy of the store with a table of addresses, ignoring case, as somebody would make it who looks addresses up.
std::string indexed_copy(int count) {
    std::string path = World::get().file(("indexed" + std::to_string(count) + ".db").c_str()).string();
    if (std::filesystem::exists(path)) return path;
    copy_store(path);
    sqlite3* database = nullptr;
    if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) give_up("open");
    const char* const make =
        "PRAGMA journal_mode = WAL;"
        "CREATE TABLE address(address TEXT COLLATE NOCASE, oid INTEGER);"
        "INSERT INTO address SELECT email1, oid FROM contact WHERE email1 <> '' UNION ALL"
        " SELECT email2, oid FROM contact WHERE email2 <> '' UNION ALL"
        " SELECT email3, oid FROM contact WHERE email3 <> '';"
        "CREATE INDEX by_address ON address(address);";
    if (sqlite3_exec(database, make, nullptr, nullptr, nullptr) != SQLITE_OK) give_up(sqlite3_errmsg(database));
    sqlite3_close(database);
    return path;
}

void remove_first_deletes(benchmark::State& state) {
    World::get().grow(static_cast<int>(state.range(0)));
    const std::filesystem::path path = World::get().file("deleted.db");
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(path);
        copy_store(path);
        sqlite3* database = nullptr;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) give_up("open");
        sqlite3_exec(database,
                     "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA wal_autocheckpoint = 4000",
                     nullptr, nullptr, nullptr);
        sqlite3_prepare_v2(database, "DELETE FROM contact WHERE oid = ?1", -1, &statement, nullptr);
        state.ResumeTiming();
        for (int i = 1; i <= state.range(0); ++i) {
            sqlite3_bind_int(statement, 1, i);
            if (sqlite3_step(statement) != SQLITE_DONE || sqlite3_changes(database) != 1) give_up("lost");
            sqlite3_reset(statement);
        }
        state.PauseTiming();
        sqlite3_finalize(statement);
        sqlite3_close(database);
        state.ResumeTiming();
    }
}

// ---- Ours ----

class Manager {
public:
    Manager() { require(manager_.Initialize(), "Initialize"); }
    ~Manager() { manager_.Uninitialize(0); }
    ContactsManagerEmail& operator*() { return manager_; }
    ContactsManagerEmail* operator->() { return &manager_; }

private:
    ContactsManagerEmail& manager_ = OutlookManager::S_ContactsManagerEmail;
};

void read_all_fields(Contact* contact) {
    using Get = LONG (Contact::*)(WCHAR*&);
    constexpr Get kGetters[] = {&Contact::get_FileAs,        &Contact::get_Title,         &Contact::get_FirstName,
                                &Contact::get_MiddleName,    &Contact::get_LastName,      &Contact::get_Suffix,
                                &Contact::get_CompanyName,   &Contact::get_Email1Address, &Contact::get_Email2Address,
                                &Contact::get_Email3Address, &Contact::get_JobTitle};
    for (const Get get : kGetters) {
        WCHAR* value = nullptr;
        (contact->*get)(value);
        benchmark::DoNotOptimize(value);
    }
}

int chosen_contact(std::mt19937& random, benchmark::State& state) {
    return static_cast<int>(random() % static_cast<unsigned>(state.range(0)));
}

void find_ours(benchmark::State& state, int mask) {
    World::get().grow(static_cast<int>(state.range(0)));
    Manager manager;
    std::mt19937 random(1);
    for (auto _ : state) {
        const int number = chosen_contact(random, state);
        std::u16string address = address_of(number, number % addresses_of(number));
        Contact* contact = nullptr;
        if (manager->FindContact(address.data(), mask, 1, 0, 0, contact) != ContactsManager::CM_ONE) give_up("lost");
        read_all_fields(contact);
        manager->ReleaseContact(contact);
    }
}

void find_exact_ours(benchmark::State& state) {
    find_ours(state, 896);
}

void find_scan_ours(benchmark::State& state) {
    find_ours(state, 0);
}

void find_exact_select(benchmark::State& state) {
    World::get().grow(static_cast<int>(state.range(0)));
    Query query(indexed_copy(static_cast<int>(state.range(0))),
                std::string("SELECT ") + kFields + " FROM address JOIN contact USING(oid) WHERE address = ?1");
    std::mt19937 random(1);
    for (auto _ : state) {
        const int number = chosen_contact(random, state);
        const std::u16string address = address_of(number, number % addresses_of(number));
        query.bind(address);
        if (query.run() != 1) give_up("lost");
    }
}

void build_index_ours(benchmark::State& state) {
    World::get().grow(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        Manager manager;
    }
}

void select_all(benchmark::State& state, const std::string& columns) {
    World::get().grow(static_cast<int>(state.range(0)));
    Query query(plain_copy(static_cast<int>(state.range(0))), "SELECT " + columns + " FROM contact ORDER BY oid");
    for (auto _ : state) {
        if (query.run() != state.range(0)) give_up("lost");
    }
}

void build_index_select(benchmark::State& state) {
    select_all(state, "oid, email1, email2, email3");
}

void linear_scan_ours(benchmark::State& state) {
    World::get().grow(static_cast<int>(state.range(0)));
    Manager manager;
    std::u16string nobody = u"no such text";
    for (auto _ : state) {
        Contact* contact = nullptr;
        if (manager->FindContact(nobody.data(), 0, 0, 0, 0, contact) != ContactsManager::CM_NONE) give_up("found");
    }
}

void linear_scan_select(benchmark::State& state) {
    select_all(state, kFields);
}

void walk_ours(benchmark::State& state) {
    World::get().grow(static_cast<int>(state.range(0)));
    Manager manager;
    for (auto _ : state) {
        int count = 0;
        manager->GetContactsCount(count);
        for (int i = 1; i <= count; ++i) {
            Contact* contact = nullptr;
            WCHAR* name = nullptr;
            require(manager->GetContact(i, contact), "GetContact");
            contact->get_FileAs(name);
            benchmark::DoNotOptimize(name);
            manager->ReleaseContact(contact);
        }
    }
}

void walk_select(benchmark::State& state) {
    select_all(state, "oid, file_as");
}

void remove_first_ours(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        World::get().grow(static_cast<int>(state.range(0)));
        IPOutlookItemCollection* items = World::get().collection();
        INT count = 0;
        items->get_Count(&count);
        state.ResumeTiming();
        for (int i = 0; i < state.range(0); ++i) {
            require(items->Remove(1), "Remove");
        }
        state.PauseTiming();
        items->Release();
        require(OutlookManager::WipeFolders(1, -1, nullptr), "WipeFolders");
        World::get().forget_contacts();
        state.ResumeTiming();
    }
}

// In this order: the store only grows, but for the removals, which leave it empty.
[[maybe_unused]] const bool registered = [] {
    const auto once = [](const char* name, auto function, int count) {
        benchmark::RegisterBenchmark(name, function)->Arg(count)->Iterations(1)->Unit(benchmark::kMillisecond);
    };
    const auto measure = [](const char* name, auto function, int count, benchmark::TimeUnit unit) {
        benchmark::RegisterBenchmark(name, function)->Arg(count)->Unit(unit);
    };
    for (const int count : {1000, 10000}) {
        once("remove_first/deletes", remove_first_deletes, count);
        once("remove_first/ours", remove_first_ours, count);
    }
    for (const int count : {1000, 10000, 100000}) {
        measure("walk_collection/ours", walk_ours, count, benchmark::kMillisecond);
        measure("walk_collection/select", walk_select, count, benchmark::kMillisecond);
        if (count < 10000) continue;
        measure("FindContact_exact/ours", find_exact_ours, count, benchmark::kMicrosecond);
        measure("FindContact_exact/select", find_exact_select, count, benchmark::kMicrosecond);
        measure("FindContact_scan/ours", find_scan_ours, count, benchmark::kMicrosecond);
        measure("FindContact_scan/indexed", find_exact_ours, count, benchmark::kMicrosecond);
        measure("build_index/ours", build_index_ours, count, benchmark::kMillisecond);
        measure("build_index/select", build_index_select, count, benchmark::kMillisecond);
        measure("linear_scan/ours", linear_scan_ours, count, benchmark::kMillisecond);
        measure("linear_scan/select", linear_scan_select, count, benchmark::kMillisecond);
    }
    once("remove_first/deletes", remove_first_deletes, 100000);
    once("remove_first/ours", remove_first_ours, 100000);
    return true;
}();

}  // namespace
