#pragma once

#include "gl/drawing/boundingbox.h"
#include "render/sceneanimator.h"
#include "scene/animationsampler.h"
#include "scene/scenedata.h"

#include <QMatrix4x4>
#include <QSharedPointer>
#include <QStringList>

#include <map>
#include <memory>
#include <vector>

namespace Tavren::Vyx {

class GPUModel;
class TextureBuffer;

// What SceneAnimator keeps of an imported scene, filled by the importer as it uploads: which
// model transform each node became, each skinned or morphed placement and the commands that
// draw it, the packed morph target deltas and every pose-dependent box.
struct SceneAnimator::Private
{
    // Per-command deformation, as the "GLTFObject" record's SkinData and MorphData hold it.
    struct CommandData
    {
        int skin[4] = {0, 0, 0, 0};  // first joint texel, joints, influence sets
        int morph[4] = {0, 0, 0, 0}; // delta texel at vertex 0, targets, attribute mask, first weight
    };

    Private(std::shared_ptr<const SceneData> scene, GPUModel& model);

    // Called by the importer once per drawn (placement, primitive); notes what the command's
    // record must say when the primitive is skinned or morphed there.
    void addCommand(int node, int transform, int mesh, int primitive, int baseVertex, int drawableId, int command,
                    int box, QStringList& warnings);
    // Uploads the deltas and the rest pose, hands both buffers to the model, writes the deformed
    // commands' records and gives each its own box; what does not fit a texture buffer stays
    // at rest, with a message. False on failure.
    bool finish(QString& error, QStringList& messages);

    struct SkinUse
    {
        int node, skin, meshTransform, firstTexel;
        std::vector<int> jointTransforms;
    };
    struct MorphUse
    {
        int node, transform, firstWeight, count;
        std::vector<float> weights;
    };
    // Boxes in the primitive's own space: all of it, each joint's vertices, each target's deltas.
    struct PrimitiveBounds
    {
        BoundingBox whole;
        std::vector<quint32> joints;
        std::vector<BoundingBox> jointBoxes;
        std::vector<BoundingBox> targetDeltas;
    };
    struct Command
    {
        int drawableId, command, mesh, primitive, skinUse, morphUse, box;
        CommandData data;
    };

    const PrimitiveBounds& primitiveBounds(int mesh, int primitive);
    // World matrices of every node with the animated nodes as `pose` has them (rest without).
    void worldMatrices(const AnimationPose* pose, std::vector<QMatrix4x4>& worlds) const;
    BoundingBox commandBox(const Command& c, const std::vector<QMatrix4x4>& worlds, const std::vector<float>* poseWeights,
                           const AnimationPose* pose);
    // From `worlds` when given, else from the model's world matrices.
    void writeJoints(const SkinUse& use, const std::vector<QMatrix4x4>* worlds);
    void widenBoxes(int animation);
    AnimationSampler* sampler(int animation);

    std::shared_ptr<const SceneData> scene;
    GPUModel& model;
    std::vector<int> nodeTransforms; // -1 for nodes the scene does not reach
    std::vector<int> parents;
    std::vector<int> order; // parents before children
    std::vector<SkinUse> skins;
    std::vector<MorphUse> morphs;
    std::vector<Command> commands;
    std::map<std::pair<int, int>, int> morphTexels; // (mesh, primitive) -> first delta texel
    std::map<std::pair<int, int>, PrimitiveBounds> bounds;
    std::vector<float> deltas; // RGBA texels
    std::vector<float> pose;   // joint matrices, then weights
    int jointTexels = 0;
    int weightCount = 0;
    std::vector<BoundingBox> boxes; // the model's, deformed commands' own at the end
    std::vector<std::unique_ptr<AnimationSampler>> samplers;
    std::vector<AnimationPose> poses;
    std::vector<bool> widened;
    std::vector<bool> moved; // nodes some played animation moved
    int lastAnimation = -2;
    // Some joint is a node outside the scene's tree, so joint matrices come from worldMatrices()
    // rather than the model's transforms.
    bool unplacedJoints = false;
    QSharedPointer<TextureBuffer> poseBuffer, morphBuffer;
    QStringList warnings;
    // setTime()'s scratch, kept so that a frame allocates nothing: nodes whose world matrix
    // changed, texel ranges to upload (first, count), world matrices and the combined pose.
    std::vector<char> changed;
    std::vector<std::pair<int, int>> texels;
    std::vector<QMatrix4x4> worlds;
    AnimationPose combined;
};

} // namespace Tavren::Vyx
