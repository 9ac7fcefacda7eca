#pragma once

// What is printed for a person at a terminal, and not for a program that reads along. What standard output is at the
// first question holds for the whole program.

#include <string>
#include <string_view>

namespace zr {

bool is_at_terminal();

struct TerminalSize {
    std::size_t columns = 80;
    std::size_t rows = 24;
};
TerminalSize terminal_size();

// Whether it is a terminal that shows more than plain text; NO_COLOR and TERM=dumb say no.
bool shows_colour();
// The text emphasised there, or as something to refer to, such as an identifier; else as it is.
std::string strong(std::string_view text);
std::string as_reference(std::string_view text);

// How many cells of a terminal the text takes: two for each wide character, none for a combining one.
std::size_t cells_of(std::string_view text);
// As much of the text as has room in so many cells, from one on, with a mark at its end where something is cut off.
std::string cut_to_cells(std::string_view text, std::size_t cells);

}  // namespace zr
