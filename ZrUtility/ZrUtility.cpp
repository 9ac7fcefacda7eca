#include "ZrUtility/ZrUtility.h"
