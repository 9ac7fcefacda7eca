// The engine by itself, from a cold start to the first page: reads HTML, writes a letter once it is shown, and draws it
// where a file is named.

#include <unistd.h>

#include <iostream>
#include <iterator>

#include "support/engine_alone.h"

int main(int argc, char** argv) {
    const std::string html{std::istreambuf_iterator<char>(std::cin), {}};
    zr::bench::EngineAlone engine;
    engine.show(html);
    if (write(STDOUT_FILENO, "x", 1) != 1) return 1;
    return argc < 2 || engine.draw(argv[1]) ? 0 : 1;
}
