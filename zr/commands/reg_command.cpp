#include "zr/commands/reg_command.h"

#include <utility>

#include "zr/base/failure.h"
#include "zr/stores/registry.h"

namespace zr {

void runs_with_registry(Command command, Run run) {
    command.runs([run = std::move(run)] {
        try {
            const Exit code = run();
            tell_what_was_set_aside();
            return code;
        } catch (const Failure&) {
            tell_what_was_set_aside();
            throw;
        }
    });
}

}  // namespace zr
