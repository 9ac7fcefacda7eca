#pragma once

// A pager for what is longer than the terminal.

#include <sys/types.h>

#include <string>
#include <string_view>

namespace zr {

// Thrown by what prints when the pager has ended before the text: nobody wants the rest. Not a failure.
struct ReaderHasEnough {};

// What print() writes goes through here from page_output() on. One for the program, for one thread.
class Pager {
public:
    static Pager& instance();

    // Nobody is to page: --no-pager.
    void refuse() { refused_ = true; }
    // From now on: what is printed is held until it fills the screen, and then goes to a pager. Nothing happens where
    // standard output is no terminal or there is no pager.
    void begin();

    // Whether the pager has or holds the text, which needs not be printed then. Throws ReaderHasEnough.
    bool takes(std::string_view text);
    // Writes out what is held.
    void flush();
    // Behind the last text: waits until the reader has seen enough. How the pager ends is nobody's error.
    void end();

private:
    enum class State { Off, Holding, Running, Gone };

    void start();
    void write(std::string_view text);

    bool refused_ = false;
    State state_ = State::Off;
    std::string program_;
    std::string held_;
    std::size_t lines_ = 0;
    int pipe_ = -1;
    pid_t process_ = -1;
    void (*interrupted_before_)(int) = nullptr;
};

}  // namespace zr
