#include "render/postprocess.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textureio/textureutilities.h"
#include "render/internal/smaalookup.h"

#include <QVariant>

namespace Tavren::Vyx {

namespace {

// `edgeDetection` names the SMAA edge function for the edge pass, null for the others.
std::unique_ptr<ShaderProgram> buildProgram(const char* fragment, const char* library,
                                            const char* edgeDetection = nullptr)
{
    auto program = std::make_unique<ShaderProgram>();
    GLSLMacroProcessor macros;
    if (edgeDetection)
        macros.addDefine(QStringLiteral("SMAA_EDGE_DETECTION"), QString::fromLatin1(edgeDetection));
    program->setMacroProcessor(&macros);
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("passthroughVS.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QString::fromLatin1(fragment));
    if (library)
        program->addShaderFromFile(GL_FRAGMENT_SHADER, QString::fromLatin1(library));
    program->setMacroProcessor(nullptr);
    program->setFragDataLocations({QStringLiteral("out_FragColor")});
    VYX_CHECK_RETURN(program->compile() && program->link(), nullptr, "Anti-aliasing program failed to build:\n%s",
                     qPrintable(program->log()));
    return program;
}

std::unique_ptr<Texture> lookupTexture(int width, int height, const unsigned char* texels)
{
    auto texture = std::make_unique<Texture>();
    texture->create2D(GL_TEXTURE_2D, GL_RG8, width, height);
    if (!texture->bind())
        return nullptr;
    {
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 1);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RG, GL_UNSIGNED_BYTE, texels);
    }
    texture->unbind();
    return texture;
}

// Filter and wrap modes a pass needs on its source, put back afterwards.
class SamplingOverride
{
public:
    explicit SamplingOverride(Texture* texture) : _texture(texture)
    {
        _texture->bind();
        for (int i = 0; i < 4; ++i) {
            glGetTexParameteriv(GL_TEXTURE_2D, kNames[i], &_saved[i]);
            glTexParameteri(GL_TEXTURE_2D, kNames[i], kValues[i]);
        }
        _texture->unbind();
    }
    ~SamplingOverride()
    {
        _texture->bind();
        for (int i = 0; i < 4; ++i)
            glTexParameteri(GL_TEXTURE_2D, kNames[i], _saved[i]);
        _texture->unbind();
    }
    SamplingOverride(const SamplingOverride&) = delete;
    SamplingOverride& operator=(const SamplingOverride&) = delete;

private:
    static constexpr GLenum kNames[4] = {GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER, GL_TEXTURE_WRAP_S,
                                         GL_TEXTURE_WRAP_T};
    static constexpr GLint kValues[4] = {GL_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE};
    Texture* _texture;
    GLint _saved[4] = {};
};

QVariant unitOf(Texture* texture) { return QVariant(texture->unit()); }

} // namespace

struct PostProcess::Resources
{
    // Indexed by pass: copy, FXAA, SMAA luma edges, SMAA colour edges, SMAA weights, SMAA blend.
    std::unique_ptr<ShaderProgram> programs[6];
    std::unique_ptr<Texture> area, search, edges, weights;
    int width = 0, height = 0;
};

PostProcess::PostProcess() : _resources(std::make_unique<Resources>()) {}
PostProcess::~PostProcess() = default;

PostProcess::Mode PostProcess::modeFromString(const QString& name, bool* ok)
{
    const QString lower = name.toLower();
    const Mode mode = lower == QLatin1String("fxaa") ? eFXAA : (lower == QLatin1String("smaa") ? eSMAA : eNone);
    if (ok)
        *ok = mode != eNone || lower == QLatin1String("none");
    return mode;
}

ShaderProgram* PostProcess::program(Mode mode, int pass)
{
    const int index = mode == eNone ? 0 : (mode == eFXAA ? 1 : 2 + pass);
    std::unique_ptr<ShaderProgram>& slot = _resources->programs[index];
    if (!slot) {
        switch (index) {
        case 0: slot = buildProgram("PostProcess_Copy.frag", nullptr); break;
        case 1: slot = buildProgram("PostProcess_FXAA.frag", "FXAA.glslc"); break;
        case 2: slot = buildProgram("PostProcess_SMAAEdges.frag", nullptr, "SMAALumaEdgeDetection"); break;
        case 3: slot = buildProgram("PostProcess_SMAAEdges.frag", nullptr, "SMAAColorEdgeDetection"); break;
        case 4: slot = buildProgram("PostProcess_SMAAWeights.frag", nullptr); break;
        default: slot = buildProgram("PostProcess_SMAABlend.frag", nullptr); break;
        }
    }
    return slot.get();
}

bool PostProcess::apply(Mode mode, Texture* source, Texture* destination)
{
    VYX_CHECK_RETURN(source && destination && source != destination, false,
                     "Anti-aliasing needs a source and a distinct destination texture");
    VYX_CHECK_RETURN(source->target() == GL_TEXTURE_2D && destination->target() == GL_TEXTURE_2D, false,
                     "Anti-aliasing works on 2D textures only (targets 0x%X, 0x%X)", source->target(),
                     destination->target());
    GLint size[4] = {};
    const GLenum query[2] = {GL_TEXTURE_WIDTH, GL_TEXTURE_HEIGHT};
    Texture* textures[2] = {source, destination};
    for (int i = 0; i < 4; ++i) {
        textures[i / 2]->bind();
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, query[i % 2], &size[i]);
        textures[i / 2]->unbind();
    }
    VYX_CHECK_RETURN(size[0] > 0 && size[0] == size[2] && size[1] == size[3], false,
                     "Anti-aliasing source (%dx%d) and destination (%dx%d) must have one non-empty size", size[0],
                     size[1], size[2], size[3]);

    SamplingOverride sampling(source);
    if (mode == eSMAA)
        return applySmaa(source, destination, size[0], size[1]);
    ShaderProgram* pass = program(mode, 0);
    if (!pass)
        return false;
    ProcessTexture(pass, {}, source, destination);
    return true;
}

bool PostProcess::applySmaa(Texture* source, Texture* destination, int width, int height)
{
    ShaderProgram* edgePass = program(eSMAA, _smaaColorEdges ? 1 : 0);
    ShaderProgram* weightPass = program(eSMAA, 2);
    ShaderProgram* blendPass = program(eSMAA, 3);
    if (!edgePass || !weightPass || !blendPass)
        return false;
    Resources& r = *_resources;
    if (!r.area) {
        r.area = lookupTexture(SmaaLookup::kAreaSize, SmaaLookup::kAreaSize, SmaaLookup::kArea);
        r.search = lookupTexture(SmaaLookup::kSearchSize, 1, SmaaLookup::kSearch);
        VYX_CHECK_RETURN(r.area && r.search, false, "Anti-aliasing lookup textures could not be made");
    }
    if (r.width != width || r.height != height) {
        r.edges = std::make_unique<Texture>();
        r.edges->create2D(GL_TEXTURE_2D, GL_RG8, width, height);
        r.weights = std::make_unique<Texture>();
        r.weights->create2D(GL_TEXTURE_2D, GL_RGBA8, width, height);
        r.width = width;
        r.height = height;
    }

    ProcessTexture(edgePass, {}, source, r.edges.get());
    r.area->bind();
    r.search->bind();
    ProcessTexture(weightPass, {{QStringLiteral("u_Area"), unitOf(r.area.get())},
                                {QStringLiteral("u_Search"), unitOf(r.search.get())}},
                   r.edges.get(), r.weights.get());
    r.search->unbind();
    r.area->unbind();
    r.weights->bind();
    ProcessTexture(blendPass, {{QStringLiteral("u_Blend"), unitOf(r.weights.get())}}, source, destination);
    r.weights->unbind();
    return true;
}

} // namespace Tavren::Vyx
