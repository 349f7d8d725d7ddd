#pragma once

// Everything VyxGL offers, in one include.

#include "core/logging.h"
#include "core/memory.h"
#include "core/resourcespath.h"
#include "core/vyxexport.h"
#include "gl/bindable.h"
#include "gl/glcontexttracker.h"
#include "gl/glutilities.h"
#include "gl/opengldevicecontext.h"
#include "gl/glslmacroprocessor.h"
#include "gl/rangedvalue.h"
#include "gl/shadercachemanager.h"
#include "gl/shaderprogram.h"
#include "gl/bufferobject.h"
#include "gl/framebufferobject.h"
#include "gl/texture.h"
#include "gl/textureformat.h"
#include "gl/vertexarraybuilder.h"
#include "gl/astcfile.h"
#include "gl/hdrdecoder.h"
#include "gl/ktxparser.h"
