#pragma once

// Symbols are hidden by default; VYXGL_EXPORT marks the public surface.
#if defined(_WIN32)
#  if defined(VYXGL_BUILDING)
#    define VYXGL_EXPORT __declspec(dllexport)
#  else
#    define VYXGL_EXPORT __declspec(dllimport)
#  endif
#else
#  define VYXGL_EXPORT __attribute__((visibility("default")))
#endif
