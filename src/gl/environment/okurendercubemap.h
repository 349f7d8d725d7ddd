#pragma once

#include "core/vyxexport.h"

#include <QGenericMatrix>
#include <QMatrix4x4>
#include <QPair>
#include <QSharedPointer>
#include <QStringList>
#include <QString>
#include <QVector>

#include <memory>

namespace Tavren::Vyx {

class DrawBuffers;
class GLSLMacroProcessor;
class ShaderProgram;
class Texture;

// Renders the unit cube around the origin once per face into that face of a cube map (or of
// layers of a cube map array), with a fragment shader that reads the interpolated normal, the
// direction from the centre. Subclasses pick the shaders and feed them.
class VYXGL_EXPORT OkuRenderCubemapBase
{
public:
    OkuRenderCubemapBase();
    virtual ~OkuRenderCubemapBase();
    OkuRenderCubemapBase(const OkuRenderCubemapBase&) = delete;
    OkuRenderCubemapBase& operator=(const OkuRenderCubemapBase&) = delete;

    // Renders `level` of layers firstLayer ... firstLayer + layerCount - 1 of the target, up to
    // batchSize() layers per pass. Plain cube maps have the one layer 0.
    bool render(Texture* target, int level, int firstLayer = 0, int layerCount = 1);

    // Projection and view of one face, 0 = +X ... 5 = -Z.
    static QMatrix4x4 faceViewProjection(int face);

protected:
    virtual QString vertexShaderFile() const;
    virtual QString fragmentShaderFile() const = 0;
    // Extra fragment units linked in (function libraries).
    virtual QStringList extraFragmentShaderFiles() const { return {}; }
    virtual void addDefines(GLSLMacroProcessor& mp) const;
    virtual int batchSize() const { return 1; }
    // Before the faces of a pass: bind sources and set the uniforms of the given layers.
    virtual bool begin(ShaderProgram& program, int firstLayer, int layerCount);
    virtual void setFaceUniforms(ShaderProgram& program, int face);
    virtual void end() {}

private:
    bool buildProgram();
    bool buildCube();
    bool renderPass(Texture* target, int level, int firstLayer, int layerCount, int size);

    std::unique_ptr<ShaderProgram> _program;
    std::unique_ptr<GLSLMacroProcessor> _macroProcessor;
    QSharedPointer<DrawBuffers> _cube;
};

// Adds a source texture, bound on "s_texture" with the given filters while rendering; the
// source's own parameters are put back afterwards.
class VYXGL_EXPORT OkuRenderCubemapBaseTexture : public OkuRenderCubemapBase
{
public:
    OkuRenderCubemapBaseTexture(Texture* source, unsigned int minFilter, unsigned int magFilter,
                                unsigned int wrapS = 0, unsigned int wrapT = 0);

protected:
    bool begin(ShaderProgram& program, int firstLayer, int layerCount) override;
    void end() override;
    Texture* source() const { return _source; }
    // Cube-map sources filter across face edges while rendering.
    void setSeamless(bool seamless) { _seamless = seamless; }

private:
    Texture* _source;
    bool _seamless = false;
    bool _seamlessWasOn = false;
    bool _begun = false;
    // GL parameter name and value, set while rendering; saved values after begin().
    QVector<QPair<unsigned int, int>> _parameters;
    QVector<QPair<unsigned int, int>> _saved;
};

// A source of a colour space that is converted to linear while sampling.
class VYXGL_EXPORT OkuRenderCubemapColorSource : public OkuRenderCubemapBaseTexture
{
public:
    using OkuRenderCubemapBaseTexture::OkuRenderCubemapBaseTexture;
    void setColorSpace(int colorSpace) { _colorSpace = colorSpace; }

protected:
    QStringList extraFragmentShaderFiles() const override;
    void addDefines(GLSLMacroProcessor& mp) const override;

private:
    int _colorSpace = 0;
};

class VYXGL_EXPORT OkuRenderCubemap_Cross : public OkuRenderCubemapColorSource
{
public:
    OkuRenderCubemap_Cross(Texture* source, bool vertical);
    // The cell and orientation of each face: maps the unnormalised normal to source uv.
    static QMatrix4x2 normalToUv(int face, bool vertical);

protected:
    QString fragmentShaderFile() const override { return QStringLiteral("CubeRender_Cross.frag"); }
    void setFaceUniforms(ShaderProgram& program, int face) override;

private:
    bool _vertical;
};

class VYXGL_EXPORT OkuRenderCubemap_LatLongSphere : public OkuRenderCubemapColorSource
{
public:
    explicit OkuRenderCubemap_LatLongSphere(Texture* source);

protected:
    QString fragmentShaderFile() const override { return QStringLiteral("CubeRender_LatLongSphere.frag"); }
};

class VYXGL_EXPORT OkuRenderCubemap_Sphere : public OkuRenderCubemapColorSource
{
public:
    explicit OkuRenderCubemap_Sphere(Texture* source);

protected:
    QString fragmentShaderFile() const override { return QStringLiteral("CubeRender_Sphere.frag"); }
};

// Cube-map sources: one amount per layer in "s_blur[i].value", seamless filtering on; the
// batch size reaches the shader through the named define.
class VYXGL_EXPORT OkuRenderCubemapBatched : public OkuRenderCubemapBaseTexture
{
public:
    OkuRenderCubemapBatched(Texture* cubemap, QVector<float> amounts, const QString& fragmentFile,
                            const QString& batchSizeDefine);

protected:
    QString fragmentShaderFile() const override { return _fragmentFile; }
    void addDefines(GLSLMacroProcessor& mp) const override;
    int batchSize() const override;
    bool begin(ShaderProgram& program, int firstLayer, int layerCount) override;

private:
    QVector<float> _amounts;
    QString _fragmentFile;
    QString _batchSizeDefine;
};

class VYXGL_EXPORT OkuRenderCubemap_Blur : public OkuRenderCubemapBatched
{
public:
    OkuRenderCubemap_Blur(Texture* cubemap, QVector<float> amounts);
};

class VYXGL_EXPORT OkuRenderCubemap_NDotL : public OkuRenderCubemapBatched
{
public:
    OkuRenderCubemap_NDotL(Texture* cubemap, QVector<float> amounts);
};

// The diffuse map from a table of environment blocks (see createIrradianceCubemapFromGLCubemap):
// each row of the GL_RGBA32F source holds blocks of three vectors, red, green and blue, whose
// clamped dot products with the direction add up to the irradiance over pi.
class VYXGL_EXPORT OkuRenderCubemap_Irradiance : public OkuRenderCubemapBaseTexture
{
public:
    explicit OkuRenderCubemap_Irradiance(Texture* blockTable);

protected:
    QString fragmentShaderFile() const override { return QStringLiteral("CubeRender_Irradiance.frag"); }
};

// One mip level of the prefiltered specular map, by filtered importance sampling of a mipmapped
// source: each sample reads the source level matching the solid angle it stands for. Lights
// taken out of the source (see createPrefilteredEnvMapFromGLCubemap) are added exactly.
class VYXGL_EXPORT OkuRenderCubemap_Prefiltered : public OkuRenderCubemapBaseTexture
{
public:
    explicit OkuRenderCubemap_Prefiltered(Texture* cubemap);
    void setRoughness(float roughness) { _roughness = roughness; }
    void setSamples(int samples) { _samples = samples; }
    // Face size of the level about to be rendered; roughness 0 reads the source level of that size.
    void setOutputSize(int size) { _outputSize = size; }
    // Up to kMaxLights lights, four vec4 each: the light's direction with its solid angle, its
    // radiance with its angular size (the root of the solid angle), and the two edge vectors of
    // the texel it came from, on the plane of its cube face.
    static constexpr int kMaxLights = 24;
    // The environment's mean radiance (luminance) tells how far a narrow lobe must look for them.
    void setLights(const QVector<float>& lights, double meanRadiance)
    {
        _lights = lights;
        _meanRadiance = meanRadiance;
    }
    // A GL_RGBA32F table of the source in blocks, a row of two texels per block: the direction of
    // its power's centre, and its power (radiance times solid angle). Lobes of roughness 0.5 and
    // up (alpha 0.25, where GGX is smooth across a block) are summed over the blocks rather
    // than sampled. Not owned.
    void setBlocks(Texture* table) { _blocks = table; }

protected:
    QString vertexShaderFile() const override { return QStringLiteral("prefilteredEnvMapVS.glslc"); }
    QString fragmentShaderFile() const override { return QStringLiteral("prefilteredEnvMapFS.glslc"); }
    QStringList extraFragmentShaderFiles() const override;
    void addDefines(GLSLMacroProcessor& mp) const override;
    bool begin(ShaderProgram& program, int firstLayer, int layerCount) override;
    void end() override;

private:
    int _samples = 64;
    float _roughness = 0.0f;
    int _outputSize = 0;
    QVector<float> _lights;
    double _meanRadiance = 0.0;
    Texture* _blocks = nullptr;
    bool _blocksBound = false;
};

} // namespace Tavren::Vyx
