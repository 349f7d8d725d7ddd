#pragma once

#include "gl/glloader.h"
#include "gl/shaders/glslmacroprocessor.h"

#include <QMatrix4x4>
#include <QSize>
#include <QString>
#include <QVector>
#include <QVector3D>
#include <QVector4D>

#include <map>
#include <memory>

namespace Tavren::Vyx {

class ShaderProgram;
class ShadowMapRenderData;
class TextureManager;

// Everything the scene shading reads that stays the same across one frame's draws.
struct ShadingFrame
{
    QVector<QVector3D> lightColours, lightPositions, lightDirections, irradianceSH;
    QVector<GLint> lightTypes;
    QVector<GLfloat> lightRanges, lightCones;
    QMatrix4x4 viewProjection;
    QVector3D cameraPosition;
    QVector4D eye; // see u_Eye
    float exposure = 1, environmentIntensity = 1, prefilteredLevels = 1;
    int prefilteredUnit = 0, brdfUnit = 0;
    int sheenUnit = -1; // the sheen albedo table, made when a sheen variant first draws
    // The texture of the scene behind transmissive surfaces, once it has been copied.
    int transmissionUnit = -1;
    float transmissionLevels = 1;
    ShadowMapRenderData* shadows = nullptr; // null: unshadowed
    int spareUnit = 15;                     // for the unused shadow sampler
    bool alphaBlend = false;
};

// The scene shading program and its variants for combinations of material extensions, each
// built on first use with its uniform locations looked up once.
class ShadingPrograms
{
public:
    struct Program
    {
        std::unique_ptr<ShaderProgram> program;
        GLint lightCount, lightType, lightRange, lightCone, lightColor, lightPosition, lightDirection, irradianceSH;
        GLint viewProjection, eye, exposure, environmentIntensity, prefilteredLevels, prefilteredMap;
        GLint brdfTable, shadowsEnabled, shadowMapDepthSampler, alphaBlend, transmissionMap, transmissionLevels;
        GLint sheenAlbedo;
        QString error; // why it did not link, when it did not
    };

    ShadingPrograms();
    ~ShadingPrograms();
    void setTextureManager(TextureManager* manager) { _manager = manager; }

    // The variant for SceneMaterial's extension flags, for draws that bind at most tokensPerDraw
    // texture tokens at once (see TextureManager::setupForDraws); null with error set if it does
    // not link.
    Program* get(quint64 extensionFlags, int tokensPerDraw, QString& error);
    // Binds the program and hands it the frame; end() undoes what begin() bound.
    static bool begin(Program& program, const ShadingFrame& frame);
    static void end(Program& program, const ShadingFrame& frame);

private:
    TextureManager* _manager = nullptr;
    std::map<std::pair<quint64, int>, Program> _programs;
};

} // namespace Tavren::Vyx
