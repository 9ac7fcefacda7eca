#include "session.h"

#include "application.h"
#include "notifier.h"

namespace zr::platform::pim {

Session::Session(Application& app, std::shared_ptr<Store> store) : app_(app), store_(std::move(store)) {
    app_.hold();
}

Session::~Session() {
    app_.unhold();
}

HRESULT Session::start(HWND window) {
    if (window != nullptr) {
        const HRESULT result = store_->notifier().add_window(this, window);
        if (FAILED(result)) return result;
        has_window_ = true;
    }
    store_->notifier().session_began();
    return S_OK;
}

void Session::end() {
    if (!open_.exchange(false)) return;
    rollback_batch();
    if (has_window_) store_->notifier().remove_window(this);
    store_->notifier().session_ended();
}

HRESULT Session::begin_batch() {
    const InCall in_call;
    const std::lock_guard lock(batch_mutex_);
    if (batch_mark_) return fail(E_UNEXPECTED, "A batch is open already.");
    BatchMark mark = std::make_shared<std::atomic<BatchOutcome>>(BatchOutcome::Open);
    const HRESULT result = batch_.begin(*store_);
    if (SUCCEEDED(result)) batch_mark_ = std::move(mark);
    return result;
}

void Session::close_batch(BatchOutcome outcome) {
    batch_mark_->store(outcome);
    batch_mark_.reset();
}

HRESULT Session::commit_batch() {
    const InCall in_call;
    const std::lock_guard lock(batch_mutex_);
    if (!batch_mark_) return fail(E_UNEXPECTED, "No batch is open.");
    const HRESULT result = batch_.commit();
    close_batch(SUCCEEDED(result) ? BatchOutcome::Kept : BatchOutcome::Dropped);
    return result;
}

HRESULT Session::rollback_batch() {
    const InCall in_call;
    const std::lock_guard lock(batch_mutex_);
    if (!batch_mark_) return fail(E_UNEXPECTED, "No batch is open.");
    batch_.rollback();
    close_batch(BatchOutcome::Dropped);
    return S_OK;
}

}  // namespace zr::platform::pim
