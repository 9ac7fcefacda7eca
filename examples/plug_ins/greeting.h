#pragma once

// What examples/modules.cpp and its plug-ins agree on.

constexpr int kGreetingModule = 7;

// Every greeting module exports, with C linkage, this function under the name "Greet".
using GreetFunction = const char* (*)(const char* name);
