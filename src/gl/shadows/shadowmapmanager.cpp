#include "gl/shadows/shadowmapmanager.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shadows/shadowmapmanagerculling.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/objects/texture.h"

#include <QtMath>

#include <algorithm>
#include <array>
#include <cstdio>

// Line and text of the check belong to the site that writes the projector.
#define VYX_CHECK_PROJECTOR_IN_SYNC(projectorInfo, projectorIndex) \
    static_cast<void>(VYX_CHECK_AS(int(projectorInfo.index + projectorInfo.count) == projectorIndex, \
                                   "(projectorInfo.index + projectorInfo.count) == projectorIndex", \
                                   "projection Info (%d,%d) and projectorIndex %d are out of sync", \
                                   int(projectorInfo.index), int(projectorInfo.count), projectorIndex))

namespace Tavren::Vyx {

static_assert((2 * sizeof(GLuint)) == sizeof(ShadowMapRenderData::ProjectorInfo),
              "projector records are uploaded as ivec2");
static_assert(sizeof(ShadowMapRenderData::Transform) == 16 * sizeof(GLfloat), "transforms are uploaded as mat4");

namespace {

float s_varianceClamp = 0.1f;
std::array<QMatrix4x4, 6> s_sextant;

// Each face reaches this far past 90 degrees (as tan of the half-angle), so faces overlap.
constexpr float kSextantHalfTangent = 1.02f;

QVariantList lightList(const QVariant& lights)
{
    if (lights.canConvert<QVariantList>() && !lights.canConvert<QObject*>())
        return lights.value<QVariantList>();
    return QVariantList{lights};
}

QMatrix4x4 spotProjector(float cutoff)
{
    QMatrix4x4 matrix;
    // Identity look-at, then the projection: the order is kept as it always was.
    matrix.lookAt(QVector3D(0, 0, 0), QVector3D(0, 0, -1), QVector3D(0, 1, 0));
    matrix.perspective(cutoff * 360.0f / float(M_PI), 1.0f, ShadowMapManager::kPerspectiveNear,
                       ShadowMapManager::kPerspectiveFar);
    return matrix;
}

QMatrix4x4 directionalFallbackProjector()
{
    QMatrix4x4 matrix;
    matrix.scale(0.25f, 0.25f, 1.0f);
    matrix.scale(1.0f, 1.0f, 1.0f / 12.0f);
    matrix.translate(0.0f, 0.0f, 6.0f);
    return matrix;
}

ShadowMapRenderData* resolveRenderData(const QVariant& dataVariant)
{
    VYX_CHECK_RETURN(false == dataVariant.isNull(), nullptr, "NULL render data variant used");
    VYX_CHECK_RETURN(true == dataVariant.canConvert<QObject*>(), nullptr, "render data is not a 'QObject*' type is '%s'",
                     dataVariant.typeName());
    QObject* object = dataVariant.value<QObject*>();
    if (!VYX_CHECK_AS(object != nullptr, "NULL != dataVariant.value<QObject*>()", "NULL QObject render data"))
        return nullptr;
    auto* renderData = qobject_cast<ShadowMapRenderData*>(object);
    if (!renderData) {
        std::printf("Type '%s'\n", object->metaObject()->className());
        std::fflush(stdout);
    }
    VYX_CHECK_RETURN(NULL != renderData, nullptr, "NULL render data used");
    return renderData;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Light and render data

ShadowMapLight::ShadowMapLight(QObject* parent)
    : QObject(parent)
{
}

ShadowMapRenderData::Transform& ShadowMapRenderData::Transform::operator=(const QMatrix4x4& matrix)
{
    std::copy(matrix.constData(), matrix.constData() + 16, m);
    return *this;
}

bool ShadowMapRenderData::Transform::operator==(const QMatrix4x4& matrix) const
{
    return std::equal(m, m + 16, matrix.constData());
}

QMatrix4x4 ShadowMapRenderData::Transform::toMatrix() const
{
    return QMatrix4x4(m).transposed(); // the constructor takes rows
}

ShadowMapRenderData::ShadowMapRenderData(QObject* parent)
    : QObject(parent)
    , transforms(ShadowMapManager::kShadowMapTransformArraySizeMax)
    , projectorInfos(ShadowMapManager::kShadowMapInfoArraySizeMax)
{
}

bool ShadowMapRenderData::setTransform(int index, const QMatrix4x4& matrix)
{
    VYX_CHECK_RETURN(index >= 0 && index < transforms.size(), false, "Transform index %d outside the %d transforms",
                     index, int(transforms.size()));
    if (transforms[index] == matrix)
        return false;
    transforms[index] = matrix;
    return true;
}

// ---------------------------------------------------------------------------------------------
// Manager

void ShadowMapManager::setup(GLSLMacroProcessor* mp)
{
    if (!mp)
        return;
    mp->addDefine(QStringLiteral("SHADOW_MAP_MANAGER_USE_VARIANCE_MAPS"), QStringLiteral("1"));
    mp->addDefine(QStringLiteral("SHADOW_MAP_MANAGER_INFO_ARRAY_SIZE"), QString::number(kShadowMapInfoArraySizeMax));
    mp->addDefine(QStringLiteral("SHADOW_MAP_MANAGER_TRANSFORM_ARRAY_SIZE"),
                  QString::number(kShadowMapTransformArraySizeMax));
}

QString ShadowMapManager::getShaderFile()
{
    return QStringLiteral("ShadowMapManager.glslc");
}

void ShadowMapManager::setVarianceClamping(float clamp)
{
    s_varianceClamp = clamp;
}

float ShadowMapManager::varianceClamping()
{
    return s_varianceClamp;
}

void ShadowMapManager::setupSextant()
{
    // Cube-map face order and orientation: +X, -X, +Y, -Y, +Z, -Z.
    static const QVector3D kDirections[6] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    static const QVector3D kUps[6] = {{0, -1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}, {0, -1, 0}, {0, -1, 0}};
    const float fieldOfView = qRadiansToDegrees(2.0f * std::atan(kSextantHalfTangent));
    for (int face = 0; face < 6; ++face) {
        QMatrix4x4 matrix;
        matrix.perspective(fieldOfView, 1.0f, kPerspectiveNear, kPerspectiveFar);
        matrix.lookAt(QVector3D(0, 0, 0), kDirections[face], kUps[face]);
        s_sextant[face] = matrix;
    }
}

bool ShadowMapManager::processLights(const QVariant& lights, RenderData& data)
{
    return processLights(lights, data, nullptr, nullptr, nullptr);
}

bool ShadowMapManager::processLights(const QVariant& lights, RenderData& data, const QMatrix4x4* view,
                                     const QMatrix4x4* projection, const QPair<QVector3D, QVector3D>* sceneBounds)
{
    if (lights.isNull()) {
        setupSextant();
        const bool changed = data._lightCount != 0;
        data._lightCount = 0;
        return changed;
    }
    QVector<const Light*> typed;
    for (const QVariant& light : lightList(lights))
        typed.append(qobject_cast<const Light*>(light.value<QObject*>()));
    return processLights(typed, data, view, projection, sceneBounds);
}

bool ShadowMapManager::processLights(const QVector<const Light*>& list, RenderData& data, const QMatrix4x4* view,
                                     const QMatrix4x4* projection, const QPair<QVector3D, QVector3D>* sceneBounds)
{
    setupSextant();
    const int lightCapacity = int(data.projectorInfos.size());
    const int projectorCapacity = int(data.transforms.size());

    ShadowMapManagerCulling culling;
    culling.setupCameras(view, projection);
    culling.setupScene(sceneBounds);
    culling.setupPost();

    if (list.size() > lightCapacity)
        VYX_DEBUG("More lights %d than shadow projection supports %d. Ignoring top most.", int(list.size()),
                  lightCapacity);

    bool changed = false;
    int projectorIndex = 0;
    for (int i = 0; i < lightCapacity; ++i) {
        RenderData::ProjectorInfo& projectorInfo = data.projectorInfos[i];
        const RenderData::ProjectorInfo before = projectorInfo;
        projectorInfo = {0u, quint32(projectorIndex)};
        // Records past the last light are reset too, so stale lights read as unshadowed.
        const Light* light = i < list.size() ? list[i] : nullptr;
        if (i < list.size() && VYX_CHECK_AS(light != nullptr, "NULL != light", "Light %d is NULL", i)
            && projectorIndex < projectorCapacity && light->on() && light->shadowCaster()) {
            bool invertible = false;
            const QMatrix4x4 worldToLight = light->transform().inverted(&invertible);
            if (!invertible) {
                VYX_WARNING("Light %d has a transform that cannot be inverted; it casts no shadow", i);
            } else if (light->type() == Light::Point) {
                for (int face = 0; face < 6 && projectorIndex < projectorCapacity; ++face) {
                    VYX_CHECK_PROJECTOR_IN_SYNC(projectorInfo, projectorIndex);
                    changed |= data.setTransform(projectorIndex++, s_sextant[face] * worldToLight);
                    ++projectorInfo.count;
                }
            } else if (light->type() == Light::Spot) {
                if (light->spotCutoff() > 0.0f && light->spotCutoff() < float(M_PI_2)) {
                    VYX_CHECK_PROJECTOR_IN_SYNC(projectorInfo, projectorIndex);
                    changed |= data.setTransform(projectorIndex++, spotProjector(light->spotCutoff()) * worldToLight);
                    projectorInfo.count = 1;
                } else {
                    VYX_WARNING("Spot light %d has cutoff %g outside (0, pi/2); it casts no shadow", i,
                                double(light->spotCutoff()));
                }
            } else if (light->type() == Light::Directional) {
                VYX_CHECK_PROJECTOR_IN_SYNC(projectorInfo, projectorIndex);
                if (!culling.processLightDirectional(data, projectorInfo, *light, projectorCapacity, changed)) {
                    changed |= data.setTransform(projectorIndex, directionalFallbackProjector() * worldToLight);
                    projectorInfo.count = 1;
                }
                projectorIndex += int(projectorInfo.count);
            }
        }
        changed |= before.count != projectorInfo.count || before.index != projectorInfo.index;
    }

    changed |= data._projectorCount != projectorIndex || data._lightCount != list.size();
    data._projectorCount = projectorIndex;
    data._lightCount = int(list.size());
    return changed;
}

bool ShadowMapManager::bind(ShaderProgram* program, const QVariant& dataVariant)
{
    RenderData* renderData = resolveRenderData(dataVariant);
    return renderData && bind(program, *renderData);
}

bool ShadowMapManager::bind(ShaderProgram* program, RenderData& data)
{
    RenderData* renderData = &data;
    Texture* texture = renderData->projectionTexture();
    VYX_CHECK_RETURN(NULL != texture, false, "NULL render data texture used");
    if (!texture->bind())
        return false;
    if (!program)
        return true;

    program->setUniform(program->getUniformLocation(QStringLiteral("u_ShadowMapDepthSampler")),
                        renderData->projectionTexture()->unit());
    program->setUniform(QStringLiteral("u_VarianceClamp"), QVariant(s_varianceClamp));
    // Every entry goes up, used or not: the shader arrays have exactly this size.
    if (VYX_CHECK(kShadowMapInfoArraySizeMax == renderData->projectorInfos.size(),
                  "Projector Info Array size %d does not match size required by shader %d",
                  int(renderData->projectorInfos.size()), kShadowMapInfoArraySizeMax)) {
        const int location = program->getUniformLocation(QStringLiteral("u_ShadowMapProjectionInfos"));
        if (location >= 0)
            glUniform2iv(location, kShadowMapInfoArraySizeMax,
                         reinterpret_cast<const GLint*>(renderData->projectorInfos.constData()));
    }
    if (VYX_CHECK(kShadowMapTransformArraySizeMax == renderData->transforms.size(),
                  "Projector Info Array size %d does not match size required by shader %d",
                  int(renderData->transforms.size()), kShadowMapTransformArraySizeMax)) {
        const int location = program->getUniformLocation(QStringLiteral("u_ShadowMapProjectionTransforms"));
        if (location >= 0)
            glUniformMatrix4fv(location, kShadowMapTransformArraySizeMax, GL_FALSE, renderData->transforms.constData()->m);
    }
    return true;
}

bool ShadowMapManager::unbind(ShaderProgram* program, const QVariant& dataVariant)
{
    RenderData* renderData = resolveRenderData(dataVariant);
    return renderData && unbind(program, *renderData);
}

bool ShadowMapManager::unbind(ShaderProgram*, RenderData& data)
{
    Texture* texture = data.projectionTexture();
    VYX_CHECK_RETURN(NULL != texture, false, "NULL render data texture used");
    return texture->unbind();
}

} // namespace Tavren::Vyx
