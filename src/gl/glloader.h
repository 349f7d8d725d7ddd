#pragma once

// The GL entry points: plain GL names are macros onto the exported `_ptrc_` pointers that
// ogl_LoadFunctions() fills. Generated from the Khronos registry by tools/gen_gl_loader.py.
#include "gl/generated/glloader.h"
