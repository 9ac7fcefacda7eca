#include "support/log_capture.h"

namespace zr::test {

LogCapture::LogCapture() {
    zrLogSetSink(sink, this);
}

LogCapture::~LogCapture() {
    zrLogSetSink(nullptr, nullptr);
}

std::vector<LoggedRecord> LogCapture::records() const {
    const std::lock_guard lock(mutex_);
    return records_;
}

int LogCapture::count(std::uint32_t category) const {
    const std::lock_guard lock(mutex_);
    int n = 0;
    for (const LoggedRecord& record : records_) {
        n += record.category == category;
    }
    return n;
}

void LogCapture::sink(const ZrLogRecord& record, void* context) {
    auto* self = static_cast<LogCapture*>(context);
    LoggedRecord copy{record.source, record.line, record.category, {}, {}};
    copy.arguments.assign(record.arguments, record.arguments + record.argumentCount);
    if (record.data) copy.data.assign(static_cast<const char*>(record.data), record.size);
    const std::lock_guard lock(self->mutex_);
    self->records_.push_back(std::move(copy));
}

}  // namespace zr::test
