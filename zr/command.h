#pragma once

// The subcommands. Each adds itself to the command line; when it is the one that was given, it stores what to run.

#include <CLI/CLI.hpp>
#include <functional>

#include "exit_code.h"

namespace zr {

using Run = std::function<Exit()>;

void add_contacts_import(CLI::App& contacts, Run& run);
void add_contacts_export(CLI::App& contacts, Run& run);
void add_contacts_list(CLI::App& contacts, Run& run);
void add_contacts_find(CLI::App& contacts, Run& run);
void add_contacts_show(CLI::App& contacts, Run& run);
void add_contacts_add(CLI::App& contacts, Run& run);
void add_contacts_change(CLI::App& contacts, Run& run);
void add_contacts_remove(CLI::App& contacts, Run& run);
void add_resolve(CLI::App& zr, Run& run);
void add_log_show(CLI::App& log, Run& run);

}  // namespace zr
