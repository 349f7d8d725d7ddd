#pragma once

#include "gl/glloader.h"

#include <QString>

// What the shader and shader-program files share.
namespace Tavren::Vyx {

// Appends "   n : line\n" for every line, numbered from 1.
void appendNumberedSource(QString& message, const QString& source);
// Prints each line of a multi-line report as a warning of its own.
void printLines(const QString& message);
// The info log of a shader (glGetShaderiv, glGetShaderInfoLog) or program (glGetProgramiv,
// glGetProgramInfoLog) object; empty when there is none.
QString readInfoLog(GLuint object, PFNVYXGLGETSHADERIVPROC getParameter, PFNVYXGLGETSHADERINFOLOGPROC getLog);

// Registers the uniform types dispatched by name, once per process.
void registerUniformMetaTypes();

// Looks the program-binary entry points up in the current context's capability table, so a
// missing one is noted when a program is made.
void lookUpProgramBinaryEntryPoints();
// Asks the driver to keep a program's binary; false, and nothing asked, when binaries are unused.
bool hintBinaryRetrievable(GLuint program);

} // namespace Tavren::Vyx
