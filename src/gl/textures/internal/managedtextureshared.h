#pragma once

#include <QString>

namespace Tavren::Vyx {

class ShaderProgram;
class Texture;

// The uniform's location in the program, or with none in the GL's current program; -1 if absent.
int managedUniformLocation(ShaderProgram* program, const QString& name);
// A new empty texture of the target with nearest filtering, clamped to the edge when asked.
Texture* nearestTexture(unsigned int target, bool clamp);

} // namespace Tavren::Vyx
