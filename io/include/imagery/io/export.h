// IMAGERY_IO_API marks what the picture-file library exports; like the core it is built with hidden
// visibility, so the codec libraries it links stay private to it.
#pragma once

#if defined(_WIN32)
#if defined(IMAGERY_BUILDING_IO)
#define IMAGERY_IO_API __declspec(dllexport)
#else
#define IMAGERY_IO_API __declspec(dllimport)
#endif
#else
#define IMAGERY_IO_API __attribute__((visibility("default")))
#endif
