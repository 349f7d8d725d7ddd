// Culling and drawing of GPUModel.
#include "gl/model/gpumodel.h"

#include "core/logging.h"
#include "gl/platform/bindable.h"
#include "gl/objects/bufferobject.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/platform/internal/percontextrecords.h"
#include "gl/glloader.h"
#include "gl/platform/glutilities.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/model/internal/gpumodelindirect.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/drawing/plane.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/texturemanager.h"
#include "gl/objects/texture.h"
#include "gl/objects/vertexarrayobject.h"

#include <algorithm>
#include <numeric>
#include <utility>

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

} // namespace

namespace {

// The model's shared textures that the program reads, bound for the length of one draw call.
class SharedTextureScope
{
public:
    SharedTextureScope(const QVector<QPair<QString, QSharedPointer<Texture>>>& textures, const QVector<int>& locations,
                       ShaderProgram* reader)
    {
        for (int i = 0; i < textures.size() && i < locations.size(); ++i) {
            Texture* texture = textures[i].second.get();
            if (locations[i] < 0 || !texture->bind())
                continue;
            _bound.append(texture);
            reader->setUniform(locations[i], texture->unit());
        }
    }
    ~SharedTextureScope()
    {
        for (Texture* texture : qAsConst(_bound))
            texture->unbind();
    }
    SharedTextureScope(const SharedTextureScope&) = delete;
    SharedTextureScope& operator=(const SharedTextureScope&) = delete;

private:
    QVector<Texture*> _bound;
};

const QVector<int> kNoLocations;

} // namespace

const QVector<int>& GPUModel::sharedTextureLocations(ShaderProgram* program)
{
    if (!program || _sharedTextures.isEmpty())
        return kNoLocations;
    const quint64 serial = program->linkSerial();
    for (const SharedTextureLocations& entry : qAsConst(_sharedTextureLocations))
        if (entry.linkSerial == serial)
            return entry.locations;
    // Few programs draw one model; a long list means programs came and went, so start afresh.
    if (_sharedTextureLocations.size() >= 32)
        _sharedTextureLocations.clear();
    SharedTextureLocations made{serial, {}};
    for (const auto& entry : qAsConst(_sharedTextures))
        made.locations.append(program->getUniformLocation(entry.first));
    _sharedTextureLocations.append(made);
    return _sharedTextureLocations.last().locations;
}

void GPUModel::setSharedTexture(const QString& uniform, const QSharedPointer<Texture>& texture)
{
    _sharedTextureLocations.clear(); // one location per entry, in order
    for (int i = 0; i < _sharedTextures.size(); ++i)
        if (_sharedTextures[i].first == uniform) {
            if (texture)
                _sharedTextures[i].second = texture;
            else
                _sharedTextures.remove(i);
            return;
        }
    if (texture)
        _sharedTextures.append({uniform, texture});
}

Texture* GPUModel::sharedTexture(const QString& uniform) const
{
    for (const auto& entry : _sharedTextures)
        if (entry.first == uniform)
            return entry.second.get();
    return nullptr;
}

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
        InstanceDataCollection* previous = std::exchange(slot, wanted);
        if (wanted)
            return wanted->rebind(previous, program, manager);
        if (previous)
            previous->unbind(program, manager);
        return true;
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

    if (materials.isEmpty() && _materialOrderStale) {
        // Ascending material index, so the drawing order does not depend on hashing.
        _materialOrder = _materialMap.keys();
        std::sort(_materialOrder.begin(), _materialOrder.end());
        _materialOrderStale = false;
    }
    const QList<int> order = materials.isEmpty() ? _materialOrder : materials;
    refreshVerdicts();
    bool result = true;
    ShaderProgram* reader = program ? program : ShaderProgram::currentShaderProgram();
    const SharedTextureScope shared(_sharedTextures, sharedTextureLocations(reader), reader);
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
    const int commands = d.transformRefs.size();
    const bool mirrorPass = winding == eWindingCCW || winding == eWindingCW;
    if (!mirrorPass && (!honourCulling || d.culledCount == 0) && _hiddenCommands[size_t(d.id)] == 0) {
        // Nothing culled or hidden: every command, as they come.
        _selected.resize(commands);
        std::iota(_selected.begin(), _selected.end(), 0);
        _selectedWhole = true;
        return;
    }
    _selectedWhole = false;
    _selected.clear();
    const int* refs = d.transformRefs.constData();
    const bool* culled = d.culled.constData();
    const bool* mirrored = _mirrored.constData();
    const int transforms = _locals.size();
    for (int c = 0; c < commands; ++c) {
        if (honourCulling && culled[c])
            continue;
        const int t = refs[c];
        const bool valid = t >= 0 && t < transforms;
        if (mirrorPass ? valid && mirrored[t] == (winding == eWindingCW) : !valid || !_hidden[size_t(t)])
            _selected.append(c);
    }
}

QVector3D GPUModel::commandCentre(const Drawable& d, int command) const
{
    const int t = d.transformRefs[command];
    const int box = d.boundingBoxRefs[command];
    const QVector3D local = isValidBoundingBox(box) ? _boxes[size_t(box)].center() : QVector3D();
    return isValidTransform(t) ? _worlds[t].map(local) : local;
}

bool GPUModel::drawDrawable(int drawable, ShaderProgram* program, TextureManager* textureManager,
                            const WindingType& winding, const QMatrix4x4* view)
{
    VYX_CHECK_RETURN(isDrawableIndex(drawable), false, "Drawable %d does not exist", drawable);
    if (hasFeatureFlags(kSimpleDrawFeature))
        return false;
    applyWinding(winding);
    setUpPrimitiveRestart();
    refreshVerdicts();
    Drawable& d = _drawables[drawable];
    if (d.culledCount >= d.transformRefs.size())
        return true;
    ShaderProgram* reader = program ? program : ShaderProgram::currentShaderProgram();
    const SharedTextureScope shared(_sharedTextures, sharedTextureLocations(reader), reader);
    BoundState bound;
    const bool result = drawMesh(d, program, textureManager, winding, view, true, bound);
    bound.unbindAll(program, textureManager);
    if (bound.drawBuffers)
        bound.drawBuffers->unbind();
    return result;
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
        _selectedWhole = false;
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
    if (!db.isMultiDrawIndirect() && !DrawBuffers::isBaseInstanceDrawing())
        return db.draw(program, &_selected);
    const int records = _indirect->gather(db, _selected, _selectedWhole);
    if (records < 0)
        return false;
    const auto drawElementsBaseInstance =
        glCapabilityFunction<PFNVYXGLDRAWELEMENTSINSTANCEDBASEVERTEXBASEINSTANCEPROC>(
            GLCapability::DrawElementsInstancedBaseVertexBaseInstance);
    const bool direct = drawElementsBaseInstance && db.indexType() != 0 && !db.indexBO().isNull();
    // A single record needs no indirect buffer, which the driver would have to read back.
    if (db.isMultiDrawIndirect() && !(records == 1 && direct)) {
        // The list as the draw buffers hold it is in their own indirect buffer already.
        if (records == db.numDrawCommands() && _selectedWhole)
            return db.draw(program, &_selected);
        return _indirect->drawGathered(db, records);
    }
    // Base-instance drawing takes command lists one record at a time: each record's base
    // instance carries its draw ID, as the indirect path reads it.
    VYX_CHECK_RETURN(direct, false,
                     "Base-instance drawing of a command list needs an index type and the entry point");
    const int indexBytes = bytesFromInternalFormat(db.indexType());
    const auto* gathered = reinterpret_cast<const DrawElementsIndirectCommand*>(_indirect->scratch.constData());
    for (int r = 0; r < records; ++r) {
        const DrawElementsIndirectCommand& cmd = gathered[r];
        drawElementsBaseInstance(
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
    ShaderProgram* reader = program ? program : ShaderProgram::currentShaderProgram();
    const SharedTextureScope shared(_sharedTextures, sharedTextureLocations(reader), reader);
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

int IndirectCache::gather(const DrawBuffers& db, const QVector<int>& selected, bool whole)
{
    const QVector<DrawElementsIndirectCommand>& list = db.drawElementsIndirectCommands();
    Entry* entry = whole ? &entries[&db] : nullptr;
    if (entry && entry->wholeSource.constData() == list.constData() && entry->wholeSource.size() == list.size()) {
        scratch = entry->wholeRecords;
        return entry->wholeCount;
    }
    const DrawElementsIndirectCommand* commands = list.constData();
    scratch.resize(selected.size() * int(sizeof(DrawElementsIndirectCommand)));
    auto* out = reinterpret_cast<DrawElementsIndirectCommand*>(scratch.data());
    int records = 0;
    for (int c : selected) {
        VYX_CHECK_RETURN(c >= 0 && c < list.size(), -1, "Draw command %d is not in the list of %d", c, int(list.size()));
        const DrawElementsIndirectCommand& command = commands[c];
        DrawElementsIndirectCommand* last = records ? out + records - 1 : nullptr;
        if (last && last->count == command.count && last->firstIndex == command.firstIndex &&
            last->baseVertex == command.baseVertex &&
            quint64(last->baseInstance) + last->instanceCount == command.baseInstance &&
            quint64(last->instanceCount) + command.instanceCount <= 0xFFFFFFFFu)
            last->instanceCount += command.instanceCount;
        else
            out[records++] = command;
    }
    scratch.resize(records * int(sizeof(DrawElementsIndirectCommand)));
    if (entry) {
        entry->wholeSource = list;
        entry->wholeRecords = scratch;
        entry->wholeCount = records;
    }
    return records;
}

bool IndirectCache::drawGathered(const DrawBuffers& db, int records)
{
    VYX_CHECK_RETURN(db.indexType() != 0 && !db.indexBO().isNull(), false,
                     "Indirect drawing of a command subset needs an index buffer");
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
        if (!entry.buffer->uploadArbitraryData(scratch.constData(), records, GL_DYNAMIC_DRAW,
                                               sizeof(DrawElementsIndirectCommand)))
            return false;
        entry.records = scratch;
    }
    glMultiDrawElementsIndirect(db.primitiveType(), db.indexType(), nullptr, GLsizei(records),
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
