#pragma once

#include "host/descriptor.h"
