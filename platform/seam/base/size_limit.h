#pragma once

#include "host/size_limit.h"
