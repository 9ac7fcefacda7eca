// What most sources of zr include, compiled once when ZR_PRECOMPILE is on. Every source still includes what it uses.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
