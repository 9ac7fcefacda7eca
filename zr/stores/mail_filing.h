#pragma once

// Messages put into the store as they came: their bytes, and what the bytes say as properties.

#include <set>
#include <string>

#include "zr/base/line_reader.h"
#include "zr/mail/maildir.h"
#include "zr/stores/mail.h"

namespace zr {

// A message to be filed, from wherever.
struct Arrival {
    std::function<ReadFunction()> open;  // reads it from its beginning, each time anew
    MailFlags flags;
    bool status_in_header = false;     // the flags stand in Status and X-Status
    std::string separator;             // the mbox line before it
    std::optional<std::int64_t> time;  // of its arrival, where the message does not say
};

enum class Filed { Stored, Known, NotAMessage };

// Files messages in batches. What is stored is kept once the batch is. For one thread.
class MailFiling {
public:
    static constexpr std::size_t kBatchMessages = 500;
    static constexpr std::uint64_t kBatchBytes = std::uint64_t{8} << 20;

    explicit MailFiling(MailSession& session) : session_(session) {}
    ~MailFiling();  // gives up what is not kept
    MailFiling(const MailFiling&) = delete;
    MailFiling& operator=(const MailFiling&) = delete;

    // Into the folder, which is one that was there before the batch. A message of the same identifier and the same
    // bytes that is anywhere in the store is Known. Throws Failure (Unreadable) when it cannot be read.
    Filed file(IMAPIFolder* folder, const Arrival& arrival);

    bool is_full() const { return waiting_ >= kBatchMessages || bytes_ >= kBatchBytes; }
    std::size_t waiting() const { return waiting_; }
    // Keeps what was filed; how many.
    long keep();

private:
    bool is_known(const std::string& message_id, const Arrival& arrival);

    MailSession& session_;
    bool open_ = false;
    std::size_t waiting_ = 0;
    std::uint64_t bytes_ = 0;
    std::set<std::string> identifiers_;  // of the batch
    long kept_ = 0;                      // of batches that ended within file()
};

}  // namespace zr
