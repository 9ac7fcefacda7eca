#pragma once

// Everything that the platform offers.

#include "platform/base.h"
#include "platform/com.h"
#include "platform/diagnostics.h"
#include "platform/errors.h"
#include "platform/file_changes.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/mapi.h"
#include "platform/mapping.h"
#include "platform/memory.h"
#include "platform/modules.h"
#include "platform/notify.h"
#include "platform/objects.h"
#include "platform/pim.h"
#include "platform/registry.h"
#include "platform/screen.h"
#include "platform/shell.h"
#include "platform/time.h"
#include "platform/types.h"
#include "platform/windowing.h"
