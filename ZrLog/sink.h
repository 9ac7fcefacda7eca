#pragma once

// Hands records to the installed sink.

#include "ZrLog/ZrLog.h"

namespace zr::log {

void deliver_to_sink(const ZrLogRecord& record);

// Installs the sink and waits until no thread is inside the one before. One thread at a time.
void replace_sink(ZrLogSink sink, void* context);

// Called in the child of a fork, where the threads that were inside a sink do not exist.
void forget_sink_visitors();

}  // namespace zr::log
