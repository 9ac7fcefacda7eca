#pragma once

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"
