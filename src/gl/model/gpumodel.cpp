#include "gl/model/gpumodel.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/model/internal/gpumodelindirect.h"
#include "gl/objects/vertexarrayobject.h"

#include <QSet>

#include <algorithm>

namespace Tavren::Vyx {

namespace {

const QString kModelMatrix = QStringLiteral("ModelMatrix");
const QString kModelNormalMatrix = QStringLiteral("ModelNormalMatrix");

// Stable merge sort: each half sorted, then merged, ties taken from the left half.
template <typename T, typename Less>
void mergeSort(QVector<T>& items, QVector<T>& scratch, int begin, int end, Less less)
{
    if (end - begin < 2)
        return;
    const int middle = begin + (end - begin) / 2;
    mergeSort(items, scratch, begin, middle, less);
    mergeSort(items, scratch, middle, end, less);
    int left = begin, right = middle, out = begin;
    while (left < middle && right < end)
        scratch[out++] = less(items[right], items[left]) ? items[right++] : items[left++];
    while (left < middle)
        scratch[out++] = items[left++];
    while (right < end)
        scratch[out++] = items[right++];
    for (int i = begin; i < end; ++i)
        items[i] = scratch[i];
}

// A zero row (translation included) marks an object scaled to nothing. A flattened basis
// vector alone does not: the object is kept, and draws nothing on its own.
bool scalesToNothing(const QMatrix4x4& world)
{
    const float* w = world.constData(); // column-major
    for (int i = 0; i < 3; ++i) {
        if (w[i] * w[i] + w[4 + i] * w[4 + i] + w[8 + i] * w[8 + i] + w[12 + i] * w[12 + i] < 1e-6f)
            return true;
    }
    return false;
}

} // namespace

GPUModel::GPUModel()
    : _indirect(QSharedPointer<GPUModelDetail::IndirectCache>::create())
{
    _selected.reserve(1000);
}

GPUModel::GPUModel(const GPUModel& other) = default;
GPUModel& GPUModel::operator=(const GPUModel& other) = default;
GPUModel::~GPUModel() = default;

// ---------------------------------------------------------------------------------------------
// Building

int GPUModel::appendDrawable(DrawBuffers* db, int materialIndex, InstanceDataCollection* materialData,
                             InstanceDataCollection* objectData, const quint64& flags, bool perCommand)
{
    Drawable d;
    d.drawBuffers = db;
    d.materialData = materialData;
    d.objectData = objectData;
    d.flags = flags;
    d.id = _drawableIds.size();
    const int commands = perCommand && db ? std::max(db->numDrawCommands(), 0) : 0;
    d.transformRefs.fill(kInvalidTransformRef, commands);
    d.boundingBoxRefs.fill(kInvalidBoundingBoxRef, commands);
    d.culled.fill(false, commands);
    if (!_drawables.isEmpty() && _drawables.last().flags > flags)
        _unsorted = true;
    _drawableIds.append(_drawables.size());
    _drawableMaterials.append(materialIndex);
    _materialMap[materialIndex].append(_drawables.size());
    _materialOrderStale = true;
    _drawables.append(d);
    _slotBase.push_back(int(_worldBoxes.size()));
    _worldBoxes.resize(_worldBoxes.size() + size_t(commands));
    _boxState.resize(_worldBoxes.size(), 0);
    _bounds.emplace_back();
    _hiddenCommands.push_back(0);
    _cullableCommands.push_back(0);
    _verdictsStale = true;
    return d.id;
}

int GPUModel::add(DrawBuffers* db, int materialIndex, InstanceDataCollection* materialData,
                  InstanceDataCollection* objectData, const quint64& flags)
{
    VYX_CHECK_CONTINUE(db, "GPUModel::add() without draw buffers");
    _cullingApplied = true;
    return appendDrawable(db, materialIndex, materialData, objectData, flags, true);
}

int GPUModel::addSimple(DrawBuffers* db, int, InstanceDataCollection* materialData,
                        InstanceDataCollection* objectData, const quint64& flags)
{
    return appendDrawable(db, 0, materialData, objectData, flags, false);
}

void GPUModel::set(int drawable, DrawBuffers* db, InstanceDataCollection* materialData,
                   InstanceDataCollection* objectData, quint64 flags, quint64 mask)
{
    VYX_CHECK_RETURN(isDrawableIndex(drawable), , "No drawable %d", drawable);
    Drawable& d = _drawables[drawable];
    d.drawBuffers = db;
    d.materialData = materialData;
    d.objectData = objectData;
    d.flags = (d.flags & ~mask) | (flags & mask);
}

void GPUModel::setFlags(quint64 flags)
{
    for (int i = 0; i < _drawables.size(); ++i)
        setFlags(flags, i);
}

void GPUModel::setFlags(quint64 flags, int drawable)
{
    VYX_CHECK_RETURN(isDrawableIndex(drawable), , "No drawable %d", drawable);
    // Edited drawables keep their place; only add() asks for a sort.
    _drawables[drawable].flags = flags;
}

void GPUModel::addFlags(quint64 flags)
{
    for (int i = 0; i < _drawables.size(); ++i)
        addFlags(flags, i);
}

void GPUModel::addFlags(quint64 flags, int drawable)
{
    if (VYX_CHECK(isDrawableIndex(drawable), "No drawable %d", drawable))
        setFlags(_drawables[drawable].flags | flags, drawable);
}

void GPUModel::removeFlags(quint64 flags)
{
    for (int i = 0; i < _drawables.size(); ++i)
        removeFlags(flags, i);
}

void GPUModel::removeFlags(quint64 flags, int drawable)
{
    if (VYX_CHECK(isDrawableIndex(drawable), "No drawable %d", drawable))
        setFlags(_drawables[drawable].flags & ~flags, drawable);
}

quint64 GPUModel::getFlags(int drawable) const
{
    VYX_CHECK_RETURN(isDrawableIndex(drawable), 0, "No drawable %d", drawable);
    return _drawables[drawable].flags;
}

void GPUModel::sortDrawablesByFlags()
{
    if (!_unsorted)
        return;
    QVector<Drawable> scratch(_drawables.size());
    mergeSort(_drawables, scratch, 0, _drawables.size(), &GPUModel::flagsLessThan);
    for (int position = 0; position < _drawables.size(); ++position)
        _drawableIds[_drawables[position].id] = position;
    _materialMap.clear();
    _materialOrderStale = true;
    for (int position = 0; position < _drawables.size(); ++position)
        _materialMap[_drawableMaterials[_drawables[position].id]].append(position);
    // The map lists each material's drawables in order of addition.
    for (auto it = _materialMap.begin(); it != _materialMap.end(); ++it)
        std::sort(it->begin(), it->end(), [this](int a, int b) { return _drawables[a].id < _drawables[b].id; });
    _unsorted = false;
}

int GPUModel::drawableIndex(int id) const
{
    return id >= 0 && id < _drawableIds.size() ? _drawableIds[id] : -1;
}

bool GPUModel::isCommandOf(int drawable, int command) const
{
    return isDrawableIndex(drawable) && command >= 0 && command < _drawables[drawable].transformRefs.size();
}

// ---------------------------------------------------------------------------------------------
// Transforms

int GPUModel::addTransform(int parent, const QMatrix4x4& local)
{
    VYX_CHECK_RETURN(parent == kInvalidTransformRef || isValidTransform(parent), kInvalidTransformRef,
                     "Parent transform %d does not exist", parent);
    const int transform = _locals.size();
    _locals.append(local);
    _worlds.append(QMatrix4x4());
    _normals.append(QMatrix3x3());
    _normalsStale.append(false);
    _parents.append(parent);
    _mirrored.append(false);
    _dirty.append(false);
    _visibility.append(1);
    _transformUsers.append(QList<InstanceRef>());
    _children.emplace_back();
    if (parent >= 0)
        _children[size_t(parent)].push_back(transform);
    _hidden.push_back(0);
    _zeroScale.push_back(0);
    _verdictsStale = true;
    markDirty(transform);
    return transform;
}

bool GPUModel::setTransformParent(int transform, int parent)
{
    VYX_CHECK_RETURN(isValidTransform(transform), false, "No transform %d", transform);
    VYX_CHECK_RETURN(parent == kInvalidTransformRef || (isValidTransform(parent) && parent != transform &&
                                                        !isDescendant(parent, transform)),
                     false, "Transform %d cannot take %d as its parent", transform, parent);
    const int previous = _parents[transform];
    if (previous >= 0) {
        std::vector<int>& siblings = _children[size_t(previous)];
        siblings.erase(std::find(siblings.begin(), siblings.end(), transform));
    }
    if (parent >= 0)
        _children[size_t(parent)].push_back(transform);
    _parents[transform] = parent;
    _verdictsStale = true;
    markDirty(transform);
    return true;
}

int GPUModel::transformParent(int transform) const
{
    return isValidTransform(transform) ? _parents[transform] : kInvalidTransformRef;
}

bool GPUModel::isDescendant(int a, int b) const
{
    if (!isValidTransform(a) || !isValidTransform(b))
        return false;
    // Parents form no cycles (setTransformParent refuses them), so the walk ends.
    for (int p = _parents[a]; p >= 0; p = _parents[p]) {
        if (p == b)
            return true;
    }
    return false;
}

void GPUModel::setTransformName(int transform, const QString& name)
{
    VYX_CHECK_RETURN(isValidTransform(transform), , "No transform %d", transform);
    if (!_transformIndex.contains(name))
        _transformNames.append(name);
    _transformIndex.insert(name, transform);
}

void GPUModel::setLocalTransform(int transform, const QMatrix4x4& local)
{
    VYX_CHECK_RETURN(isValidTransform(transform), , "No transform %d", transform);
    _locals[transform] = local;
    markDirty(transform);
}

void GPUModel::markDirty(int transform)
{
    _anyDirty = true;
    if (_dirty[transform])
        return;
    _dirty[transform] = true;
    if (_dirtyListFull)
        return;
    if (int(_dirtyList.size()) >= _locals.size())
        _dirtyListFull = true;
    else
        _dirtyList.push_back(transform);
}

void GPUModel::setWorldTransform(int transform, const QMatrix4x4& m)
{
    VYX_CHECK_RETURN(isValidTransform(transform), , "No transform %d", transform);
    const int parent = _parents[transform];
    if (parent < 0) {
        setLocalTransform(transform, m);
        return;
    }
    // m on the left of the inverse: the world matrix becomes P m P^-1, which is m where the two
    // commute. Hosts rely on this order.
    setLocalTransform(transform, m * worldTransform(parent).inverted());
}

QMatrix4x4 GPUModel::localTransform(int transform) const
{
    return isValidTransform(transform) ? _locals[transform] : QMatrix4x4();
}

QMatrix4x4 GPUModel::worldTransform(int transform)
{
    if (!isValidTransform(transform))
        return QMatrix4x4();
    if (!_anyDirty)
        return _worlds[transform];
    // A clean transform under a dirty ancestor holds a stale matrix: recompute from the topmost
    // dirty ancestor down. Whatever hangs below a recomputed transform off this chain is marked
    // dirty, so that it follows at the next ask or updateTransforms().
    int top = -1;
    for (int t = transform; t >= 0; t = _parents[t]) {
        if (_dirty[t])
            top = t;
    }
    if (top < 0)
        return _worlds[transform];
    for (int t = transform;; t = _parents[t]) {
        for (int child : _children[size_t(t)])
            markDirty(child);
        markDirty(t);
        if (t == top)
            break;
    }
    return updateTransform(transform);
}

QMatrix3x3 GPUModel::normalTransform(int transform) const
{
    return isValidTransform(transform) ? freshNormal(transform) : QMatrix3x3();
}

const QMatrix3x3& GPUModel::freshNormal(int transform) const
{
    if (_normalsStale[transform]) {
        _normals[transform] = _worlds[transform].normalMatrix();
        _normalsStale[transform] = false;
    }
    return _normals[transform];
}

bool GPUModel::isTransformMirrored(int transform) const
{
    return isValidTransform(transform) && _mirrored[transform];
}

bool GPUModel::isTransformDirty(int transform) const
{
    for (int t = transform; isValidTransform(t); t = _parents[t]) {
        if (_dirty[t])
            return true;
    }
    return false;
}

void GPUModel::setVisibility(int transform, int state)
{
    if (!VYX_CHECK(isValidTransform(transform), "No transform %d", transform) || _visibility[transform] == state)
        return;
    _visibility[transform] = state;
    _verdictsStale = true;
}

int GPUModel::visibility(int transform) const
{
    return isValidTransform(transform) ? _visibility[transform] : 0;
}

bool GPUModel::isVisible(int transform) const
{
    const int state = visibility(transform);
    return state != 2 && state != 3;
}

bool GPUModel::isParentHidden(int transform) const
{
    if (!isValidTransform(transform))
        return false;
    for (int p = _parents[transform]; p >= 0; p = _parents[p]) {
        if (_visibility[p] == 3)
            return true;
    }
    return false;
}

bool GPUModel::updateTransforms()
{
    if (!_anyDirty)
        return false;
    const int count = _locals.size();
    if (_dirtyListFull) {
        // A child of a changed transform moves with it.
        for (int i = 0; i < count; ++i) {
            if (!_dirty[i] && _parents[i] >= 0 && isTransformDirty(_parents[i]))
                _dirty[i] = true;
        }
        for (int i = 0; i < count; ++i) {
            if (_dirty[i])
                updateTransform(i);
        }
    } else {
        markDescendantsDirty();
        std::sort(_dirtyList.begin(), _dirtyList.end());
        for (int i : _dirtyList) {
            if (_dirty[i])
                updateTransform(i);
        }
    }
    _dirtyList.clear();
    _dirtyListFull = false;
    _anyDirty = false;
    return true;
}

void GPUModel::markDescendantsDirty()
{
    // Every transform still dirty is on the list; what lies below one joins it. A dirty child is
    // on the list already and spreads to its own children when its turn comes.
    const size_t listed = _dirtyList.size();
    for (size_t k = 0; k < listed; ++k) {
        if (!_dirty[_dirtyList[k]])
            continue;
        _chain.clear();
        _chain.append(_dirtyList[k]);
        while (!_chain.isEmpty()) {
            const int t = _chain.takeLast();
            for (int child : _children[size_t(t)]) {
                if (_dirty[child])
                    continue;
                _dirty[child] = true;
                _dirtyList.push_back(child);
                _chain.append(child);
            }
        }
    }
}

QMatrix4x4 GPUModel::updateTransform(int transform)
{
    if (transform < 0)
        return QMatrix4x4();
    // Walk up to the first clean ancestor, then recompute downwards: no recursion, so a deep
    // chain cannot exhaust the stack.
    _chain.clear();
    for (int t = transform; t >= 0 && _dirty[t]; t = _parents[t])
        _chain.append(t);
    for (int k = _chain.size() - 1; k >= 0; --k) {
        const int t = _chain[k];
        const int parent = _parents[t];
        _worlds[t] = parent >= 0 ? _worlds[parent] * _locals[t] : _locals[t];
        _normalsStale[t] = true;
        // The sign of the linear part's determinant; scaling the rows would not change it.
        const QVector3D a = _worlds[t].row(0).toVector3D();
        const QVector3D b = _worlds[t].row(1).toVector3D();
        const QVector3D c = _worlds[t].row(2).toVector3D();
        _mirrored[t] = QVector3D::dotProduct(QVector3D::crossProduct(a, b), c) < 0.0f;
        const quint8 zeroScale = scalesToNothing(_worlds[t]) ? 1 : 0;
        if (_zeroScale[size_t(t)] != zeroScale) {
            _zeroScale[size_t(t)] = zeroScale;
            _verdictsStale = true;
        }
        _dirty[t] = false;
        writeObjectMatrices(t);
    }
    return _worlds[transform];
}

void GPUModel::writeObjectMatrices(int transform)
{
    const QList<InstanceRef>& users = _transformUsers[transform];
    if (users.isEmpty())
        return;
    const QMatrix4x4& world = _worlds[transform];
    for (const InstanceRef& ref : users) {
        const int position = drawableIndex(ref.drawable);
        if (position < 0)
            continue;
        refreshWorldBox(position, ref.command);
        InstanceDataCollection* data = _drawables[position].objectData;
        if (!data)
            continue;
        data->set(ref.command, kModelMatrix, world.constData(), 16 * sizeof(float));
        if (data->plan() && data->plan()->contains(kModelNormalMatrix))
            data->set(ref.command, kModelNormalMatrix, freshNormal(transform).constData(), 9 * sizeof(float));
    }
}

void GPUModel::useTransform(int drawable, int command, int transform)
{
    VYX_CHECK_RETURN(isCommandOf(drawable, command), , "No command %d in drawable %d", command, drawable);
    VYX_CHECK_RETURN(transform == kInvalidTransformRef || isValidTransform(transform), , "No transform %d", transform);
    Drawable& d = _drawables[drawable];
    const InstanceRef ref{d.id, command};
    const int previous = d.transformRefs[command];
    if (previous >= 0)
        _transformUsers[previous].removeAll(ref);
    d.transformRefs[command] = transform;
    _verdictsStale = true;
    refreshWorldBox(drawable, command);
    if (transform < 0)
        return;
    _transformUsers[transform].append(ref);
    // The new user needs the matrix even if the transform does not change again.
    markDirty(transform);
}

void GPUModel::useBoundingBox(int drawable, int command, int box)
{
    if (!VYX_CHECK(isCommandOf(drawable, command), "No command %d in drawable %d", command, drawable))
        return;
    _drawables[drawable].boundingBoxRefs[command] = box;
    refreshWorldBox(drawable, command);
}

void GPUModel::loadBoundingBoxes(const BoundingBox* boxes, int count)
{
    VYX_CHECK_RETURN(boxes || count <= 0, , "No boxes given for %d", count);
    _boxes.assign(boxes, boxes + std::max(count, 0));
    refreshWorldBoxes();
}

BoundingBox GPUModel::getBoundingBox(int box) const
{
    return isValidBoundingBox(box) ? _boxes[size_t(box)] : BoundingBox();
}

BoundingBox GPUModel::sceneBounds()
{
    updateTransforms();
    BoundingBox bounds;
    for (const Drawable& d : qAsConst(_drawables)) {
        for (int c = 0; c < d.boundingBoxRefs.size(); ++c) {
            const int box = d.boundingBoxRefs[c];
            if (!isValidBoundingBox(box))
                continue;
            const int t = d.transformRefs[c];
            bounds.unite(isValidTransform(t) ? _boxes[size_t(box)].transformed(_worlds[t]) : _boxes[size_t(box)]);
        }
    }
    return bounds;
}

// ---------------------------------------------------------------------------------------------
// Names and properties

void GPUModel::addMaterialName(int drawable, int command, const QString& name)
{
    if (VYX_CHECK(isDrawableIndex(drawable), "No drawable %d", drawable))
        _materialNames[name].append(InstanceRef{_drawables[drawable].id, command});
}

void GPUModel::addObjectName(int drawable, int command, const QString& name)
{
    if (VYX_CHECK(isDrawableIndex(drawable), "No drawable %d", drawable))
        _objectNames[name].append(InstanceRef{_drawables[drawable].id, command});
}

bool GPUModel::writeProperty(const QHash<QString, QList<InstanceRef>>& names, const QString& name,
                             const QString& property, const void* data, size_t size, bool material)
{
    auto found = names.constFind(name);
    VYX_CHECK_RETURN(found != names.cend(), false, "No %s named '%s'", material ? "material" : "object",
                     qPrintable(name));
    bool written = true;
    for (const InstanceRef& ref : *found) {
        const int position = drawableIndex(ref.drawable);
        InstanceDataCollection* collection =
            position < 0 ? nullptr : (material ? _drawables[position].materialData : _drawables[position].objectData);
        if (!collection)
            continue;
        const int record = material && collection->size() <= ref.command ? 0 : ref.command;
        written = collection->set(record, property, data, size) && written;
    }
    return written;
}

bool GPUModel::setMaterialProperty(const QString& materialName, const QString& property, const void* data,
                                   size_t size)
{
    return writeProperty(_materialNames, materialName, property, data, size, true);
}

bool GPUModel::setObjectProperty(const QString& objectName, const QString& property, const void* data, size_t size)
{
    return writeProperty(_objectNames, objectName, property, data, size, false);
}

// ---------------------------------------------------------------------------------------------
// Cameras and lights

int GPUModel::addCamera(const Camera& camera, const QString& name)
{
    _cameras.push_back(camera);
    _cameraNames.append(name);
    _cameraTransforms.append(kInvalidTransformRef);
    return int(_cameras.size()) - 1;
}

void GPUModel::setCamera(int index, const Camera& camera)
{
    if (VYX_CHECK(index >= 0 && index < getCameraCount(), "No camera %d", index))
        _cameras[size_t(index)] = camera;
}

Camera GPUModel::getCamera(int index) const
{
    return index >= 0 && index < getCameraCount() ? _cameras[size_t(index)] : Camera();
}

int GPUModel::getCameraIndex(const QString& name) const
{
    const int index = _cameraNames.indexOf(name);
    return index >= 0 ? index : kInvalidCameraIndex;
}

void GPUModel::setCameraTransform(int index, int transform)
{
    if (VYX_CHECK(index >= 0 && index < getCameraCount(), "No camera %d", index))
        _cameraTransforms[index] = transform;
}

QMatrix4x4 GPUModel::getCameraWorldSpaceMatrix(int index)
{
    VYX_CHECK_RETURN(index >= 0 && index < getCameraCount(), QMatrix4x4(), "No camera %d", index);
    const int transform = _cameraTransforms[index];
    const QMatrix4x4& local = _cameras[size_t(index)].worldMatrix();
    return isValidTransform(transform) ? worldTransform(transform) * local : local;
}

QMatrix4x4 GPUModel::getCameraProjectionMatrix(int index, float aspect) const
{
    VYX_CHECK_RETURN(index >= 0 && index < getCameraCount(), QMatrix4x4(), "No camera %d", index);
    return _cameras[size_t(index)].projectionMatrix(aspect);
}

int GPUModel::addLight(const QVariant& light, const QString& name)
{
    _lights.append(light);
    _lightNames.append(name);
    return _lights.size() - 1;
}

bool GPUModel::getLight(int index, QVariant& out) const
{
    VYX_CHECK_RETURN(index >= 0 && index < _lights.size(), false, "No light %d", index);
    out = _lights[index];
    return true;
}

QString GPUModel::lightName(int index) const
{
    return _lightNames.value(index);
}

// ---------------------------------------------------------------------------------------------
// Statistics and lifetime

quint64 GPUModel::getTotalVerts() const
{
    quint64 total = 0;
    for (const Drawable& d : _drawables)
        total += d.drawBuffers ? d.drawBuffers->numVerts() : 0;
    return total;
}

int GPUModel::maxDrawableTokens() const
{
    int material = 0, object = 0;
    for (const Drawable& d : _drawables) {
        material = std::max(material, d.materialData ? int(d.materialData->textureTokens().size()) : 0);
        object = std::max(object, d.objectData ? int(d.objectData->textureTokens().size()) : 0);
    }
    return material + object;
}

namespace {

int countSets(const QVector<GPUModel::Drawable>& drawables, const QString& prefix)
{
    constexpr int kMaxSets = 8;
    int most = 0;
    for (const GPUModel::Drawable& d : drawables) {
        if (!d.drawBuffers || d.drawBuffers->VAO().isNull())
            continue;
        int sets = 0;
        while (sets < kMaxSets && !d.drawBuffers->VAO()->bo(prefix + QString::number(sets)).isNull())
            ++sets;
        most = std::max(most, sets);
    }
    return most;
}

template <typename Estimate>
size_t sumUnique(const QVector<GPUModel::Drawable>& drawables, Estimate estimate)
{
    QSet<const void*> seen;
    size_t bytes = 0;
    auto add = [&](const auto* object) {
        if (object && !seen.contains(object)) {
            seen.insert(object);
            bytes += estimate(*object);
        }
    };
    for (const GPUModel::Drawable& d : drawables) {
        add(d.drawBuffers);
        add(d.materialData);
        add(d.objectData);
    }
    return bytes;
}

} // namespace

int GPUModel::maxUVSets() const
{
    return countSets(_drawables, QStringLiteral("va_TexCoord"));
}

int GPUModel::maxTangentSets() const
{
    return countSets(_drawables, QStringLiteral("va_Tangent"));
}

size_t GPUModel::memoryEstimateCPU() const
{
    size_t bytes = sizeof(*this) + sumUnique(_drawables, [](const auto& o) { return o.memoryEstimateCPU(); });
    for (const Drawable& d : _drawables)
        bytes += sizeof(Drawable) + size_t(d.transformRefs.size() + d.boundingBoxRefs.size()) * sizeof(int) +
                 size_t(d.culled.size());
    const size_t transforms = size_t(_locals.size());
    bytes += transforms * (2 * sizeof(QMatrix4x4) + sizeof(QMatrix3x3) + 2 * sizeof(int) + 1);
    bytes += _boxes.size() * sizeof(BoundingBox) + _cameras.size() * sizeof(Camera);
    bytes += size_t(_drawableIds.size() + _drawableMaterials.size()) * sizeof(int);
    // Culling's records: per transform, per drawable id and per command.
    bytes += transforms * (sizeof(std::vector<int>) + 2) + _dirtyList.capacity() * sizeof(int);
    bytes += _bounds.size() * (sizeof(DrawableBounds) + 3 * sizeof(int));
    bytes += _worldBoxes.size() * (sizeof(WorldBox) + 1);
    return bytes;
}

size_t GPUModel::memoryEstimateGPU() const
{
    return sumUnique(_drawables, [](const auto& o) { return o.memoryEstimateGPU(); }) + _indirect->memoryEstimateGPU();
}

void GPUModel::clear()
{
    if (_deleteOnClear) {
        QSet<QObject*> deleted;
        for (const Drawable& d : qAsConst(_drawables)) {
            for (QObject* object : {static_cast<QObject*>(d.drawBuffers), static_cast<QObject*>(d.materialData),
                                    static_cast<QObject*>(d.objectData)}) {
                if (object && !deleted.contains(object)) {
                    deleted.insert(object);
                    delete object;
                }
            }
        }
    }
    // Settings outlive the contents.
    GPUModel empty;
    empty._featureFlags = _featureFlags;
    empty._deleteOnClear = _deleteOnClear;
    empty._reflectedTransparency = _reflectedTransparency;
    *this = empty;
}

} // namespace Tavren::Vyx
