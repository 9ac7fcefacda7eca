#pragma once

// Lists of rows whose fields have tabs between them. A terminal gets them in columns, with a line above that names
// these; everything else gets the rows as they are.

#include <string>
#include <string_view>
#include <vector>

namespace zr {

struct Column {
    enum class Kind {
        Whole,      // is never cut
        Reference,  // what commands take as an argument; not cut either
        Text,       // is cut where the terminal is too narrow
    };

    const char* title;
    Kind kind = Kind::Whole;
};

// Prints by print(). For one thread.
class Table {
public:
    explicit Table(std::vector<Column> columns);
    // What was added before something failed is printed all the same.
    ~Table();
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    // A row, with its line end. It may have fewer fields than there are columns.
    void add(std::string_view row);
    // Behind the last row.
    void finish();

private:
    // So many rows decide how wide the columns are; memory does not grow with the list.
    static constexpr std::size_t kMeasured = 500;
    using Fields = std::vector<std::string>;

    void settle();
    void fit(std::size_t room);
    void print_fields(const Fields& fields, bool title);

    std::vector<Column> columns_;
    std::vector<std::size_t> widths_;
    std::vector<Fields> waiting_;
    bool settled_ = false;
};

}  // namespace zr
