#pragma once

#include "core/vyxexport.h"

#include <QMatrix4x4>
#include <QString>
#include <QVector>

#include <functional>
#include <map>
#include <memory>

namespace Tavren::Vyx {

class FramebufferObject;
class GPUModel;
class ShaderProgram;
class ShadowMapRenderData;
class Texture;
class TextureManager;

// Renders the depth moments that the shadow lookups sample: for every projector of a render
// data, the first and second moment of the nearest caster's depth into its layer of an RG32F
// array texture, optionally blurred. Texels no caster covers hold (1, 1), and so does the border
// the lookups read outside a projector's square, so both count as "nothing there".
//
// The scene is a GPUModel, or comes from the caller: `draw` runs once per projector with the
// moments program bound. That program reads positions from the attribute "va_Vertex" and places
// them with the uniform mat4 "u_ModelMatrix" (reset to identity before each call), then
// "u_ShadowMapProjector".
class VYXGL_EXPORT ShadowMapRenderer
{
public:
    using DrawFunction = std::function<void(ShaderProgram& momentsProgram, const QMatrix4x4& projector)>;

    ShadowMapRenderer();
    ~ShadowMapRenderer();
    ShadowMapRenderer(const ShadowMapRenderer&) = delete;
    ShadowMapRenderer& operator=(const ShadowMapRenderer&) = delete;

    // Half-width in texels (up to 16) of the separable Gaussian run over each layer after it is
    // drawn; 0 = none.
    void setBlurRadius(int texels);
    int blurRadius() const { return _blurRadius; }

    // Renders data.projectorCount() layers of data.shadowMapSize() squared texels into the
    // renderer's own texture, which it makes the data's projection texture. Restores what
    // RenderStateGuard records (framebuffers, viewport, blend, depth and culling state, clear values).
    bool render(ShadowMapRenderData& data, const DrawFunction& draw);
    // The same for the model's drawables whose flags match (flags & mask), say mask
    // GPUModel::kSortBackToFrontFlag to leave out the transparent ones. Hidden drawables and
    // transforms stay out, camera culling is ignored: casters outside the view still throw
    // shadows into it. Faces are not culled. The drawables drawn must share one object-data plan
    // with a mat4 "ModelMatrix", read by draw ID as the model's own shaders do; false, with
    // nothing drawn, when they do not. `textureManager` is the one the model's texture tokens
    // come from (null: TextureManager::Instance()), as for GPUModel::draw.
    bool render(ShadowMapRenderData& data, GPUModel& model, quint64 flags = 0, quint64 mask = 0,
                TextureManager* textureManager = nullptr);

    // One selection of a model's drawables, (flags & mask) as above, and how they cast. Cut-outs
    // carry SceneMaterial records as their material data and throw no shadow where their base
    // colour's alpha (factor times map, through the map's texture transform) is below the
    // record's cutoff, or below `defaultCutoff` for records without one; their vertex arrays
    // give "va_TexCoord0" and "va_TexCoord1" where the map reads them. Each selection has its
    // own object-data plan rule as above.
    struct Casters
    {
        quint64 flags = 0;
        quint64 mask = 0;
        bool cutOut = false;
        float defaultCutoff = 0.5f;
        // No skin or morph target moves these casters: their program leaves deformation out.
        bool rigid = false;
    };
    bool render(ShadowMapRenderData& data, GPUModel& model, const QVector<Casters>& selections,
                TextureManager* textureManager = nullptr);

    Texture* texture() const { return _moments.get(); }

private:
    bool prepare(int size, int layers);
    // Draws every projector's layer with `program` bound and its projector set.
    bool renderLayers(ShadowMapRenderData& data, const std::function<void(const QMatrix4x4& projector)>& draw);
    void blurLayer(int layer);
    // The moments program for the plans of the drawables a selection holds; `empty` tells that
    // it holds none. Null, with a report, when they share no plan or the program fails.
    ShaderProgram* modelProgram(const GPUModel& model, const Casters& casters, TextureManager* textureManager,
                                bool& empty);

    std::unique_ptr<ShaderProgram> _momentsProgram, _blurProgram;
    // Model programs by plans, draw-ID source and texture-manager set-up.
    std::map<QString, std::unique_ptr<ShaderProgram>> _modelPrograms;
    std::unique_ptr<Texture> _moments, _depth, _scratch;
    std::unique_ptr<FramebufferObject> _framebuffer;
    unsigned int _emptyVertexArray = 0;
    int _size = 0, _layers = 0, _blurRadius = 0;
    int _blurProgramRadius = 0; // what _blurProgram was compiled for
};

} // namespace Tavren::Vyx
