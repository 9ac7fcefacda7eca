#include "zr/base/table.h"

#include <algorithm>
#include <utility>

#include "zr/base/output.h"
#include "zr/base/terminal.h"

namespace zr {
namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kNarrowest = 8;

std::vector<std::string> fields_of(std::string_view row) {
    if (row.ends_with('\n')) row.remove_suffix(1);
    std::vector<std::string> fields;
    for (std::size_t end = 0; (end = row.find('\t')) != row.npos; row.remove_prefix(end + 1)) {
        fields.emplace_back(row.substr(0, end));
    }
    fields.emplace_back(row);
    return fields;
}

}  // namespace

Table::Table(std::vector<Column> columns) : columns_(std::move(columns)), widths_(columns_.size()) {}

Table::~Table() {
    try {
        finish();
    } catch (...) {  // Another failure is told already.
    }
}

void Table::add(std::string_view row) {
    if (!is_at_terminal()) return print(row);
    Fields fields = fields_of(row);
    // What has no column of its own belongs to the last one.
    while (fields.size() > columns_.size()) {
        const std::string last = std::move(fields.back());
        fields.pop_back();
        fields.back() += " " + last;
    }
    if (settled_) return print_fields(fields, false);
    waiting_.push_back(std::move(fields));
    if (waiting_.size() == kMeasured) settle();
}

void Table::finish() {
    if (is_at_terminal() && !settled_ && !waiting_.empty()) settle();
}

void Table::settle() {
    settled_ = true;
    for (const Fields& fields : waiting_) {
        for (std::size_t i = 0; i < fields.size(); ++i) {
            widths_[i] = std::max(widths_[i], cells_of(fields[i]));
        }
    }
    Fields titles;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        // Columns in which nothing stands are left out.
        if (widths_[i] > 0) widths_[i] = std::max(widths_[i], cells_of(columns_[i].title));
        titles.emplace_back(columns_[i].title);
    }
    fit(terminal_size().columns);
    print_fields(titles, true);
    for (const Fields& fields : std::exchange(waiting_, {})) {
        print_fields(fields, false);
    }
}

// Makes the widest columns of text narrower, as long as that helps.
void Table::fit(std::size_t room) {
    const auto whole = [&] {
        std::size_t cells = 0;
        for (const std::size_t width : widths_) {
            cells += width > 0 ? width + kGap : 0;
        }
        return cells - std::min(cells, kGap);
    };
    for (std::size_t cells = whole(); cells > room; --cells) {
        std::size_t widest = columns_.size();
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            if (columns_[i].kind != Column::Kind::Text || widths_[i] <= kNarrowest) continue;
            if (widest == columns_.size() || widths_[i] > widths_[widest]) widest = i;
        }
        if (widest == columns_.size()) return;
        --widths_[widest];
    }
}

void Table::print_fields(const Fields& fields, bool title) {
    std::string line;
    std::size_t blanks = 0;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const Column::Kind kind = columns_[i].kind;
        // A column in which nothing stood so far is too late for a place of its own.
        if (widths_[i] == 0 && (title || fields[i].empty())) continue;
        const bool cut = kind == Column::Kind::Text && widths_[i] > 0;
        const std::string text = cut ? cut_to_cells(fields[i], widths_[i]) : fields[i];
        line += std::string(blanks, ' ');
        line += title ? strong(text) : kind == Column::Kind::Reference ? as_reference(text) : text;
        const std::size_t cells = cells_of(text);
        blanks = kGap + (widths_[i] > cells ? widths_[i] - cells : 0);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    print(line + "\n");
}

}  // namespace zr
