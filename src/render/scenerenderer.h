#pragma once

#include "core/vyxexport.h"
#include "gl/environment/okuimagecubemaputils.h"
#include "render/passtimings.h"

#include <QImage>
#include <QSize>
#include <QString>
#include <QVector3D>

#include <functional>
#include <memory>

namespace Tavren::Vyx {

class Camera;
class GPUModel;
class ShaderProgram;
struct ShadingFrame;
class Texture;
class TextureManager;

// Physically based rendering of a GPUModel whose instance data came from GLTFImporter: its
// lights (PunctualLight, or plain ShadowMapLight as white unit lights) with variance shadow
// maps, image-based light from an environment cube map (prefiltered specular map, split-sum
// table, SH irradiance), the environment as background, filmic tone mapping and sRGB output.
// Needs a current context with an installed OpenGLDeviceContext.
//
// Passes follow the SceneMaterial drawable flags: opaque and masked drawables first, culled at
// their back faces unless double-sided or points and lines (mirrored commands with the winding
// turned); then blended ones over them, one drawable at a time from back to front, without
// depth writes, double-sided ones back faces first. Masked drawables cast cut-out shadows,
// blended ones cast where their alpha reaches one half. Each combination of material extensions
// (SceneMaterial's extension flags) is drawn by a program variant of its own; transmissive
// drawables come after the other unblended ones, over a copy of what those drew.
class VYXGL_EXPORT SceneRenderer
{
public:
    static constexpr int kMaxLights = 8;

    // With no manager the process-wide TextureManager::Instance() is used.
    explicit SceneRenderer(TextureManager* manager = nullptr);
    ~SceneRenderer();
    SceneRenderer(const SceneRenderer&) = delete;
    SceneRenderer& operator=(const SceneRenderer&) = delete;

    // Takes the cube map and derives the lighting maps from it.
    bool setEnvironmentCubemap(std::unique_ptr<Texture> cubemap);
    // A 2D environment picture (lat-long, cross or sphere) of any format the loaders read.
    bool setEnvironmentFile(const QString& path, OkuImageCubemapUtils::OkuImageCubemapSourceType type);
    // A clear daytime sky lit from towards `sun` (a direction towards the sun, Y up).
    bool setProceduralSky(const QVector3D& sun);
    void setEnvironmentIntensity(float intensity) { _environmentIntensity = intensity; }

    // Exposure in stops; 0 leaves the linear values as they are before tone mapping.
    void setExposure(float ev) { _exposure = ev; }
    void setShadowMapSize(int texels) { _shadowMapSize = texels; }
    int shadowMapSize() const { return _shadowMapSize; }
    // See ShadowMapRenderData::setCascadeSnap: coarser keeps a sun's maps through small camera moves.
    void setCascadeSnap(int texels) { _cascadeSnap = texels; }
    void setShadowsEnabled(bool enabled) { _shadows = enabled; }
    // Samples of the image renderToImage() draws (1 = no multisampling).
    void setSamples(int samples) { _samples = samples; }

    // Draws into the framebuffer bound now, whose size the viewport must already have. The
    // framebuffers, viewport, blend (with its factors and equations), depth, culling (with the
    // culled and front faces) and clear state are as the caller left them afterwards; the bound
    // program and textures are unbound.
    bool render(GPUModel& model, const Camera& camera, const QSize& size);
    // Draws into the renderer's own target and reads it back; null on failure.
    QImage renderToImage(GPUModel& model, const Camera& camera, const QSize& size);

    QString errorString() const { return _error; }

    // Shadow maps are kept from frame to frame while their lights, the cascades fitted to the
    // camera, the map size and the casters' drawables, world matrices, visibility and
    // deformation revision stay the same. Edits the renderer cannot see (a caster's geometry or
    // material changed in place) need this to redraw them on the next frame.
    void invalidateShadows() { _shadowsCurrent = false; }
    // Shadow passes drawn so far.
    int shadowPassCount() const { return _shadowPasses; }

    // Per-pass CPU and GPU times (off by default; see PassTimer).
    void setTimingEnabled(bool enabled) { _timer.setEnabled(enabled); }
    // See PassTimer::setWaitForGPU.
    void setTimingWaitsForGPU(bool wait) { _timer.setWaitForGPU(wait); }
    // The latest frame's figures, renderToImage's read-back as its post pass; the context must
    // be current.
    FrameTimings lastFrameTimings() { return _timer.lastFrame(); }

private:
    struct Private;
    bool fail(const QString& message);
    bool prepare(const GPUModel& model);
    bool renderShadows(GPUModel& model, const Camera& camera, const QSize& size);
    bool drawSky(const QMatrix4x4& viewProjection);
    bool drawVariant(GPUModel& model, quint64 variant, const ShadingFrame& frame,
                     const std::function<bool(ShaderProgram*)>& draw);
    bool copyForTransmission(ShadingFrame& frame);

    std::unique_ptr<Private> _d;
    QString _error;
    float _exposure = 0.0f;
    float _environmentIntensity = 1.0f;
    int _shadowMapSize = 1024;
    int _cascadeSnap = 1;
    int _samples = 4;
    bool _shadows = true;
    bool _shadowsCurrent = false;
    quint64 _shadowSignature = 0;
    int _shadowPasses = 0;
    PassTimer _timer;
};

} // namespace Tavren::Vyx
