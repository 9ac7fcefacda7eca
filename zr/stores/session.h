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
    // Keeps all that `saves` stores or nothing of it.
    void batch(const char* doing, const std::function<void()>& saves);
    // Calls `store_one` for each of `count` items and keeps them all at once; where the store refuses one for what it
    // is, each by itself. Returns those that are not in.
    std::vector<Refused> store_all(const char* doing, std::size_t count,
                                   const std::function<void(std::size_t)>& store_one);

private:
    ComPtr<IPOutlookApp> app_;
};

// A text property of an item; empty when it has none.
std::string text_property(IDispatch* item, CEPROPID id);
void put_text_property(IDispatch* item, CEPROPID id, const std::string& text);

// Text that a call of the store handed over, which is given back.
std::string taken_text(BSTR text);

}  // namespace zr
