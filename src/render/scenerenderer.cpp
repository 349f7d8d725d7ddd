#include "render/scenerenderer.h"

#include "core/logging.h"
#include "gl/drawing/camera.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/internal/passdevicecontext.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/bindable.h"
#include "gl/platform/internal/percontextrecords.h"
#include "gl/platform/renderstateguard.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/shadows/shadowmapmanager.h"
#include "gl/shadows/shadowmapmanagerculling.h"
#include "gl/textureio/textureio.h"
#include "gl/textureio/textureutilities.h"
#include "gl/textures/texturemanager.h"
#include "render/internal/shadingprograms.h"
#include "render/internal/shadowsignature.h"
#include "render/punctuallight.h"
#include "render/scenematerial.h"
#include "render/shadowmaprenderer.h"

#include <QVariantList>
#include <QtMath>

#include <algorithm>
#include <cmath>
#include <set>

namespace Tavren::Vyx {

namespace Utils = OkuImageCubemapUtils;

namespace {

constexpr int kPrefilteredSize = 128;
constexpr int kPrefilteredLevels = 6;
constexpr int kBRDFTableSize = 64;

// A framebuffer with a colour and, for drawing, a depth renderbuffer, multisampled when asked.
std::unique_ptr<FramebufferObject> makeTarget(const QSize& size, int samples, bool depth)
{
    auto target = std::make_unique<FramebufferObject>();
    AutoBinder bound(target.get());
    const bool made = bound.isBound() &&
                      target->createRenderbuffer(GL_COLOR_ATTACHMENT0, GL_RGBA8, size.width(), size.height(), samples) &&
                      (!depth || target->createRenderbuffer(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT24, size.width(),
                                                            size.height(), samples)) &&
                      target->isComplete();
    return made ? std::move(target) : nullptr;
}

// The model's lights the renderer takes, in the model's order; entries that are no
// ShadowMapLight stay as nulls for the shadow code to report.
QVector<const ShadowMapLight*> modelLights(const GPUModel& model)
{
    QVector<const ShadowMapLight*> lights;
    for (int i = 0; i < std::min(model.lightCount(), SceneRenderer::kMaxLights); ++i) {
        QVariant light;
        model.getLight(i, light);
        lights.append(qobject_cast<const ShadowMapLight*>(light.value<QObject*>()));
    }
    return lights;
}

// Linear sky radiance (Y up) for the procedural environment.
QVector3D skyRadiance(const QVector3D& d, const QVector3D& sun)
{
    const QVector3D zenith(0.18f, 0.36f, 0.80f), horizon(0.70f, 0.80f, 0.92f), ground(0.22f, 0.20f, 0.18f);
    QVector3D colour;
    if (d.y() >= 0) {
        const float t = std::pow(1.0f - d.y(), 3.0f);
        colour = zenith * (1 - t) + horizon * t;
    } else {
        const float t = std::min(1.0f, -d.y() * 6.0f);
        colour = horizon * (1 - t) * 0.6f + ground * t;
    }
    const float toward = std::max(0.0f, QVector3D::dotProduct(d, sun));
    colour += QVector3D(1.0f, 0.9f, 0.7f) * (0.25f * std::pow(toward, 8.0f) + 0.75f * std::pow(toward, 400.0f));
    return colour;
}

float toSRGB(float linear)
{
    linear = qBound(0.0f, linear, 1.0f);
    return linear <= 0.0031308f ? linear * 12.92f : 1.055f * std::pow(linear, 1.0f / 2.4f) - 0.055f;
}

using SceneMaterial::kAlphaBlendFlag;
using SceneMaterial::kAlphaMaskFlag;
using SceneMaterial::kDoubleSidedFlag;
using SceneMaterial::kPointsOrLinesFlag;
using SceneMaterial::kVariantFlags;
using SceneMaterial::kRigidFlag;
using SceneMaterial::kTransmissionFlag;
constexpr quint64 kKindFlags = kAlphaBlendFlag | kDoubleSidedFlag | kPointsOrLinesFlag | kVariantFlags;

// The blend factors and face orientation state, which RenderStateGuard leaves out.
class BlendAndFaceGuard
{
public:
    BlendAndFaceGuard()
    {
        for (int i = 0; i < 8; ++i)
            glGetIntegerv(kStates[i], &_values[i]);
    }
    ~BlendAndFaceGuard()
    {
        glBlendFuncSeparate(GLenum(_values[0]), GLenum(_values[1]), GLenum(_values[2]), GLenum(_values[3]));
        glBlendEquationSeparate(GLenum(_values[4]), GLenum(_values[5]));
        glCullFace(GLenum(_values[6]));
        glFrontFace(GLenum(_values[7]));
    }
    BlendAndFaceGuard(const BlendAndFaceGuard&) = delete;
    BlendAndFaceGuard& operator=(const BlendAndFaceGuard&) = delete;

private:
    static constexpr GLenum kStates[8] = {GL_BLEND_SRC_RGB,      GL_BLEND_DST_RGB,        GL_BLEND_SRC_ALPHA,
                                          GL_BLEND_DST_ALPHA,    GL_BLEND_EQUATION_RGB,   GL_BLEND_EQUATION_ALPHA,
                                          GL_CULL_FACE_MODE,     GL_FRONT_FACE};
    GLint _values[8] = {};
};

// Draws with the culling a kind of drawable (its kind flags) asks for: points and lines
// unculled; triangles in one pass for the commands that keep handedness and one with the winding
// turned for mirrored ones, so that front faces are the ones the shading sees as such.
// Single-sided triangles are culled at the back; double-sided ones draw their back faces, then
// their front faces, so that blended front faces cover their back faces.
template <typename Draw>
bool drawWithCulling(quint64 kind, const Draw& draw)
{
    if (kind & kPointsOrLinesFlag)
        return draw(GPUModel::eWindingNoCulling);
    bool ok = true;
    for (const GLenum culled : {GL_FRONT, GL_BACK}) {
        if (culled == GL_FRONT && !(kind & kDoubleSidedFlag))
            continue;
        glCullFace(culled);
        ok = draw(GPUModel::eWindingCCW) && ok;
        ok = draw(GPUModel::eWindingCW) && ok;
    }
    return ok;
}

// The drawables whose flags match, drawn as their kind asks.
bool drawSelection(GPUModel& model, ShaderProgram* scene, TextureManager* manager, quint64 flags, quint64 mask,
                   const QMatrix4x4* view)
{
    return drawWithCulling(flags, [&](GPUModel::WindingType winding) {
        return model.draw(scene, manager, flags, mask, winding, view, true);
    });
}

// Every kind of unblended drawable of one shading variant (its extension flags): single-sided
// triangles, double-sided triangles, then points and lines of either sidedness.
bool drawKinds(GPUModel& model, ShaderProgram* scene, TextureManager* manager, quint64 variant)
{
    bool ok = drawSelection(model, scene, manager, variant, kKindFlags, nullptr);
    ok = drawSelection(model, scene, manager, variant | kDoubleSidedFlag, kKindFlags, nullptr) && ok;
    const quint64 points = kAlphaBlendFlag | kPointsOrLinesFlag | kVariantFlags;
    return drawSelection(model, scene, manager, variant | kPointsOrLinesFlag, points, nullptr) && ok;
}

// The shading variants the model's drawables need, by extension flags.
std::set<quint64> modelVariants(const GPUModel& model)
{
    std::set<quint64> variants;
    for (int i = 0; i < model.numDrawables(); ++i)
        variants.insert(model.drawable(i).flags & kVariantFlags);
    return variants;
}

// Blended drawables with commands left after culling, farthest first by the mean centre of
// those commands' boxes.
QVector<int> blendedBackToFront(GPUModel& model, const QVector3D& eye)
{
    QVector<QPair<float, int>> byDistance;
    for (int i = 0; i < model.numDrawables(); ++i) {
        const GPUModel::Drawable& d = model.drawable(i);
        const int commands = d.transformRefs.size();
        if (!(d.flags & kAlphaBlendFlag) || d.culledCount >= commands)
            continue;
        QVector3D sum;
        int counted = 0;
        for (int c = 0; c < commands; ++c) {
            if (model.isCommandCulled(i, c))
                continue;
            const int box = d.boundingBoxRefs.value(c, GPUModel::kInvalidBoundingBoxRef);
            const int transform = d.transformRefs[c];
            const QVector3D centre = model.isValidBoundingBox(box) ? model.getBoundingBox(box).center() : QVector3D();
            sum += model.isValidTransform(transform) ? model.worldTransform(transform).map(centre) : centre;
            ++counted;
        }
        if (counted > 0)
            byDistance.append({(sum / float(counted) - eye).lengthSquared(), i});
    }
    std::stable_sort(byDistance.begin(), byDistance.end(),
                     [](const QPair<float, int>& a, const QPair<float, int>& b) { return a.first > b.first; });
    QVector<int> order;
    order.reserve(byDistance.size());
    for (const auto& entry : qAsConst(byDistance))
        order.append(entry.second);
    return order;
}

struct SkyUniforms
{
    GLint inverseViewProjection, environment, environmentIntensity, exposure;
};

} // namespace

struct SceneRenderer::Private
{
    TextureManager* manager = nullptr;
    int tokensPerDraw = 0; // of the model being drawn
    ShadingPrograms shading;
    std::unique_ptr<ShaderProgram> skyProgram;
    SkyUniforms skyUniforms = {};
    std::unique_ptr<ShadowMapRenderer> shadowRenderer;
    ShadowMapRenderData shadowData;
    // Shared with other renderers of the context while they draw the same sky (see sharedLighting).
    std::shared_ptr<Texture> environment, prefiltered, brdfTable;
    std::unique_ptr<Texture> sheenTable;
    Utils::IrradianceSH sh;
    std::unique_ptr<FramebufferObject> drawTarget, resolveTarget;
    // What transmissive surfaces see through: the opaque scene, copied with mipmaps.
    std::unique_ptr<FramebufferObject> transmissionTarget;
    std::unique_ptr<Texture> transmissionColour;
    QSize transmissionSize;
    int transmissionLevels = 1;
    QSize targetSize;
    int targetSamples = 0;
    // Units of the texture-image stage, for parking the unused shadow sampler on the last one.
    GLint textureUnits = 16;
};

namespace {

// The lighting maps of the procedural skies made in a context, and the BRDF table, for the
// context's other renderers while one of them keeps them: a second viewport, or a renderer made
// for a reloaded scene, draws its first frame without making them again.
struct SharedLighting
{
    struct Sky
    {
        QVector3D sun;
        std::weak_ptr<Texture> environment, prefiltered;
        Utils::IrradianceSH sh;
    };
    std::weak_ptr<Texture> brdfTable;
    std::vector<Sky> skies; // those no renderer keeps any more are dropped as others are added
};

PerContextRecords<SharedLighting>& sharedLighting()
{
    static PerContextRecords<SharedLighting> records;
    return records;
}

} // namespace

SceneRenderer::SceneRenderer(TextureManager* manager)
    : _d(std::make_unique<Private>())
{
    _d->manager = manager;
}

SceneRenderer::~SceneRenderer() = default;

bool SceneRenderer::fail(const QString& message)
{
    _error = message;
    VYX_WARNING("%s", qPrintable(message));
    return false;
}

bool SceneRenderer::setEnvironmentCubemap(std::unique_ptr<Texture> cubemap)
{
    _d->environment = std::move(cubemap);
    Texture* environment = _d->environment.get();
    if (!environment)
        return fail(QStringLiteral("No environment cube map"));
    _d->prefiltered.reset(
        Utils::createPrefilteredEnvMapFromGLCubemap(environment, kPrefilteredSize, kPrefilteredLevels));
    if (!_d->brdfTable) {
        _d->brdfTable = sharedLighting().withCurrent([](SharedLighting& shared) { return shared.brdfTable.lock(); });
        if (!_d->brdfTable) {
            _d->brdfTable.reset(Utils::createPreintegratedBRDFTable(kBRDFTableSize, 256));
            sharedLighting().withCurrent([&](SharedLighting& shared) { shared.brdfTable = _d->brdfTable; });
        }
    }
    _d->sh = Utils::computeIrradianceSHFromGLCubemap(environment);
    if (!_d->prefiltered || !_d->brdfTable || !_d->sh.valid)
        return fail(QStringLiteral("The lighting maps of the environment could not be made"));
    return true;
}

bool SceneRenderer::setEnvironmentFile(const QString& path, Utils::OkuImageCubemapSourceType type)
{
    std::unique_ptr<Texture> source(LoadTextureFromFile(path, TextureFileInfo()));
    if (!source)
        return fail(QStringLiteral("Cannot load the environment '%1'").arg(path));
    Texture* raw = source.release();
    // Files arrive bottom row first; the converters want the picture's top row first.
    if (type == Utils::SourceLatLong && !FlipY(raw))
        return fail(QStringLiteral("Cannot flip the environment '%1'").arg(path));
    source.reset(raw);
    return setEnvironmentCubemap(
        std::unique_ptr<Texture>(Utils::createGLCubemapFromTexture(source.get(), type, 256, Utils::ColorSpaceLinear)));
}

bool SceneRenderer::setProceduralSky(const QVector3D& sunDirection)
{
    const QVector3D sun = sunDirection.normalized();
    const bool reused = sharedLighting().withCurrent([&](SharedLighting& shared) {
        for (const SharedLighting::Sky& sky : shared.skies) {
            std::shared_ptr<Texture> environment = sky.environment.lock();
            std::shared_ptr<Texture> prefiltered = sky.prefiltered.lock();
            std::shared_ptr<Texture> brdfTable = shared.brdfTable.lock();
            if (sky.sun != sun || !environment || !prefiltered || !brdfTable)
                continue;
            _d->environment = std::move(environment);
            _d->prefiltered = std::move(prefiltered);
            _d->brdfTable = std::move(brdfTable);
            _d->sh = sky.sh;
            return true;
        }
        return false;
    });
    if (reused)
        return true;
    QImage sky(256, 128, QImage::Format_RGBA8888);
    for (int y = 0; y < sky.height(); ++y) {
        // Row 0, GL's first, is the top of the picture the converters take: the zenith.
        const float polar = float(M_PI) * (y + 0.5f) / sky.height();
        auto* row = reinterpret_cast<uchar*>(sky.scanLine(y));
        for (int x = 0; x < sky.width(); ++x) {
            const float longitude = 2 * float(M_PI) * (x + 0.5f) / sky.width();
            const QVector3D d(std::sin(polar) * std::cos(longitude), std::cos(polar), std::sin(polar) * std::sin(longitude));
            const QVector3D c = skyRadiance(d, sun);
            for (int k = 0; k < 3; ++k)
                row[4 * x + k] = uchar(std::lround(toSRGB(c[k]) * 255));
            row[4 * x + 3] = 255;
        }
    }
    TextureFileInfo info;
    info.srgb = true;
    std::unique_ptr<Texture> source(QImageToTexture(sky, false, info));
    if (!source)
        return fail(QStringLiteral("Cannot make the sky texture"));
    if (!setEnvironmentCubemap(std::unique_ptr<Texture>(
            Utils::createGLCubemapFromTexture(source.get(), Utils::SourceLatLong, 128, Utils::ColorSpaceLinear))))
        return false;
    sharedLighting().withCurrent([&](SharedLighting& shared) {
        auto& skies = shared.skies;
        skies.erase(std::remove_if(skies.begin(), skies.end(),
                                   [&](const SharedLighting::Sky& sky) { return sky.sun == sun || sky.prefiltered.expired(); }),
                    skies.end());
        skies.push_back({sun, _d->environment, _d->prefiltered, _d->sh});
    });
    return true;
}

bool SceneRenderer::prepare(const GPUModel& model)
{
    // The shading programs are built for as many textures as a drawable of this model binds.
    _d->tokensPerDraw = model.maxDrawableTokens();
    if (_d->skyProgram)
        return _d->skyProgram->isLinked();
    if (!_d->manager)
        _d->manager = TextureManager::Instance();
    // Shading variants are built when a drawable first needs them.
    _d->shading.setTextureManager(_d->manager);

    _d->skyProgram = std::make_unique<ShaderProgram>();
    ShaderProgram& sky = *_d->skyProgram;
    sky.addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("SceneSky.vert"));
    sky.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("SceneSky.frag"));
    sky.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("SceneToneMap.glslc"));
    if (!sky.link())
        return fail(QStringLiteral("The sky program does not link: %1").arg(sky.log()));
    const auto skyAt = [&sky](const char* name) { return GLint(sky.getUniformLocation(QLatin1String(name))); };
    _d->skyUniforms = {skyAt("u_InverseViewProjection"), skyAt("u_Environment"), skyAt("u_EnvironmentIntensity"),
                       skyAt("u_Exposure")};
    glGetIntegerv(GL_MAX_TEXTURE_IMAGE_UNITS, &_d->textureUnits);
    _d->shadowRenderer = std::make_unique<ShadowMapRenderer>();
    _d->shadowRenderer->setBlurRadius(1);
    return true;
}

bool SceneRenderer::renderShadows(GPUModel& model, const Camera& camera, const QSize& size)
{
    const PassTimer::Scope timed(&_timer, FrameTimings::eShadows);
    const QVector<const ShadowMapLight*> lights = modelLights(model);
    const bool anyCaster = std::any_of(lights.begin(), lights.end(), [](const ShadowMapLight* light) {
        return light && light->shadowCaster() && light->on();
    });
    if (!_shadows || !anyCaster) {
        _shadowsCurrent = false;
        return true;
    }
    QPair<QVector3D, QVector3D> bounds;
    const bool hasBounds = ShadowMapManagerCulling::sceneBounds(model, bounds);
    const QMatrix4x4 view = camera.viewMatrix();
    const QMatrix4x4 projection = camera.projectionMatrix(float(size.width()) / size.height());
    _d->shadowData.setShadowMapSize(_shadowMapSize);
    _d->shadowData.setCascadeSnap(_cascadeSnap);
    ShadowMapManager::processLights(lights, _d->shadowData, &view, &projection, hasBounds ? &bounds : nullptr);
    // The maps of the last pass still hold while nothing they show has changed.
    const quint64 signature = shadowSignature(model, _d->shadowData);
    if (_shadowsCurrent && signature == _shadowSignature && _d->shadowData.projectionTexture())
        return true;
    _shadowsCurrent = false;
    // Masked drawables cut their shadows out at their cutoff, blended ones at half coverage.
    // Rigid drawables of each kind are drawn apart, by a program without deformation.
    using Casters = ShadowMapRenderer::Casters;
    QVector<Casters> casters;
    for (const Casters& kind : {Casters{0, kAlphaMaskFlag | kAlphaBlendFlag, false},
                                Casters{kAlphaMaskFlag, kAlphaMaskFlag | kAlphaBlendFlag, true},
                                Casters{kAlphaBlendFlag, kAlphaBlendFlag, true, 0.5f}})
        for (const bool rigid : {true, false})
            casters.append({kind.flags | (rigid ? kRigidFlag : 0), kind.mask | kRigidFlag, kind.cutOut,
                            kind.defaultCutoff, rigid});
    if (!_d->shadowRenderer->render(_d->shadowData, model, casters, _d->manager))
        return fail(QStringLiteral("The shadow maps could not be rendered"));
    _shadowSignature = signature;
    _shadowsCurrent = true;
    ++_shadowPasses;
    return true;
}

bool SceneRenderer::drawSky(const QMatrix4x4& viewProjection)
{
    const PassTimer::Scope timed(&_timer, FrameTimings::eSky);
    ShaderProgram& sky = *_d->skyProgram;
    auto quad = passDeviceContext()->fullscreenQuad();
    if (!quad || !sky.bind())
        return false;
    const SkyUniforms& at = _d->skyUniforms;
    _d->environment->bind();
    sky.setUniform(at.inverseViewProjection, QVariant(viewProjection.inverted()));
    sky.setUniform(at.environment, _d->environment->unit());
    sky.setUniform(at.environmentIntensity, QVariant(_environmentIntensity));
    sky.setUniform(at.exposure, QVariant(std::exp2(_exposure)));
    glDepthMask(GL_FALSE);
    bool drawn = quad->bind() && quad->VAO()->enableShaderProgramArrays(&sky) && quad->draw(&sky);
    quad->unbind();
    glDepthMask(GL_TRUE);
    _d->environment->unbind();
    sky.unbind();
    return drawn;
}

bool SceneRenderer::render(GPUModel& model, const Camera& camera, const QSize& size)
{
    _error.clear();
    _timer.beginFrame();
    // Environment set-up and shadow passes use targets of their own; the caller's come back
    // before the scene is drawn, and all of its state once the frame is done.
    const RenderStateGuard callerState;
    const BlendAndFaceGuard callerFactors;
    if (!prepare(model))
        return false;
    if (!_d->environment && !setProceduralSky(QVector3D(0.4f, 0.8f, 0.3f)))
        return false;
    // Tables are drawn into targets of their own, so they are made before the caller's comes back.
    const std::set<quint64> variants = modelVariants(model);
    const bool sheen =
        std::any_of(variants.begin(), variants.end(), [](quint64 v) { return v & SceneMaterial::kSheenFlag; });
    if (sheen && !_d->sheenTable) {
        _d->sheenTable.reset(Utils::createSheenAlbedoTable(kBRDFTableSize, 256));
        if (!_d->sheenTable)
            return fail(QStringLiteral("The sheen albedo table could not be made"));
    }
    model.updateTransforms();
    model.resetCulling();
    model.visibilityCull();
    if (!renderShadows(model, camera, size))
        return false;

    const QMatrix4x4 view = camera.viewMatrix();
    const QMatrix4x4 viewProjection = camera.projectionMatrix(float(size.width()) / size.height()) * view;
    model.frustumCull(viewProjection);
    callerState.restore();
    glClearColor(0, 0, 0, 1);
    glClearDepth(1);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glDisable(GL_BLEND);
    glDisable(GL_CULL_FACE);
    glDisable(GL_DEPTH_TEST);
    if (!drawSky(viewProjection))
        return fail(QStringLiteral("The sky could not be drawn"));
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LESS);

    PassTimer::Scope timed(&_timer, FrameTimings::eOpaque);
    ShadingFrame frame;
    for (const ShadowMapLight* light : modelLights(model)) {
        if (!light)
            continue;
        auto* punctual = qobject_cast<const PunctualLight*>(light);
        const QMatrix4x4& m = light->transform();
        const QVector3D along = m.mapVector(QVector3D(0, 0, light->type() == ShadowMapLight::Directional ? 1 : -1));
        frame.lightColours << (light->on() ? (punctual ? punctual->color * punctual->intensity : QVector3D(1, 1, 1)) : QVector3D());
        frame.lightPositions << m.column(3).toVector3D();
        frame.lightDirections << along.normalized();
        const float outer = light->spotCutoff() > 0 ? light->spotCutoff() : float(M_PI);
        const float inner = punctual ? std::min(punctual->innerConeAngle, outer * 0.999f) : outer * 0.8f;
        frame.lightCones << std::cos(inner) << std::cos(outer);
        frame.lightTypes << GLint(light->type() == ShadowMapLight::Directional ? 2 : light->type() == ShadowMapLight::Spot ? 1 : 0);
        frame.lightRanges << (punctual ? punctual->range : 0.0f);
    }
    frame.irradianceSH = QVector<QVector3D>(std::begin(_d->sh.coefficients), std::end(_d->sh.coefficients));
    frame.viewProjection = viewProjection;
    frame.cameraPosition = camera.worldMatrix().column(3).toVector3D();
    frame.eye = camera.projectionType() == Camera::eOrthographic
                    ? QVector4D(camera.worldMatrix().column(2).toVector3D().normalized(), 0)
                    : QVector4D(frame.cameraPosition, 1);
    frame.exposure = std::exp2(_exposure);
    frame.environmentIntensity = _environmentIntensity;
    frame.prefilteredLevels = float(kPrefilteredLevels);
    frame.spareUnit = _d->textureUnits - 1;
    // The 2D table first: texture-manager slots that are not in use point at the lowest unit,
    // which must then hold no other sampler type.
    _d->brdfTable->bind();
    _d->prefiltered->bind();
    frame.prefilteredUnit = _d->prefiltered->unit();
    frame.brdfUnit = _d->brdfTable->unit();
    const bool shadowed = _shadows && _d->shadowData.projectionTexture() && _d->shadowData.projectorCount() > 0;
    frame.shadows = shadowed ? &_d->shadowData : nullptr;
    if (sheen) {
        _d->sheenTable->bind();
        frame.sheenUnit = _d->sheenTable->unit();
    }

    // Each variant's unblended drawables, those that show the scene through them last, over a
    // copy of what is drawn before them.
    bool drawn = true;
    for (const bool transmissive : {false, true}) {
        for (const quint64 variant : variants) {
            if (bool(variant & kTransmissionFlag) != transmissive)
                continue;
            if (transmissive && frame.transmissionUnit < 0 && !copyForTransmission(frame))
                return fail(QStringLiteral("The scene behind transmissive surfaces could not be copied"));
            drawn = drawVariant(model, variant, frame, [&](ShaderProgram* program) {
                return drawKinds(model, program, _d->manager, variant);
            }) && drawn;
        }
    }
    timed.next(FrameTimings::eTransparent);
    // Blended drawables over what is drawn, with straight alpha, testing depth but not writing
    // it: one at a time from back to front, each drawable's commands sorted the same way by the view.
    glEnable(GL_BLEND);
    glBlendEquationSeparate(GL_FUNC_ADD, GL_FUNC_ADD);
    // Alpha accumulates coverage, so an opaque background stays opaque in the read-back image.
    glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    glDepthMask(GL_FALSE);
    frame.alphaBlend = true;
    const QVector<int> blended = blendedBackToFront(model, frame.cameraPosition);
    for (int first = 0, end = 0; first < blended.size(); first = end) {
        // A run of drawables of one variant shares its program's set-up.
        const quint64 variant = model.getFlags(blended[first]) & kVariantFlags;
        for (end = first + 1; end < blended.size() && (model.getFlags(blended[end]) & kVariantFlags) == variant;)
            ++end;
        if ((variant & kTransmissionFlag) && frame.transmissionUnit < 0 && !copyForTransmission(frame))
            return fail(QStringLiteral("The scene behind transmissive surfaces could not be copied"));
        drawn = drawVariant(model, variant, frame, [&](ShaderProgram* program) {
            bool ok = true;
            for (int i = first; i < end; ++i)
                ok = drawWithCulling(model.getFlags(blended[i]), [&](GPUModel::WindingType winding) {
                    return model.drawDrawable(blended[i], program, _d->manager, winding, &view);
                }) && ok;
            return ok;
        }) && drawn;
    }
    if (_d->transmissionColour && frame.transmissionUnit >= 0)
        _d->transmissionColour->unbind();
    if (frame.sheenUnit >= 0)
        _d->sheenTable->unbind();
    _d->brdfTable->unbind();
    _d->prefiltered->unbind();
    return drawn || fail(QStringLiteral("The model could not be drawn"));
}

bool SceneRenderer::drawVariant(GPUModel& model, quint64 variant, const ShadingFrame& frame,
                                const std::function<bool(ShaderProgram*)>& draw)
{
    QString error;
    ShadingPrograms::Program* program = _d->shading.get(variant, _d->tokensPerDraw, error);
    if (!program)
        return fail(error);
    if (!ShadingPrograms::begin(*program, frame))
        return fail(QStringLiteral("The shading program could not be bound"));
    SceneMaterial::parkUnsharedDeformationSamplers(*program->program, model);
    const bool drawn = draw(program->program.get());
    ShadingPrograms::end(*program, frame);
    return drawn;
}

// Copies the colour drawn so far in the caller's framebuffer into a mipmapped texture, for
// transmissive surfaces to read from, blurrier levels for rougher ones.
bool SceneRenderer::copyForTransmission(ShadingFrame& frame)
{
    GLint viewport[4] = {}, drawFramebuffer = 0, readFramebuffer = 0;
    glGetIntegerv(GL_VIEWPORT, viewport);
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &drawFramebuffer);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &readFramebuffer);
    const QSize size(viewport[2], viewport[3]);
    if (size.isEmpty())
        return false;
    if (!_d->transmissionTarget || _d->transmissionSize != size) {
        _d->transmissionColour.reset();
        _d->transmissionTarget = std::make_unique<FramebufferObject>();
        AutoBinder bound(_d->transmissionTarget.get());
        if (bound.isBound())
            _d->transmissionColour.reset(_d->transmissionTarget->createTexture2D(
                GL_COLOR_ATTACHMENT0, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, size.width(), size.height()));
        if (!_d->transmissionColour || !_d->transmissionTarget->isComplete()) {
            _d->transmissionTarget.reset();
            _d->transmissionColour.reset();
            return false;
        }
        _d->transmissionSize = size;
        _d->transmissionLevels = 1 + int(std::floor(std::log2(std::max(size.width(), size.height()))));
    }
    glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(drawFramebuffer));
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, _d->transmissionTarget->getFBO());
    glBlitFramebuffer(viewport[0], viewport[1], viewport[0] + size.width(), viewport[1] + size.height(), 0, 0,
                      size.width(), size.height(), GL_COLOR_BUFFER_BIT, GL_NEAREST);
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, GLuint(drawFramebuffer));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(readFramebuffer));
    Texture& colour = *_d->transmissionColour;
    if (!colour.bind())
        return false;
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glGenerateMipmap(GL_TEXTURE_2D);
    frame.transmissionUnit = colour.unit();
    frame.transmissionLevels = float(_d->transmissionLevels);
    return true;
}

QImage SceneRenderer::renderToImage(GPUModel& model, const Camera& camera, const QSize& size)
{
    if (size.isEmpty() || size.width() > 16384 || size.height() > 16384) {
        fail(QStringLiteral("Image size %1x%2 is out of range").arg(size.width()).arg(size.height()));
        return QImage();
    }
    const RenderStateGuard callerState;
    const int samples = std::max(_samples, 1);
    if (!_d->drawTarget || _d->targetSize != size || _d->targetSamples != samples) {
        _d->drawTarget = makeTarget(size, samples, true);
        _d->resolveTarget = samples > 1 ? makeTarget(size, 1, false) : nullptr;
        _d->targetSize = size;
        _d->targetSamples = samples;
    }
    if (!_d->drawTarget || (samples > 1 && !_d->resolveTarget)) {
        _d->drawTarget.reset();
        fail(QStringLiteral("Cannot make a %1x%2 render target").arg(size.width()).arg(size.height()));
        return QImage();
    }
    {
        AutoBinder bound(_d->drawTarget.get());
        if (!bound.isBound()) {
            fail(QStringLiteral("Cannot bind the render target"));
            return QImage();
        }
        glViewport(0, 0, size.width(), size.height());
        if (!render(model, camera, size))
            return QImage();
    }
    const PassTimer::Scope timed(&_timer, FrameTimings::ePost);
    GLuint readFrom = _d->drawTarget->getFBO();
    if (samples > 1) {
        glBindFramebuffer(GL_READ_FRAMEBUFFER, readFrom);
        glBindFramebuffer(GL_DRAW_FRAMEBUFFER, _d->resolveTarget->getFBO());
        glBlitFramebuffer(0, 0, size.width(), size.height(), 0, 0, size.width(), size.height(), GL_COLOR_BUFFER_BIT,
                          GL_NEAREST);
        readFrom = _d->resolveTarget->getFBO();
    }
    glBindFramebuffer(GL_READ_FRAMEBUFFER, readFrom);
    QImage image(size, QImage::Format_RGBA8888);
    {
        PixelStoreGuard alignment(GL_PACK_ALIGNMENT, 4);
        glReadPixels(0, 0, size.width(), size.height(), GL_RGBA, GL_UNSIGNED_BYTE, image.bits());
    }
    return image.mirrored(); // GL's first row is the bottom one
}

} // namespace Tavren::Vyx
