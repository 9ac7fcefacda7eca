#pragma once

// The three standard streams of a program that may have been started without some of them.

namespace zr {

// Puts something in the place of every stream that is closed, so that no file takes its number: reading from it and
// writing to it fail as from and to a closed one. To be called before anything is opened. False when it cannot be done.
bool hold_standard_streams();

}  // namespace zr
