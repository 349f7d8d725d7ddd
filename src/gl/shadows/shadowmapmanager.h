#pragma once

#include "core/vyxexport.h"

#include <QMatrix4x4>
#include <QObject>
#include <QPair>
#include <QVariant>
#include <QVector3D>
#include <QVector>

namespace Tavren::Vyx {

class GLSLMacroProcessor;
class ShaderProgram;
class Texture;

// A light as the shadow code sees it. Point and spot lights look down -Z of their transform;
// a directional light shines along +Z, the axis along which its projectors' depth grows.
class VYXGL_EXPORT ShadowMapLight : public QObject
{
    Q_OBJECT

public:
    enum Type : qint32 { Point = 0, Spot = 1, Directional = 2 };
    Q_ENUM(Type)

    explicit ShadowMapLight(QObject* parent = nullptr);

    Type type() const { return _type; }
    void setType(Type type) { _type = type; }
    bool on() const { return _on; }
    void setOn(bool on) { _on = on; }
    bool shadowCaster() const { return _shadowCaster; }
    void setShadowCaster(bool caster) { _shadowCaster = caster; }
    // Cascades of a directional light; fewer than one counts as one.
    int csmLevels() const { return _csmLevels; }
    void setCSMLevels(int levels) { _csmLevels = levels; }
    // Half-angle of a spot light's cone, in radians.
    float spotCutoff() const { return _spotCutoff; }
    void setSpotCutoff(float cutoff) { _spotCutoff = cutoff; }
    // Light to world.
    const QMatrix4x4& transform() const { return _transform; }
    void setTransform(const QMatrix4x4& transform) { _transform = transform; }

private:
    Type _type = Point;
    bool _on = true;
    bool _shadowCaster = true;
    qint32 _csmLevels = 0;
    float _spotCutoff = -1.0f;
    QMatrix4x4 _transform;
};

// What processLights produced and bind() uploads: every projector matrix and, per light, the run
// of projectors that belongs to it. Projector j renders into layer j of the projection texture.
class VYXGL_EXPORT ShadowMapRenderData : public QObject
{
    Q_OBJECT

public:
    // One projector matrix in the layout a mat4 uniform takes (column-major floats).
    struct VYXGL_EXPORT Transform
    {
        Transform() = default;
        Transform(const QMatrix4x4& matrix) { *this = matrix; }
        Transform& operator=(const QMatrix4x4& matrix);
        bool operator==(const QMatrix4x4& matrix) const;
        QMatrix4x4 toMatrix() const;
        float m[16] = {};
    };
    // Read in GLSL as an ivec2: .x = count, .y = index of the first projector.
    struct ProjectorInfo
    {
        quint32 count = 0;
        quint32 index = 0;
    };

    explicit ShadowMapRenderData(QObject* parent = nullptr);

    Texture* projectionTexture() const { return _projectionTexture; }
    void setProjectionTexture(Texture* texture) { _projectionTexture = texture; }
    int lightCount() const { return _lightCount; }
    int projectorCount() const { return _projectorCount; }
    // Stores the matrix at index; true when the stored value changed.
    bool setTransform(int index, const QMatrix4x4& matrix);

    // Width and height of each layer in texels: the renderer allocates them, and the cascade
    // fitting snaps to them.
    int shadowMapSize() const { return _shadowMapSize; }
    void setShadowMapSize(int size) { _shadowMapSize = size; }
    // The grid, in texels, that cascade centres snap to: 1, the finest, keeps shadow edges from
    // shimmering as the camera moves. A coarser one, paid for with a margin of that many texels,
    // also keeps a cascade where it is through small moves, so its map need not be drawn again:
    // for views that move every frame. At most an eighth of the map.
    int cascadeSnap() const { return _cascadeSnap; }
    void setCascadeSnap(int texels) { _cascadeSnap = texels; }

    QVector<Transform> transforms;
    QVector<ProjectorInfo> projectorInfos;

private:
    friend class ShadowMapManager;

    Texture* _projectionTexture = nullptr;
    qint32 _lightCount = 0;
    qint32 _projectorCount = 0;
    int _shadowMapSize = 1024;
    int _cascadeSnap = 1;
};

// Turns lights into shadow projectors and hands them to shaders that use "ShadowMapManager.glslc".
class VYXGL_EXPORT ShadowMapManager
{
public:
    using Light = ShadowMapLight;
    using RenderData = ShadowMapRenderData;

    static constexpr int kShadowMapInfoArraySizeMax = 32;
    static constexpr int kShadowMapTransformArraySizeMax = 32;
    // Depth range of the point and spot projectors.
    static constexpr float kPerspectiveNear = 0.1f;
    static constexpr float kPerspectiveFar = 100.0f;

    static void setup(GLSLMacroProcessor* mp);
    static QString getShaderFile();

    // Fills data from a list of lights (or one light); true when anything in data changed, so
    // unchanged shadow maps need not be rendered again. Directional lights get cascades fitted
    // to the camera when view, projection and scene bounds are given.
    static bool processLights(const QVariant& lights, RenderData& data, const QMatrix4x4* view,
                              const QMatrix4x4* projection, const QPair<QVector3D, QVector3D>* sceneBounds);
    static bool processLights(const QVariant& lights, RenderData& data);
    // The same for lights the caller already holds as lights; a null entry is reported and skipped.
    static bool processLights(const QVector<const Light*>& lights, RenderData& data, const QMatrix4x4* view = nullptr,
                              const QMatrix4x4* projection = nullptr,
                              const QPair<QVector3D, QVector3D>* sceneBounds = nullptr);

    // Binds the projection texture and, with a program, sets the shadow uniforms.
    static bool bind(ShaderProgram* program, const QVariant& renderData);
    static bool unbind(ShaderProgram* program, const QVariant& renderData);
    static bool bind(ShaderProgram* program, RenderData& renderData);
    static bool unbind(ShaderProgram* program, RenderData& renderData);

    static void setVarianceClamping(float clamp);
    static float varianceClamping();

private:
    // The six point-light faces: a slightly wider than 90 degree projection times the face's
    // view, so that neighbouring faces overlap by a few texels and filtering has no seams.
    static void setupSextant();
};

} // namespace Tavren::Vyx
