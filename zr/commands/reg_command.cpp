#include "zr/commands/reg_command.h"

#include <utility>

#include "zr/base/failure.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

Run telling(Run run) {
    return [run = std::move(run)] {
        try {
            const Exit code = run();
            tell_what_was_set_aside();
            return code;
        } catch (const Failure&) {
            tell_what_was_set_aside();
            throw;
        }
    };
}

}  // namespace

void runs_with_registry(Command command, Run run) {
    command.runs(telling(std::move(run)));
}

void reads_registry(Command command, Run run) {
    command.reads(telling(std::move(run)));
}

}  // namespace zr
