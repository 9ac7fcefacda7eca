#pragma once

// What the commands of zr reg have alike.

#include "zr/commands/command.h"

namespace zr {

// Runs what a command does, and then tells of a store that was found damaged and set aside.
void runs_with_registry(Command command, Run run);
// The same for what changes nothing.
void reads_registry(Command command, Run run);

}  // namespace zr
