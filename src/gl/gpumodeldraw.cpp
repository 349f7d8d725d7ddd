// Culling and drawing of GPUModel.
#include "gl/gpumodel.h"

#include "core/logging.h"
#include "gl/bindable.h"
#include "gl/bufferobject.h"
#include "gl/drawbuffers.h"
#include "gl/internal/percontextrecords.h"
#include "gl/glloader.h"
#include "gl/glutilities.h"
#include "gl/instancedatacollection.h"
#include "gl/internal/gpumodelindirect.h"
#include "gl/opengldevicecontext.h"
#include "gl/plane.h"
#include "gl/shaderprogram.h"
#include "gl/texturemanager.h"
#include "gl/vertexarrayobject.h"

#include <algorithm>

namespace Tavren::Vyx {

namespace {

constexpr GLuint kPrimitiveRestartIndex = 0xFFFFFFFFu;

// Restart is context state: each context is set up once, the first time a model draws in it.
PerContextRecords<bool> primitiveRestart;

void setUpPrimitiveRestart()
{
    primitiveRestart.withCurrentPrepared(
        [](bool&, void*) {
            glEnable(GL_PRIMITIVE_RESTART);
            glPrimitiveRestartIndex(kPrimitiveRestartIndex);
        },
        [](bool&) {});
}

void applyWinding(GPUModel::WindingType winding)
{
    switch (winding) {
    case GPUModel::eWindingKeepState:
        break;
    case GPUModel::eWindingCCW:
        glEnable(GL_CULL_FACE);
        glFrontFace(GL_CCW);
        break;
    case GPUModel::eWindingCW:
        glEnable(GL_CULL_FACE);
        glFrontFace(GL_CW);
        break;
    default:
        glDisable(GL_CULL_FACE);
        break;
    }
}

bool isPlainOrder(const QVector<int>& selected, int commands)
{
    if (selected.size() != commands)
        return false;
    for (int i = 0; i < commands; ++i) {
        if (selected[i] != i)
            return false;
    }
    return true;
}

} // namespace

// What the previous drawable of a draw call left bound.
struct GPUModel::BoundState
{
    InstanceDataCollection* materialData = nullptr;
    InstanceDataCollection* objectData = nullptr;
    TextureManager* textureManager = nullptr;
    DrawBuffers* drawBuffers = nullptr;

    bool bindCollection(InstanceDataCollection*& slot, InstanceDataCollection* wanted, ShaderProgram* program,
                        TextureManager* manager)
    {
        if (slot)
            slot->unbind(program, manager);
        slot = wanted;
        return !wanted || wanted->bind(program, manager);
    }

    void unbindAll(ShaderProgram* program, TextureManager* manager)
    {
        if (textureManager)
            textureManager->unbind(program);
        bindCollection(materialData, nullptr, program, manager);
        bindCollection(objectData, nullptr, program, manager);
        textureManager = nullptr;
    }
};

// ---------------------------------------------------------------------------------------------
// Culling

bool GPUModel::isCommandCulled(int drawable, int command) const
{
    return isCommandOf(drawable, command) && _drawables[drawable].culled[command];
}

int GPUModel::visibilityCull()
{
    _cullingApplied = true;
    const int transforms = _locals.size();
    int newlyCulled = 0;
    for (Drawable& d : _drawables) {
        const int commands = d.transformRefs.size();
        if (d.flags & kHiddenFlag) {
            newlyCulled += commands - d.culledCount;
            d.culled.fill(true, commands);
            d.culledCount = commands;
            continue;
        }
        for (int c = 0; c < commands; ++c) {
            if (d.culled[c])
                continue;
            const int t = d.transformRefs[c];
            bool cull;
            if (t < 0 || t >= transforms || _visibility[t] == 2 || _visibility[t] == 3) {
                cull = true;
            } else {
                const int p = _parents[t];
                if (p >= 0 && (_visibility[p] == 3 || isParentHidden(p))) {
                    cull = true;
                } else if (_dirty[t] || (p >= 0 && _dirty[p])) {
                    cull = false; // waits for a fresh matrix
                } else {
                    // A zero row, or a zero basis vector: an object scaled to nothing draws nothing.
                    const float* w = _worlds[t].constData(); // column-major
                    const auto squared = [](float a, float b, float c, float d) { return a * a + b * b + c * c + d * d; };
                    cull = false;
                    for (int i = 0; i < 3 && !cull; ++i)
                        cull = squared(w[i], w[4 + i], w[8 + i], w[12 + i]) < 1e-6f ||
                               squared(w[4 * i], w[4 * i + 1], w[4 * i + 2], 0.0f) < 1e-6f;
                }
            }
            if (cull) {
                d.culled[c] = true;
                ++d.culledCount;
                ++newlyCulled;
            }
        }
    }
    return newlyCulled;
}

int GPUModel::frustumCull(const QMatrix4x4& viewProjection)
{
    _cullingApplied = true;
    const Frustum worldFrustum(viewProjection);
    int newlyCulled = 0;
    for (Drawable& d : _drawables) {
        for (int c = 0; c < d.transformRefs.size(); ++c) {
            const int box = d.boundingBoxRefs[c];
            if (d.culled[c] || !isValidBoundingBox(box))
                continue;
            const int t = d.transformRefs[c];
            const BoundingBox& local = _boxes[size_t(box)];
            if (!worldFrustum.intersects(isValidTransform(t) ? local.transformed(_worlds[t]) : local)) {
                d.culled[c] = true;
                ++d.culledCount;
                ++newlyCulled;
            }
        }
    }
    return newlyCulled;
}

void GPUModel::resetCulling()
{
    for (Drawable& d : _drawables) {
        if (d.culledCount == 0)
            continue;
        std::fill(d.culled.begin(), d.culled.end(), false);
        d.culledCount = 0;
    }
}

bool GPUModel::isDrawEmpty(quint64 flags, quint64 mask) const
{
    const bool simple = hasFeatureFlags(kSimpleDrawFeature);
    for (const Drawable& d : _drawables) {
        if ((d.flags & mask) == (flags & mask) && (simple || d.culledCount < d.transformRefs.size()))
            return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Drawing

bool GPUModel::draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                    const quint64& mask)
{
    return draw(program, textureManager, flags, mask, eWindingKeepState, nullptr, {}, {}, true);
}

bool GPUModel::draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                    const quint64& mask, const WindingType& winding, bool honourCulling)
{
    return draw(program, textureManager, flags, mask, winding, nullptr, {}, {}, honourCulling);
}

bool GPUModel::draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                    const quint64& mask, const WindingType& winding, const QMatrix4x4* view, bool honourCulling)
{
    return draw(program, textureManager, flags, mask, winding, view, {}, {}, honourCulling);
}

bool GPUModel::draw(ShaderProgram* program, const quint64& flags, const quint64& mask, const WindingType& winding,
                    bool honourCulling)
{
    return draw(program, nullptr, flags, mask, winding, nullptr, {}, {}, honourCulling);
}

bool GPUModel::drawMaterials(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                             const quint64& mask, const WindingType& winding, const QMatrix4x4* view,
                             const QList<int>& materials)
{
    return draw(program, textureManager, flags, mask, winding, view, materials, {}, true);
}

bool GPUModel::drawExclude(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                           const quint64& mask, const WindingType& winding, const QMatrix4x4* view,
                           const QList<int>& excluded)
{
    return draw(program, textureManager, flags, mask, winding, view, {}, excluded, true);
}

bool GPUModel::drawExclude(ShaderProgram* program, const quint64& flags, const quint64& mask,
                           const WindingType& winding, const QList<int>& excluded)
{
    return draw(program, nullptr, flags, mask, winding, nullptr, {}, excluded, true);
}

bool GPUModel::draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                    const quint64& mask, const WindingType& winding, const QMatrix4x4* view,
                    const QList<int>& materials, const QList<int>& excluded, bool honourCulling)
{
    if (hasFeatureFlags(kSimpleDrawFeature))
        return drawSimple(program, textureManager, flags, mask);
    applyWinding(winding);
    bool stencilWasOn = false;
    if (_reflectedTransparency) {
        stencilWasOn = glIsEnabled(GL_STENCIL_TEST);
        glEnable(GL_STENCIL_TEST);
        glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
        glStencilMask(255);
    }
    setUpPrimitiveRestart();

    QList<int> order = materials;
    if (order.isEmpty()) {
        // Ascending material index, so the drawing order does not depend on hashing.
        order = _materialMap.keys();
        std::sort(order.begin(), order.end());
    }
    bool result = true;
    BoundState bound;
    for (int material : qAsConst(order)) {
        if (excluded.contains(material))
            continue;
        auto entry = _materialMap.constFind(material);
        if (entry == _materialMap.cend())
            continue;
        bool first = true;
        for (int position : *entry) {
            Drawable& d = _drawables[position];
            const int commands = d.transformRefs.size();
            if ((d.flags & mask) != (flags & mask) ||
                (honourCulling ? d.culledCount >= commands : (commands == 0 || (d.flags & kHiddenFlag))))
                continue;
            if (first && _reflectedTransparency)
                glStencilFunc(GL_ALWAYS, material + 1, 255); // each material tags its pixels
            first = false;
            if (!drawMesh(d, program, textureManager, winding, view, honourCulling, bound))
                result = false;
        }
    }
    bound.unbindAll(program, textureManager);
    if (_reflectedTransparency && !stencilWasOn)
        glDisable(GL_STENCIL_TEST);
    if (bound.drawBuffers)
        bound.drawBuffers->unbind();
    return result;
}

void GPUModel::selectCommands(const Drawable& d, const WindingType& winding, bool honourCulling)
{
    _selected.clear();
    const bool mirrorPass = winding == eWindingCCW || winding == eWindingCW;
    for (int c = 0; c < d.transformRefs.size(); ++c) {
        if (honourCulling && d.culled[c])
            continue;
        const int t = d.transformRefs[c];
        if (mirrorPass) {
            if (isValidTransform(t) && _mirrored[t] == (winding == eWindingCW))
                _selected.append(c);
        } else if (!isValidTransform(t) || (_visibility[t] != 2 && _visibility[t] != 3 && !isParentHidden(t))) {
            _selected.append(c);
        }
    }
}

QVector3D GPUModel::commandCentre(const Drawable& d, int command) const
{
    const int t = d.transformRefs[command];
    const int box = d.boundingBoxRefs[command];
    const QVector3D local = isValidBoundingBox(box) ? _boxes[size_t(box)].center() : QVector3D();
    return isValidTransform(t) ? _worlds[t].map(local) : local;
}

bool GPUModel::drawMesh(Drawable& d, ShaderProgram* program, TextureManager* textureManager,
                        const WindingType& winding, const QMatrix4x4* view, bool honourCulling, BoundState& bound)
{
    VYX_CHECK_RETURN(d.drawBuffers, false, "Drawable %d has no draw buffers", d.id);
    selectCommands(d, winding, honourCulling);
    if (_selected.isEmpty())
        return true;
    if ((d.flags & kSortBackToFrontFlag) && view) {
        const QVector3D camera = view->inverted().column(3).toVector3D();
        QVector<QPair<float, int>> byDistance;
        byDistance.reserve(_selected.size());
        for (int c : qAsConst(_selected))
            byDistance.append({(commandCentre(d, c) - camera).lengthSquared(), c});
        // Farthest first, so nearer transparent pieces blend over farther ones.
        std::stable_sort(byDistance.begin(), byDistance.end(),
                         [](const QPair<float, int>& a, const QPair<float, int>& b) { return a.first > b.first; });
        for (int i = 0; i < byDistance.size(); ++i)
            _selected[i] = byDistance[i].second;
    }

    // Bind what differs from the previous drawable, in order: material data, object data, the
    // texture manager (after the collections, which hand it their tokens), then the geometry.
    const bool materialChanged = d.materialData != bound.materialData;
    const bool objectChanged = d.objectData != bound.objectData;
    const auto hasTokens = [](const InstanceDataCollection* c) { return c && !c->textureTokens().isEmpty(); };
    const bool tokensChanged = (materialChanged && (hasTokens(d.materialData) || hasTokens(bound.materialData))) ||
                               (objectChanged && (hasTokens(d.objectData) || hasTokens(bound.objectData)));
    const bool managerChanged = textureManager != bound.textureManager || tokensChanged;
    if (managerChanged && bound.textureManager) {
        bound.textureManager->unbind(program);
        bound.textureManager = nullptr;
    }
    bool ok = true;
    if (materialChanged)
        ok = bound.bindCollection(bound.materialData, d.materialData, program, textureManager) && ok;
    if (objectChanged)
        ok = bound.bindCollection(bound.objectData, d.objectData, program, textureManager) && ok;
    if (managerChanged && textureManager) {
        ok = textureManager->bind(program) && ok;
        bound.textureManager = textureManager;
    }
    if (d.drawBuffers != bound.drawBuffers) {
        const bool geometryBound = bound.drawBuffers ? d.drawBuffers->rebind(bound.drawBuffers) : d.drawBuffers->bind();
        if (!geometryBound)
            return false;
        bound.drawBuffers = d.drawBuffers;
        const ShaderProgram* arraysFor = program ? program : ShaderProgram::currentShaderProgram();
        if (arraysFor && !d.drawBuffers->VAO()->enableShaderProgramArrays(arraysFor))
            return false;
    }
    return issueCommands(d, program) && ok;
}

bool GPUModel::issueCommands(Drawable& d, ShaderProgram* program)
{
    DrawBuffers& db = *d.drawBuffers;
    if (db.isMultiDrawIndirect() && !isPlainOrder(_selected, db.numDrawCommands()))
        return _indirect->drawSubset(db, _selected);
    if (db.isMultiDrawIndirect() || !DrawBuffers::isBaseInstanceDrawing())
        return db.draw(program, &_selected);
    // Base-instance drawing takes command lists one command at a time: each command's base
    // instance carries its draw ID, as the indirect path reads it.
    VYX_CHECK_RETURN(glDrawElementsInstancedBaseVertexBaseInstance && db.indexType() != 0, false,
                     "Base-instance drawing of a command list needs an index type and the entry point");
    const int indexBytes = bytesFromInternalFormat(db.indexType());
    const QVector<DrawElementsIndirectCommand>& commands = db.drawElementsIndirectCommands();
    for (int c : qAsConst(_selected)) {
        const DrawElementsIndirectCommand& cmd = commands[c];
        glDrawElementsInstancedBaseVertexBaseInstance(
            db.primitiveType(), GLsizei(cmd.count), db.indexType(),
            reinterpret_cast<const void*>(quintptr(cmd.firstIndex) * quintptr(indexBytes)), GLsizei(cmd.instanceCount),
            GLint(cmd.baseVertex), cmd.baseInstance);
    }
    return true;
}

bool GPUModel::drawSimple(ShaderProgram* program, TextureManager* textureManager, quint64 flags, quint64 mask)
{
    setUpPrimitiveRestart();
    bool result = true;
    for (Drawable& d : _drawables) {
        if ((d.flags & mask) != (flags & mask))
            continue;
        if (!VYX_CHECK(d.drawBuffers, "Drawable %d has no draw buffers", d.id)) {
            result = false;
            continue;
        }
        BoundState bound;
        bool ok = bound.bindCollection(bound.materialData, d.materialData, program, textureManager);
        ok = bound.bindCollection(bound.objectData, d.objectData, program, textureManager) && ok;
        if (textureManager) {
            ok = textureManager->bind(program) && ok;
            bound.textureManager = textureManager;
        }
        if (d.drawBuffers->bind()) {
            const ShaderProgram* arraysFor = program ? program : ShaderProgram::currentShaderProgram();
            ok = (!arraysFor || d.drawBuffers->VAO()->enableShaderProgramArrays(arraysFor)) && ok;
            ok = d.drawBuffers->draw(program) && ok;
            d.drawBuffers->unbind();
        } else {
            ok = false;
        }
        bound.unbindAll(program, textureManager);
        result = result && ok;
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// Indirect buffers for partial command lists

namespace GPUModelDetail {

bool IndirectCache::drawSubset(const DrawBuffers& db, const QVector<int>& selected)
{
    VYX_CHECK_RETURN(db.indexType() != 0 && !db.indexBO().isNull(), false,
                     "Indirect drawing of a command subset needs an index buffer");
    const QVector<DrawElementsIndirectCommand>& commands = db.drawElementsIndirectCommands();
    scratch.resize(selected.size() * int(sizeof(DrawElementsIndirectCommand)));
    auto* out = reinterpret_cast<DrawElementsIndirectCommand*>(scratch.data());
    for (int i = 0; i < selected.size(); ++i)
        out[i] = commands[selected[i]];
    Entry& entry = entries[&db];
    if (entry.buffer.isNull()) {
        auto device = OpenGLDeviceContext::current();
        VYX_CHECK_RETURN(device, false, "No device context for an indirect buffer");
        entry.buffer = device->newBuffer();
        entry.buffer->setTarget(GL_DRAW_INDIRECT_BUFFER);
    }
    AutoBinder indirect(entry.buffer.data());
    if (!indirect.isBound())
        return false;
    if (entry.records != scratch) {
        if (!entry.buffer->uploadArbitraryData(scratch.constData(), selected.size(), GL_DYNAMIC_DRAW,
                                               sizeof(DrawElementsIndirectCommand)))
            return false;
        entry.records = scratch;
    }
    glMultiDrawElementsIndirect(db.primitiveType(), db.indexType(), nullptr, GLsizei(selected.size()),
                                sizeof(DrawElementsIndirectCommand));
    return true;
}

size_t IndirectCache::memoryEstimateGPU() const
{
    size_t bytes = 0;
    for (const Entry& entry : entries)
        bytes += size_t(entry.records.size());
    return bytes;
}

} // namespace GPUModelDetail

} // namespace Tavren::Vyx
