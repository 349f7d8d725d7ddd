#pragma once

#include "core/vyxexport.h"
#include "scene/scenedata.h"

#include <QQuaternion>
#include <QStringList>
#include <QVector3D>

#include <vector>

namespace Tavren::Vyx {

// Every node's local transform and morph weights at one moment. Made by
// AnimationSampler::makePose() at the nodes' rest values, then overwritten, property by property,
// by each sample() call; the caller owns it, so sampling never allocates.
struct VYXGL_EXPORT AnimationPose
{
    struct Node
    {
        QVector3D translation;
        QQuaternion rotation;
        QVector3D scale{1, 1, 1};
        // This node's morph weights in AnimationPose::weights; none unless a channel moves them.
        int firstWeight = 0;
        int weightCount = 0;
    };
    std::vector<Node> nodes; // one per scene node
    std::vector<float> weights;

    const float* weightsOf(int node) const { return weights.data() + nodes[size_t(node)].firstWeight; }
};

// Channels ready to play; defined where they are played, so their code can be inlined there.
struct AnimationChannel;
struct AnimationSegment;
struct AnimationTrack;

// Plays one animation of a SceneData. The animation is checked once, on construction: a channel
// that cannot be played (missing node or sampler, unknown path or interpolation, key times not
// strictly increasing, an output of the wrong length) is left out with a warning and the rest
// still play. The scene must outlive the sampler, whose channels read its key times, and its
// cubic spline and weight keys, in place.
//
// Linear and step translations, rotations and scales are prepared for blending on construction,
// one 48-byte segment per key: playing into the next interval then costs no square root, division
// or arc cosine. Channels with the same key times, as exporters usually write them, interleave
// their segments, so that moving on together they read neighbouring memory. Each channel
// remembers the key interval it last sampled, so a sample in the same interval costs no search,
// and the next interval is tried before a binary search. One sampler serves one thread.
class VYXGL_EXPORT AnimationSampler
{
public:
    AnimationSampler(const SceneData& scene, int animationIndex);
    AnimationSampler(const AnimationSampler&);
    AnimationSampler(AnimationSampler&&) noexcept;
    ~AnimationSampler();

    QStringList warnings() const { return _warnings; }
    // Number of channels that play.
    int channelCount() const;
    // The last key time of any playing channel, in seconds; 0 when none plays.
    float duration() const { return _duration; }
    // The nodes the animation moves, ascending: what sample() rewrites and a later step has to
    // upload again.
    const std::vector<int>& animatedNodes() const { return _animatedNodes; }

    // Every node at its rest transform and the morph weights this animation drives at the node's
    // or its mesh's defaults.
    AnimationPose makePose() const;
    // Writes the animated properties at `time` (clamped to each channel's key range) into `pose`
    // and returns the nodes it touched. A pose not made by makePose() of this sampler is left
    // alone and nothing is returned.
    const std::vector<int>& sample(float time, AnimationPose& pose);

private:
    void layOutTracks(const std::vector<AnimationChannel>& channels, std::vector<AnimationTrack>& tracks);

    const SceneData& _scene;
    std::vector<AnimationChannel> _channels; // cubic splines and weights
    std::vector<AnimationTrack> _rotations, _vectors;
    std::vector<AnimationSegment> _segments;
    std::vector<int> _animatedNodes;
    size_t _weightTotal = 0;
    float _duration = 0;
    QStringList _warnings;
};

} // namespace Tavren::Vyx
