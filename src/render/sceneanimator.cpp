#include "render/sceneanimator.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/objects/texturebuffer.h"
#include "render/internal/scenedeformation.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace Tavren::Vyx {

namespace {

constexpr int kBoundSamples = 64; // poses per animation that its boxes must hold
// Vertex-influence products per pose up to which a box is made from every deformed vertex; past
// it, from per-joint boxes, looser but independent of the vertex count.
constexpr size_t kExactBoxBudget = 1 << 16;

// T * R * S written out: a frame poses every animated node, and three general products cost
// several times this.
QMatrix4x4 trs(const AnimationPose::Node& n)
{
    const QQuaternion& q = n.rotation;
    const float length = std::sqrt(q.x() * q.x() + q.y() * q.y() + q.z() * q.z() + q.scalar() * q.scalar());
    const float k = length > 0 ? 1 / length : 0;
    const float x = q.x() * k, y = q.y() * k, z = q.z() * k, w = length > 0 ? q.scalar() * k : 1;
    const QVector3D& s = n.scale;
    const QVector3D& t = n.translation;
    return QMatrix4x4((1 - 2 * (y * y + z * z)) * s.x(), 2 * (x * y - w * z) * s.y(), 2 * (x * z + w * y) * s.z(), t.x(),
                      2 * (x * y + w * z) * s.x(), (1 - 2 * (x * x + z * z)) * s.y(), 2 * (y * z - w * x) * s.z(), t.y(),
                      2 * (x * z - w * y) * s.x(), 2 * (y * z + w * x) * s.y(), (1 - 2 * (x * x + y * y)) * s.z(), t.z(),
                      0, 0, 0, 1);
}

// a * b for column-major matrices, four rows at a time, which the compiler turns into vector
// arithmetic.
inline void product(const float* a, const float* b, float* __restrict out)
{
    for (int column = 0; column < 4; ++column) {
        const float* in = b + 4 * column;
        for (int row = 0; row < 4; ++row)
            out[4 * column + row] = a[row] * in[0] + a[4 + row] * in[1] + a[8 + row] * in[2] + a[12 + row] * in[3];
    }
}

// a * b * c for affine a, b and c, into `out` with its last row set to 0 0 0 1: a frame makes
// one per joint. a * b is left a general product so that it can stay in registers: setting its
// last row goes through memory, and the second product then waits on those stores.
void affineProduct(const float* a, const float* b, const float* c, float* __restrict out)
{
    float ab[16];
    product(a, b, ab);
    product(ab, c, out);
    for (int column = 0; column < 4; ++column)
        out[4 * column + 3] = column == 3 ? 1.0f : 0.0f;
}

// The box `delta` scaled by a weight that may be negative.
BoundingBox scaled(const BoundingBox& delta, float weight)
{
    const QVector3D a = delta.minimum() * weight, b = delta.maximum() * weight;
    return BoundingBox(QVector3D(std::min(a.x(), b.x()), std::min(a.y(), b.y()), std::min(a.z(), b.z())),
                       QVector3D(std::max(a.x(), b.x()), std::max(a.y(), b.y()), std::max(a.z(), b.z())));
}

BoundingBox minkowski(const BoundingBox& a, const BoundingBox& b)
{
    return BoundingBox(a.minimum() + b.minimum(), a.maximum() + b.maximum());
}

// Uploads the listed texel ranges of the pose; neighbouring ranges go up together.
bool uploadTexels(SceneAnimator::Private& d, std::vector<std::pair<int, int>>& ranges)
{
    std::sort(ranges.begin(), ranges.end());
    bool ok = true;
    for (size_t i = 0; i < ranges.size();) {
        int begin = ranges[i].first, end = begin + ranges[i].second;
        for (++i; i < ranges.size() && ranges[i].first <= end; ++i)
            end = std::max(end, ranges[i].first + ranges[i].second);
        ok = d.poseBuffer->update(begin, d.pose.data() + 4 * size_t(begin), end - begin) && ok;
    }
    return ok;
}

} // namespace

SceneAnimator::Private::Private(std::shared_ptr<const SceneData> data, GPUModel& target)
    : scene(std::move(data)), model(target)
{
    const size_t n = scene->nodes.size();
    nodeTransforms.assign(n, GPUModel::kInvalidTransformRef);
    parents.assign(n, -1);
    moved.assign(n, false);
    for (size_t i = 0; i < n; ++i)
        for (int child : scene->nodes[i].children)
            parents[size_t(child)] = int(i);
    // The reader made sure every node has at most one parent and no cycle runs through them.
    std::vector<int> stack;
    for (size_t i = 0; i < n; ++i)
        if (parents[i] < 0)
            stack.push_back(int(i));
    while (!stack.empty()) {
        const int node = stack.back();
        stack.pop_back();
        order.push_back(node);
        for (int child : scene->nodes[size_t(node)].children)
            stack.push_back(child);
    }
    const size_t animations = scene->animations.size();
    samplers.resize(animations);
    poses.resize(animations);
    widened.assign(animations, false);
}

void SceneAnimator::Private::worldMatrices(const AnimationPose* pose, std::vector<QMatrix4x4>& worlds) const
{
    worlds.resize(scene->nodes.size());
    for (int node : order) {
        // glTF animates only nodes given as translation, rotation and scale.
        const SceneData::Node& rest = scene->nodes[size_t(node)];
        const QMatrix4x4 local = pose && !rest.hasMatrix ? trs(pose->nodes[size_t(node)]) : rest.localMatrix();
        const int parent = parents[size_t(node)];
        worlds[size_t(node)] = parent >= 0 ? worlds[size_t(parent)] * local : local;
    }
}

const SceneAnimator::Private::PrimitiveBounds& SceneAnimator::Private::primitiveBounds(int mesh, int primitive)
{
    const auto found = bounds.find({mesh, primitive});
    if (found != bounds.end())
        return found->second;
    const SceneData::Primitive& p = scene->meshes[size_t(mesh)].primitives[size_t(primitive)];
    PrimitiveBounds out;
    const size_t vertices = p.vertexCount();
    const size_t influences = 4 * size_t(p.influenceSets);
    std::map<quint32, BoundingBox> byJoint;
    for (size_t v = 0; v < vertices; ++v) {
        const QVector3D at(p.positions[3 * v], p.positions[3 * v + 1], p.positions[3 * v + 2]);
        out.whole.expand(at);
        for (size_t i = 0; i < influences; ++i)
            if (p.weights[v * influences + i] != 0.0f)
                byJoint[p.joints[v * influences + i]].expand(at);
    }
    for (const auto& [joint, box] : byJoint) {
        out.joints.push_back(joint);
        out.jointBoxes.push_back(box);
    }
    for (const SceneData::Primitive::MorphTarget& target : p.targets) {
        BoundingBox delta(QVector3D(0, 0, 0), QVector3D(0, 0, 0));
        for (size_t v = 0; v < target.positions.size() / 3; ++v)
            delta.expand(QVector3D(target.positions[3 * v], target.positions[3 * v + 1], target.positions[3 * v + 2]));
        out.targetDeltas.push_back(delta);
    }
    return bounds.emplace(std::make_pair(mesh, primitive), std::move(out)).first->second;
}

void SceneAnimator::Private::addCommand(int node, int transform, int mesh, int primitive, int baseVertex, int drawableId,
                                        int command, int box, QStringList& messages)
{
    const SceneData::Primitive& p = scene->meshes[size_t(mesh)].primitives[size_t(primitive)];
    const SceneData::Node& n = scene->nodes[size_t(node)];
    Command c{drawableId, command, mesh, primitive, -1, -1, box, {}};
    if (n.skin >= 0 && p.influenceSets > 0 && !scene->skins[size_t(n.skin)].joints.empty()) {
        const SceneData::Skin& skin = scene->skins[size_t(n.skin)];
        const quint32 highest = *std::max_element(p.joints.begin(), p.joints.end());
        if (highest >= skin.joints.size()) {
            messages << QStringLiteral("Mesh %1 primitive %2 uses joint %3 of skin %4, which has %5; it is drawn unskinned")
                            .arg(mesh).arg(primitive).arg(highest).arg(n.skin).arg(skin.joints.size());
        } else {
            const auto same = [&](const SkinUse& u) { return u.node == node && u.meshTransform == transform; };
            auto use = std::find_if(skins.begin(), skins.end(), same);
            if (use == skins.end()) {
                skins.push_back({node, n.skin, transform, jointTexels, {}});
                jointTexels += 4 * int(skin.joints.size());
                use = skins.end() - 1;
            }
            c.skinUse = int(use - skins.begin());
            c.data.skin[0] = use->firstTexel;
            c.data.skin[1] = int(skin.joints.size());
            c.data.skin[2] = p.influenceSets;
        }
    }
    int mask = 0;
    for (const SceneData::Primitive::MorphTarget& t : p.targets)
        mask |= (t.positions.empty() ? 0 : 1) | (t.normals.empty() ? 0 : 2) | (t.tangents.empty() ? 0 : 4);
    if (mask != 0) {
        const int targets = int(p.targets.size());
        const int stride = (mask & 1) + ((mask >> 1) & 1) + ((mask >> 2) & 1);
        auto packed = morphTexels.find({mesh, primitive});
        if (packed == morphTexels.end()) {
            packed = morphTexels.emplace(std::make_pair(mesh, primitive), int(deltas.size() / 4)).first;
            for (size_t v = 0; v < p.vertexCount(); ++v)
                for (const SceneData::Primitive::MorphTarget& t : p.targets)
                    for (const std::vector<float>* moved : {&t.positions, &t.normals, &t.tangents}) {
                        const int bit = moved == &t.positions ? 1 : moved == &t.normals ? 2 : 4;
                        if (!(mask & bit))
                            continue;
                        for (size_t k = 0; k < 3; ++k)
                            deltas.push_back(moved->empty() ? 0.0f : (*moved)[3 * v + k]);
                        deltas.push_back(0.0f);
                    }
        }
        const auto same = [&](const MorphUse& u) { return u.node == node && u.transform == transform; };
        auto use = std::find_if(morphs.begin(), morphs.end(), same);
        if (use == morphs.end()) {
            const std::vector<float>& rest = n.weights.empty() ? scene->meshes[size_t(mesh)].weights : n.weights;
            MorphUse made{node, transform, weightCount, int(scene->meshes[size_t(mesh)].weights.size()), {}};
            made.weights.assign(size_t(made.count), 0.0f);
            std::copy_n(rest.begin(), std::min(rest.size(), made.weights.size()), made.weights.begin());
            morphs.push_back(made);
            weightCount += made.count;
            use = morphs.end() - 1;
        }
        c.morphUse = int(use - morphs.begin());
        c.data.morph[0] = packed->second - baseVertex * targets * stride;
        c.data.morph[1] = targets;
        c.data.morph[2] = mask;
        c.data.morph[3] = use->firstWeight; // made absolute by finish()
    }
    if (c.skinUse >= 0 || c.morphUse >= 0)
        commands.push_back(c);
}

void SceneAnimator::Private::writeJoints(const SkinUse& use, const std::vector<QMatrix4x4>* worlds)
{
    // The model's world matrices, which the frame brings up to date anyway, unless a joint is
    // a node the scene does not reach and so has no transform there.
    const auto world = [&](int node) {
        return worlds ? (*worlds)[size_t(node)] : model.worldTransform(nodeTransforms[size_t(node)]);
    };
    const SceneData::Skin& skin = scene->skins[size_t(use.skin)];
    // Relative to the mesh's placement, whose world matrix the object record applies after the
    // skin. (Worked out from `worlds`, a GPU instance's own matrix is left out.)
    const QMatrix4x4 toMesh = (worlds ? world(use.node) : model.worldTransform(use.meshTransform)).inverted();
    float* out = pose.data() + 4 * size_t(use.firstTexel);
    for (size_t j = 0; j < skin.joints.size(); ++j, out += 16) {
        // One column per texel.
        affineProduct(toMesh.constData(), world(skin.joints[j]).constData(), skin.inverseBindMatrices[j].constData(), out);
    }
}

BoundingBox SceneAnimator::Private::commandBox(const Command& c, const std::vector<QMatrix4x4>& worlds,
                                               const std::vector<float>* animatedWeights, const AnimationPose* animation)
{
    const PrimitiveBounds& b = primitiveBounds(c.mesh, c.primitive);
    const SceneData::Primitive& p = scene->meshes[size_t(c.mesh)].primitives[size_t(c.primitive)];
    const float* weights = nullptr;
    size_t weightCount = 0;
    if (c.morphUse >= 0) {
        const MorphUse& use = morphs[size_t(c.morphUse)];
        const AnimationPose::Node* posed = animation ? &animation->nodes[size_t(use.node)] : nullptr;
        const bool animated = posed && posed->weightCount > 0 && animatedWeights;
        weights = animated ? animatedWeights->data() + posed->firstWeight : use.weights.data();
        weightCount = std::min(animated ? size_t(posed->weightCount) : use.weights.size(), p.targets.size());
    }
    std::vector<QMatrix4x4> joints;
    if (c.skinUse >= 0) {
        const SkinUse& use = skins[size_t(c.skinUse)];
        const SceneData::Skin& skin = scene->skins[size_t(use.skin)];
        const QMatrix4x4 toMesh = worlds[size_t(use.node)].inverted();
        for (size_t j = 0; j < skin.joints.size(); ++j)
            joints.push_back(toMesh * worlds[size_t(skin.joints[j])] * skin.inverseBindMatrices[j]);
    }
    BoundingBox box;
    const size_t vertices = p.vertexCount();
    if (vertices * (weightCount + 4 * size_t(p.influenceSets) + 1) <= kExactBoxBudget) {
        // Small enough to deform every vertex as the vertex stage does.
        const size_t influences = 4 * size_t(p.influenceSets);
        for (size_t v = 0; v < vertices; ++v) {
            QVector3D at(p.positions[3 * v], p.positions[3 * v + 1], p.positions[3 * v + 2]);
            for (size_t t = 0; t < weightCount; ++t)
                if (!p.targets[t].positions.empty())
                    at += weights[t] * QVector3D(p.targets[t].positions[3 * v], p.targets[t].positions[3 * v + 1],
                                                 p.targets[t].positions[3 * v + 2]);
            if (joints.empty() || influences == 0) {
                box.expand(at);
                continue;
            }
            QVector3D skinned;
            float total = 0;
            for (size_t i = 0; i < influences; ++i) {
                const float w = p.weights[v * influences + i];
                total += w;
                if (w != 0)
                    skinned += w * joints[p.joints[v * influences + i]].map(at);
            }
            box.expand(total > 0 ? skinned : at);
        }
        return box;
    }
    // Too many to deform: the morph deltas move a vertex by at most the weighted sum of the
    // targets' boxes, and a skinned vertex, a blend of its joints' transforms of it, stays inside
    // the box around each joint's transform of the vertices that joint moves.
    BoundingBox reach(QVector3D(0, 0, 0), QVector3D(0, 0, 0));
    for (size_t t = 0; t < std::min(weightCount, b.targetDeltas.size()); ++t)
        reach = minkowski(reach, scaled(b.targetDeltas[t], weights[t]));
    if (joints.empty())
        return minkowski(b.whole, reach);
    for (size_t i = 0; i < b.joints.size(); ++i)
        for (const QVector3D& corner : minkowski(b.jointBoxes[i], reach).corners())
            box.expand(joints[b.joints[i]].map(corner));
    return box;
}

bool SceneAnimator::Private::finish(QString& error, QStringList& messages)
{
    if (commands.empty())
        return true;
    // Past what one texture buffer holds, the scene still draws, at rest.
    GLint limit = 0;
    glGetIntegerv(GL_MAX_TEXTURE_BUFFER_SIZE, &limit);
    const size_t weightTexelsWanted = (size_t(weightCount) + 3) / 4;
    const bool morphsFit = deltas.size() / 4 <= size_t(limit) && size_t(jointTexels) + weightTexelsWanted <= size_t(limit);
    const bool skinsFit = size_t(jointTexels) <= size_t(limit);
    if (!morphsFit || !skinsFit) {
        messages << QStringLiteral("The scene's %1 need more than the %2 texels a texture buffer holds here; they are left at rest")
                        .arg(QLatin1String(!skinsFit ? "skins and morph targets" : "morph targets")).arg(limit);
        for (Command& c : commands) {
            c.morphUse = -1;
            c.data.morph[0] = c.data.morph[1] = c.data.morph[2] = c.data.morph[3] = 0;
            if (!skinsFit) {
                c.skinUse = -1;
                c.data.skin[0] = c.data.skin[1] = c.data.skin[2] = 0;
            }
        }
        morphs.clear();
        weightCount = 0;
        deltas.clear();
        if (!skinsFit) {
            skins.clear();
            jointTexels = 0;
        }
    }
    const int weightTexels = (weightCount + 3) / 4;
    pose.assign(4 * size_t(jointTexels + weightTexels), 0.0f);
    for (MorphUse& use : morphs) {
        use.firstWeight += 4 * jointTexels;
        std::copy(use.weights.begin(), use.weights.end(), pose.begin() + use.firstWeight);
    }
    for (const SkinUse& use : skins) {
        const std::vector<int>& joints = scene->skins[size_t(use.skin)].joints;
        unplacedJoints = unplacedJoints || std::any_of(joints.begin(), joints.end(), [&](int j) { return nodeTransforms[size_t(j)] < 0; });
    }
    std::vector<QMatrix4x4> worlds;
    worldMatrices(nullptr, worlds);
    for (const SkinUse& use : skins)
        writeJoints(use, &worlds);
    if (deltas.empty())
        deltas.assign(4, 0.0f);
    poseBuffer = QSharedPointer<TextureBuffer>::create();
    morphBuffer = QSharedPointer<TextureBuffer>::create();
    if (!poseBuffer->upload(pose.data(), int(pose.size() / 4)) || !morphBuffer->upload(deltas.data(), int(deltas.size() / 4))) {
        error = QStringLiteral("The %1 morph target texels or the %2 pose texels do not fit a texture buffer")
                    .arg(deltas.size() / 4).arg(pose.size() / 4);
        return false;
    }
    model.setSharedTexture(QStringLiteral("u_DeformData"), poseBuffer);
    model.setSharedTexture(QStringLiteral("u_MorphTargets"), morphBuffer);
    for (Command& c : commands) {
        if (c.morphUse >= 0)
            c.data.morph[3] = morphs[size_t(c.morphUse)].firstWeight;
        InstanceDataCollection* objects = model.objectData(model.drawableIndex(c.drawableId));
        objects->set(c.command, QStringLiteral("SkinData"), c.data.skin, sizeof(c.data.skin));
        objects->set(c.command, QStringLiteral("MorphData"), c.data.morph, sizeof(c.data.morph));
        // Each deformed command gets a box of its own, which the poses its animations reach widen.
        const int own = int(boxes.size());
        boxes.push_back(commandBox(c, worlds, nullptr, nullptr));
        c.box = own;
    }
    model.loadBoundingBoxes(boxes.data(), int(boxes.size()));
    for (const Command& c : commands)
        model.useBoundingBox(model.drawableIndex(c.drawableId), c.command, c.box);
    return true;
}

AnimationSampler* SceneAnimator::Private::sampler(int animation)
{
    std::unique_ptr<AnimationSampler>& made = samplers[size_t(animation)];
    if (!made) {
        made = std::make_unique<AnimationSampler>(*scene, animation);
        poses[size_t(animation)] = made->makePose();
        warnings += made->warnings();
    }
    return made.get();
}

void SceneAnimator::Private::widenBoxes(int animation)
{
    if (widened[size_t(animation)] || commands.empty())
        return;
    widened[size_t(animation)] = true;
    AnimationSampler& s = *sampler(animation);
    AnimationPose scratch = s.makePose();
    std::vector<QMatrix4x4> worlds;
    for (int i = 0; i <= kBoundSamples; ++i) {
        s.sample(s.duration() * float(i) / kBoundSamples, scratch);
        worldMatrices(&scratch, worlds);
        for (const Command& c : commands)
            boxes[size_t(c.box)].unite(commandBox(c, worlds, &scratch.weights, &scratch));
    }
    // The samples miss what happens between them; a margin covers a joint's swing in between.
    for (const Command& c : commands) {
        BoundingBox& box = boxes[size_t(c.box)];
        const QVector3D margin = box.size() * 0.05f;
        box = BoundingBox(box.minimum() - margin, box.maximum() + margin);
    }
    model.loadBoundingBoxes(boxes.data(), int(boxes.size()));
}

SceneAnimator::SceneAnimator(std::unique_ptr<Private> d)
    : _d(std::move(d))
{
}

SceneAnimator::~SceneAnimator() = default;

int SceneAnimator::animationCount() const
{
    return int(_d->scene->animations.size());
}

QString SceneAnimator::animationName(int animation) const
{
    if (animation < 0 || animation >= animationCount())
        return QString();
    const QString& name = _d->scene->animations[size_t(animation)].name;
    return name.isEmpty() ? QStringLiteral("animation%1").arg(animation) : name;
}

float SceneAnimator::duration(int animation) const
{
    return animation >= 0 && animation < animationCount() ? _d->sampler(animation)->duration() : 0.0f;
}

int SceneAnimator::channelCount(int animation) const
{
    return animation >= 0 && animation < animationCount() ? _d->sampler(animation)->channelCount() : 0;
}

int SceneAnimator::findAnimation(const QString& nameOrNumber) const
{
    for (int a = 0; a < animationCount(); ++a)
        if (_d->scene->animations[size_t(a)].name == nameOrNumber)
            return a;
    bool number = false;
    const int index = nameOrNumber.toInt(&number);
    return number && index >= 0 && index < animationCount() ? index : -1;
}

QStringList SceneAnimator::warnings() const
{
    return _d->warnings;
}

bool SceneAnimator::reset()
{
    Private& d = *_d;
    d.model.noteDeformationChanged();
    for (size_t n = 0; n < d.moved.size(); ++n)
        if (d.moved[n] && d.nodeTransforms[n] >= 0)
            d.model.setLocalTransform(d.nodeTransforms[n], d.scene->nodes[n].localMatrix());
    d.moved.assign(d.moved.size(), false);
    d.lastAnimation = -2;
    if (d.commands.empty())
        return true;
    for (Private::MorphUse& use : d.morphs) {
        const SceneData::Node& node = d.scene->nodes[size_t(use.node)];
        const std::vector<float>& rest = node.weights.empty() ? d.scene->meshes[size_t(node.mesh)].weights : node.weights;
        std::fill(use.weights.begin(), use.weights.end(), 0.0f);
        std::copy_n(rest.begin(), std::min(rest.size(), use.weights.size()), use.weights.begin());
        std::copy(use.weights.begin(), use.weights.end(), d.pose.begin() + use.firstWeight);
    }
    std::vector<QMatrix4x4> rest;
    if (d.unplacedJoints)
        d.worldMatrices(nullptr, rest);
    for (const Private::SkinUse& use : d.skins)
        d.writeJoints(use, d.unplacedJoints ? &rest : nullptr);
    return d.poseBuffer->update(0, d.pose.data(), int(d.pose.size() / 4));
}

bool SceneAnimator::setTime(int animation, float seconds)
{
    Private& d = *_d;
    if (animation < -1 || animation >= animationCount() || !std::isfinite(seconds))
        return VYX_CHECK(false, "There is no animation %d to play at %g s", animation, double(seconds));
    d.model.noteDeformationChanged();
    if (animation != d.lastAnimation && !reset())
        return false;
    const int first = animation < 0 ? 0 : animation, last = animation < 0 ? animationCount() - 1 : animation;
    std::vector<char>& changed = d.changed;
    changed.assign(d.scene->nodes.size(), 0);
    std::vector<std::pair<int, int>>& texels = d.texels;
    texels.clear();
    for (int a = first; a <= last; ++a) {
        d.widenBoxes(a);
        AnimationPose& pose = d.poses[size_t(a)];
        for (int node : d.sampler(a)->sample(seconds, pose)) {
            changed[size_t(node)] = d.moved[size_t(node)] = true;
            if (d.nodeTransforms[size_t(node)] >= 0)
                d.model.setLocalTransform(d.nodeTransforms[size_t(node)], trs(pose.nodes[size_t(node)]));
            const AnimationPose::Node& posed = pose.nodes[size_t(node)];
            for (Private::MorphUse& use : d.morphs)
                if (use.node == node && posed.weightCount > 0) {
                    const size_t count = std::min(use.weights.size(), size_t(posed.weightCount));
                    std::copy_n(pose.weightsOf(node), count, use.weights.begin());
                    std::copy_n(use.weights.begin(), count, d.pose.begin() + use.firstWeight);
                    const int firstTexel = use.firstWeight / 4;
                    texels.emplace_back(firstTexel, (use.firstWeight + int(count) + 3) / 4 - firstTexel);
                }
        }
    }
    d.lastAnimation = animation;
    if (d.skins.empty())
        return uploadTexels(d, texels);
    // A node's world matrix changed when it or an ancestor moved.
    for (int node : d.order)
        if (d.parents[size_t(node)] >= 0 && changed[size_t(d.parents[size_t(node)])])
            changed[size_t(node)] = true;
    std::vector<QMatrix4x4>& worlds = d.worlds;
    if (d.unplacedJoints) {
        // Each animation's pose holds the nodes it moves; the others sit at rest.
        AnimationPose& combined = d.combined;
        combined.nodes.resize(d.scene->nodes.size());
        for (size_t n = 0; n < combined.nodes.size(); ++n) {
            const SceneData::Node& rest = d.scene->nodes[n];
            combined.nodes[n] = {rest.translation, rest.rotation, rest.scale, 0, 0};
        }
        for (int a = first; a <= last; ++a)
            for (int node : d.samplers[size_t(a)]->animatedNodes())
                combined.nodes[size_t(node)] = d.poses[size_t(a)].nodes[size_t(node)];
        d.worldMatrices(&combined, worlds);
    } else {
        // Brought up to date in one pass, rather than by the first ask for each joint's.
        d.model.updateTransforms();
    }
    for (const Private::SkinUse& use : d.skins) {
        const std::vector<int>& joints = d.scene->skins[size_t(use.skin)].joints;
        if (!changed[size_t(use.node)] && std::none_of(joints.begin(), joints.end(), [&](int j) { return changed[size_t(j)]; }))
            continue;
        d.writeJoints(use, d.unplacedJoints ? &worlds : nullptr);
        texels.emplace_back(use.firstTexel, 4 * int(joints.size()));
    }
    return uploadTexels(d, texels);
}

} // namespace Tavren::Vyx
