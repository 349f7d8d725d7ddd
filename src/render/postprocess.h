#pragma once

#include "core/vyxexport.h"

#include <QString>

#include <memory>

namespace Tavren::Vyx {

class ShaderProgram;
class Texture;

// Screen-space anti-aliasing of a finished 2D colour texture into another of the same size,
// drawn with the device context's full-screen quad (an OpenGLDeviceContext must be current).
// Programs and lookup textures are made on first use in the current context and kept: use one
// PostProcess per context. Both passes expect display-referred (gamma-encoded) colour.
class VYXGL_EXPORT PostProcess
{
public:
    enum Mode { eNone = 0, eFXAA, eSMAA };

    PostProcess();
    ~PostProcess();
    PostProcess(const PostProcess&) = delete;
    PostProcess& operator=(const PostProcess&) = delete;

    // "none", "fxaa" or "smaa", any case; anything else sets *ok to false and gives eNone.
    static Mode modeFromString(const QString& name, bool* ok = nullptr);

    // Writes the anti-aliased source into level 0 of the destination (eNone copies it). The
    // source's filter and wrap modes are restored afterwards. False, after a message, when
    // a texture is missing or not 2D, the sizes differ, or a program fails to build.
    bool apply(Mode mode, Texture* source, Texture* destination);

    // SMAA edge detection on colour differences rather than luma (default: luma).
    void setSmaaColorEdges(bool colour) { _smaaColorEdges = colour; }
    bool smaaColorEdges() const { return _smaaColorEdges; }

private:
    struct Resources;
    bool applySmaa(Texture* source, Texture* destination, int width, int height);
    ShaderProgram* program(Mode mode, int pass);

    std::unique_ptr<Resources> _resources;
    bool _smaaColorEdges = false;
};

} // namespace Tavren::Vyx
