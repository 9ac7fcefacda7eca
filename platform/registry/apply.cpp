// Several changes as one.

#include "kernel/thread.h"
#include "key_handle.h"

namespace zr::platform::registry {
namespace {

bool is_valid(const ZrRegistryChange& change) {
    if (change.Step == ZrRegistryStep::SetValue && change.Data == nullptr && change.Size != 0) return false;
    return change.Step >= ZrRegistryStep::CreateKey && change.Step <= ZrRegistryStep::DeleteValue;
}

DWORD unless_missing(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error;
}

DWORD make(Transaction& transaction, const ZrRegistryChange& change) {
    const KeyArgument root(change.Root);
    if (!root) return ERROR_INVALID_HANDLE;
    if (!is_valid(change)) return ERROR_INVALID_PARAMETER;
    if (root.is_deleted()) return ERROR_KEY_DELETED;
    Place place = root.place();
    const bool makes = change.Step == ZrRegistryStep::CreateKey || change.Step == ZrRegistryStep::SetValue;
    bool created = false;
    const DWORD error =
        makes ? transaction.make(place, change.Path, {}, created) : transaction.walk(place, change.Path);
    if (error != ERROR_SUCCESS) return makes ? error : unless_missing(error);
    switch (change.Step) {
        case ZrRegistryStep::DeleteKey:
            return transaction.delete_tree(place);
        case ZrRegistryStep::SetValue:
            return transaction.set_value(place, value_name(change.Name), change.Type, change.Data, change.Size);
        case ZrRegistryStep::DeleteValue:
            return unless_missing(transaction.delete_value(place, value_name(change.Name)));
        default:
            return ERROR_SUCCESS;
    }
}

}  // namespace
}  // namespace zr::platform::registry

using namespace zr::platform;
using namespace zr::platform::registry;

LONG ZrRegistryApplyEach(ZrRegistryNextChange next, LPVOID context, DWORD* failed) {
    cancellation_point();
    if (next == nullptr) return result(ERROR_INVALID_PARAMETER);
    Store* const store = Store::instance();
    if (store == nullptr) return result(ERROR_NOT_ENOUGH_MEMORY);
    DWORD at = 0;
    const DWORD error = write_as_one(*store, false, [&](Transaction& transaction) -> DWORD {
        for (;; ++at) {
            ZrRegistryChange change = {};
            const int more = next(&change, context);
            if (more < 1) return more == 0 ? ERROR_SUCCESS : ERROR_CANCELLED;
            if (const DWORD failure = make(transaction, change); failure != ERROR_SUCCESS) return failure;
        }
    });
    if (error != ERROR_SUCCESS && failed != nullptr) *failed = at;
    return result(error);
}

LONG ZrRegistryApply(const ZrRegistryChange* changes, DWORD count, DWORD* failed) {
    if (changes == nullptr && count != 0) return result(ERROR_INVALID_PARAMETER);
    struct Rest {
        const ZrRegistryChange* at;
        const ZrRegistryChange* end;
    } rest = {changes, changes + count};
    const auto next = [](ZrRegistryChange* change, LPVOID context) {
        Rest& left = *static_cast<Rest*>(context);
        if (left.at == left.end) return 0;
        *change = *left.at++;
        return 1;
    };
    return ZrRegistryApplyEach(next, &rest, failed);
}
