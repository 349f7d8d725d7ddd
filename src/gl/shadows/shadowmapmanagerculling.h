#pragma once

#include "core/vyxexport.h"
#include "gl/shadows/shadowmapmanager.h"

#include <QMatrix4x4>
#include <QPair>
#include <QVector3D>

#include <array>

namespace Tavren::Vyx {

class GPUModel;

// Fits the cascades of a directional light to the camera.
//
// The camera's view depth range is clipped to the scene: with the camera inside the scene bounds
// it ends at the bounds' diagonal (no scene point can be farther), otherwise at the farthest
// bounds corner, rounded out to steps of a quarter octave so that small moves keep it. The range
// is split with the practical scheme, a blend of logarithmic and uniform splits (setSplitBlend).
//
// Each cascade is an orthographic projector around the bounding sphere of its slice of the
// frustum. The sphere is computed in view space, so its radius does not change as the camera
// turns or moves; the projector's size follows the radius, and its centre is snapped to whole
// texels of the light's fixed frame, so the texel grid stays put and shadow edges do not shimmer.
// The extent is a couple of texels wider than the sphere so that snapping and filtering never
// reach past it. Every cascade's depth covers the whole scene bounds, so any caster in them
// throws its shadow into every cascade; depths land in [0.05, 0.95], inside the (0, 1) range
// the lookup treats as rendered data.
//
// Made per processLights call: setupCameras, setupScene, setupPost, then one
// processLightDirectional per directional light.
class VYXGL_EXPORT ShadowMapManagerCulling
{
public:
    void setupCameras(const QMatrix4x4* view, const QMatrix4x4* projection);
    void setupScene(const QPair<QVector3D, QVector3D>* sceneBounds);
    // Scene bounds from a model: the world-space box around every command that a shadow pass of
    // ShadowMapRenderer draws with these flags (drawables matching (flags & mask), neither they
    // nor the command's transform hidden; commands without a box do not count). False, with
    // `bounds` untouched, when there is no such command.
    static bool sceneBounds(GPUModel& model, QPair<QVector3D, QVector3D>& bounds, quint64 flags = 0,
                            quint64 mask = 0);
    // Derives the clipped view depth range; after it, isReady() tells whether cascades can be fitted.
    void setupPost();
    bool isReady() const { return _ready; }

    // Writes the light's cascades into data from info.index on and sets info.count; at most
    // projectorCapacity - info.index of them. False (nothing written) without camera or scene,
    // or for a light whose transform has no direction.
    bool processLightDirectional(ShadowMapRenderData& data, ShadowMapRenderData::ProjectorInfo& info,
                                 const ShadowMapLight& light, int projectorCapacity, bool& changed) const;

    // 0 uniform splits, 1 logarithmic; 0.75 by default. Process-wide.
    static void setSplitBlend(float blend);
    static float splitBlend();

    // View depth range the cascades cover, valid when ready.
    float nearDepth() const { return _near; }
    float farDepth() const { return _far; }

private:
    // The view-space point on frustum edge `corner` (0..3) at view depth `depth`.
    QVector3D edgePoint(int corner, float depth) const;

    bool _hasCamera = false;
    bool _hasScene = false;
    bool _ready = false;
    QMatrix4x4 _view, _projection, _inverseView;
    QVector3D _sceneMin, _sceneMax;
    // Near-plane corners then far-plane corners, in view space.
    std::array<QVector3D, 8> _corners;
    float _near = 0.0f, _far = 0.0f;
};

} // namespace Tavren::Vyx
