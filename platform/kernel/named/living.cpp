#include "kernel/living.h"

#include "named/session.h"

namespace zr::platform {

using named::Session;

bool mark_of_process(ProcessMark& mark) noexcept {
    Session* const session = Session::begin();
    if (!session) return false;
    mark = {session->region().number(), session->birth()};
    return true;
}

bool process_lives(const ProcessMark& mark) noexcept {
    Session* const session = Session::begin();
    if (!session) return true;
    return mark.region == session->region().number() && session->region().lives_by_birth(mark.birth);
}

}  // namespace zr::platform
