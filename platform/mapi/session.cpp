#include "session.h"

namespace zr::platform::mapi {

Session::~Session() {
    if (holder_.load() != std::thread::id()) close_batch(BatchOutcome::Dropped);
    store_.leave();
}

void Session::end() {
    open_.store(false);
    if (has_batch()) close_batch(BatchOutcome::Dropped);
}

void Session::close_batch(BatchOutcome outcome) {
    batch_.rollback();
    mark_->store(outcome);
    mark_ = nullptr;
    holder_.store(std::thread::id());
}

HRESULT Session::begin_batch() {
    if (const HRESULT result = check_open(); FAILED(result)) return result;
    if (has_batch()) return fail(E_UNEXPECTED, "A batch is open already.");
    if (holder_.load() != std::thread::id())
        return fail(MAPI_E_BUSY, "Another thread of the session has a batch open.");
    auto mark = std::make_shared<std::atomic<BatchOutcome>>(BatchOutcome::Open);
    const HRESULT result = batch_.begin(store_);
    if (FAILED(result)) return result;
    mark_ = std::move(mark);
    holder_.store(std::this_thread::get_id());
    return S_OK;
}

HRESULT Session::commit_batch() {
    if (!has_batch()) return fail(E_UNEXPECTED, "No batch is open.");
    const HRESULT result = batch_.commit();
    close_batch(FAILED(result) ? BatchOutcome::Dropped : BatchOutcome::Kept);
    return result;
}

HRESULT Session::rollback_batch() {
    if (!has_batch()) return fail(E_UNEXPECTED, "No batch is open.");
    close_batch(BatchOutcome::Dropped);
    return S_OK;
}

}  // namespace zr::platform::mapi
