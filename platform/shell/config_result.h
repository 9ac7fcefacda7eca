#pragma once

// The document that says what came of a provisioning document.

#include <string>

#include "config_plan.h"

namespace zr::platform {

enum class ConfigAnswer {
    Done,      // the answers to what was asked
    Examined,  // those, and each parm with its datatype
    Failed,    // all of it, with what was at fault marked
};

// May throw std::bad_alloc.
std::u16string config_result(const ConfigDocument& document, const ConfigPlan& plan, ConfigAnswer answer);

}  // namespace zr::platform
