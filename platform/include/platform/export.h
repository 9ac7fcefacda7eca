#pragma once

// Marks what the platform library exports. Everything else in it is hidden, and so is all of namespace zr.
#if defined(ZRPLATFORM_BUILDING)
#define ZRPLATFORM_API __attribute__((visibility("default")))
#else
#define ZRPLATFORM_API
#endif
