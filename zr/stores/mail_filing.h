#pragma once

// Messages put into the store as they came: their bytes, and what the bytes say as properties.

#include <deque>
#include <set>
#include <string>

#include "zr/base/line_reader.h"
#include "zr/mail/maildir.h"
#include "zr/stores/mail_batches.h"

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

// Files messages, and keeps them in batches while the next ones are read (mail_batches.h). For one thread.
class MailFiling {
public:
    // `session`: for looking up what is there.
    explicit MailFiling(MailSession& session) : session_(session), batches_(writing_) {}
    MailFiling(const MailFiling&) = delete;
    MailFiling& operator=(const MailFiling&) = delete;

    // The folder that messages go into from here on. Who makes one keeps what was filed before: else it has to wait.
    void into(const EntryBytes& folder);
    // A message of the same identifier and the same bytes that is anywhere in the store is Known. Throws Failure
    // (Unreadable) when it cannot be read; or because keeping an earlier one failed, and nothing more is kept.
    Filed file(const Arrival& arrival);

    // Returns when everything that was filed is kept; throws when that failed.
    void keep();
    // How many were kept since this was asked last; how many were filed that it has not told of.
    long newly_kept();
    std::size_t waiting() const { return static_cast<std::size_t>(batches_.added() - told_); }

private:
    bool is_known(const std::string& message_id, const Arrival& arrival);
    void forget_kept();

    MailSession& session_;
    MailSession writing_;
    ComPtr<IMAPIFolder> folder_;
    long told_ = 0;
    // The identifiers of what may not be kept yet, in the order of filing.
    std::deque<std::string> order_;
    std::multiset<std::string> identifiers_;
    long forgotten_ = 0;
    MailBatches batches_;  // last: it ends first
};

}  // namespace zr
