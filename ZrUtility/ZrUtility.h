#pragma once

// Every public header of the library.

#include "ZrUtility/Export.h"
