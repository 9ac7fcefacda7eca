#pragma once

// Marks what the library exports. Everything else in it is hidden.
#if defined(ZRUTILITY_BUILDING)
#define ZRUTILITY_API __attribute__((visibility("default")))
#else
#define ZRUTILITY_API
#endif
