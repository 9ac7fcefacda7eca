#pragma once

// A session of the contact store without notifications. Every function throws Failure when the store fails.

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>

#include <functional>
#include <string>
#include <vector>

#include "zr/base/failure.h"
#include "zr/stores/com_ptr.h"

namespace zr {

// What a failed call of the store means: the code to end with and one line for people.
Failure store_failure(HRESULT result, const std::string& doing);

void check(HRESULT result, const char* doing);
// Whether a failed call says that there is no such item.
bool is_missing(HRESULT result);
// Whether an item of a collection was deleted by another program before all of it was read that was asked for.
bool has_left(IUnknown* item);

// An item of several that the store did not take.
struct Refused {
    std::size_t index;
    std::string why;
};

// Open as long as the object. For one thread.
class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    IPOutlookApp* app() const { return app_.get(); }
    ComPtr<IPOutlookItemCollection> items(OlDefaultFolders folder);
    // The item of any folder with this identifier; empty when there is none.
    ComPtr<IDispatch> with_oid(LONG oid);
    // The first item of a folder behind the identifier `after` that has this lasting identifier, or has none where that
    // is empty; 0: there is none.
    LONG with_uid(OlDefaultFolders folder, const std::string& uid, LONG after = 0);
    // The first contact behind the number `after` that has this address, in any letter case; 0: there is none.
    LONG with_email(const std::string& address, LONG after = 0);
    // Keeps all that `saves` stores or nothing of it.
    void batch(const char* doing, const std::function<void()>& saves);
    // Calls `store_one` for each of `count` items and keeps them all at once; where the store refuses one for what it
    // is, each by itself. Returns those that are not in.
    std::vector<Refused> store_all(const char* doing, std::size_t count,
                                   const std::function<void(std::size_t)>& store_one);

private:
    ComPtr<IZrStore> store(const char* doing);

    ComPtr<IPOutlookApp> app_;
};

// What stands for the lasting identifier of an item that no program gave one: for as long as it is there it stays the
// same, and no other item ever has it.
std::string made_uid(IDispatch* item, LONG oid);
// The number in it; 0: it is none of these.
LONG number_in_made_uid(const std::string& uid);

// A text property of an item; empty when it has none.
std::string text_property(IDispatch* item, CEPROPID id);
void put_text_property(IDispatch* item, CEPROPID id, const std::string& text);

// Text that a call of the store handed over, which is given back.
std::string taken_text(BSTR text);

}  // namespace zr
