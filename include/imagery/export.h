// IMAGERY_API marks the declarations the library exports. The library is built with hidden visibility,
// so that only its API (and the few hooks its own tests call) is visible to programs that load it.
#pragma once

#if defined(_WIN32)
#if defined(IMAGERY_BUILDING_LIBRARY)
#define IMAGERY_API __declspec(dllexport)
#else
#define IMAGERY_API __declspec(dllimport)
#endif
#else
#define IMAGERY_API __attribute__((visibility("default")))
#endif
