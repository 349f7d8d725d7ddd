#include "scene/animationsampler.h"

#include <QHash>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavren::Vyx {

enum class AnimationPath : unsigned char { Translation, Rotation, Scale, Weights };
enum class AnimationInterpolation : unsigned char { Linear, Step, CubicSpline };

// A cubic spline or morph weight channel, evaluated from its keys in place.
struct AnimationChannel
{
    const float* times;
    const float* values; // `width` floats per element; cubic keys hold in-tangent, value, out-tangent
    int keyCount;
    int width; // 3 for translation and scale, 4 for rotation, the node's weight count for weights
    int node;
    int firstWeight;
    AnimationPath path;
    AnimationInterpolation interpolation;

    // The interval the previous sample fell in, kept so that the next one, usually in the same
    // interval, needs neither a search nor a division. `held`: time was outside the keys, and
    // `key` is the first or last one.
    bool held;
    int key;
    float start, end, inverseLength;
};

// One key interval of a linear or step translation, rotation or scale, prepared when the sampler
// is made so that moving on to the next interval costs no square root, division or arc cosine.
// With s the fraction of [start, end) that has passed: from + s * toward, or for rotations at an
// angle, cos(s * angle) * from + sin(s * angle) * toward. Times outside the keys hold the first
// or the last key, with toward zero.
struct AnimationSegment
{
    float from[4], toward[4];
    float start, end, inverseLength, angle;
};

// A linear or step translation, rotation or scale: keyCount + 1 segments, the first key held,
// one per interval, then the last key held, at firstSegment and every `stride` segments after it.
// Tracks of one kind with the same key times interleave their segments, so that as they move on
// together they read neighbouring memory.
struct AnimationTrack
{
    // Copies of the segment the previous sample fell in, so that samples in the same interval
    // read nothing else, and of the one after it.
    AnimationSegment current, next;
    const float* times;
    int keyCount;
    int node;
    size_t firstSegment;
    size_t stride;
    int segment; // of the copy, counted from the first
    QVector3D AnimationPose::Node::*vector; // translation or scale; null for a rotation

    const AnimationSegment& at(const AnimationSegment* segments, int index) const
    {
        return segments[firstSegment + size_t(index) * stride];
    }
};

namespace {

using Path = AnimationPath;
using Interpolation = AnimationInterpolation;
using Channel = AnimationChannel;

const std::vector<int> kNoNodes;

// Series to the x^11 and x^12 terms, within 1e-7 on [0, pi/2]: cheaper than the library calls,
// which would cost more than the rest of a sample together.
float sine(float x)
{
    const float x2 = x * x, x4 = x2 * x2, x6 = x4 * x2;
    const float low = 1 - x2 * (1.0f / 6) + x4 * (1.0f / 120);
    const float high = -1.0f / 5040 + x2 * (1.0f / 362880) - x4 * (1.0f / 39916800);
    return x * (low + x6 * high);
}

float cosine(float x)
{
    const float x2 = x * x, x4 = x2 * x2, x6 = x4 * x2;
    const float low = 1 - x2 * (1.0f / 2) + x4 * (1.0f / 24);
    const float high = -1.0f / 720 + x2 * (1.0f / 40320) - x4 * (1.0f / 3628800) + x6 * (1.0f / 479001600);
    return low + x6 * high;
}

// acos(x) for x in [0, 1], within 3e-8 (Abramowitz and Stegun 4.4.46): a quarter of the library
// call's time, paid on every change of interval.
float arcCosine(float x)
{
    const float x2 = x * x, x4 = x2 * x2;
    const float low = (1.5707963050f - 0.2145988016f * x) + x2 * (0.0889789874f - 0.0501743046f * x);
    const float high = (0.0308918810f - 0.0170881256f * x) + x2 * (0.0066700901f - 0.0012624911f * x);
    return (low + x4 * high) * std::sqrt(1 - x);
}

float dot4(const float* a, const float* b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
}

// 0 for a zero quaternion, which then stays zero rather than turning into NaNs.
float inverseLength4(const float* q)
{
    const float lengthSquared = dot4(q, q);
    return lengthSquared > 0 ? 1 / std::sqrt(lengthSquared) : 0.0f;
}

void normalise4(float* q)
{
    const float inverse = inverseLength4(q);
    for (int i = 0; i < 4; ++i)
        q[i] *= inverse;
}

const float* keyValue(const Channel& channel, int key)
{
    // A cubic key's value sits between its two tangents.
    const bool cubic = channel.interpolation == Interpolation::CubicSpline;
    return channel.values + size_t(cubic ? 3 * key + 1 : key) * size_t(channel.width);
}

// A segment that stays at `value`, over an empty interval unless `end` is given.
AnimationSegment heldSegment(const float* value, int width, float start, float end)
{
    AnimationSegment segment{};
    std::copy_n(value, width, segment.from);
    segment.start = start;
    segment.end = end;
    return segment;
}

AnimationSegment intervalSegment(const Channel& channel, int key)
{
    const float *v0 = keyValue(channel, key), *v1 = keyValue(channel, key + 1);
    AnimationSegment segment = heldSegment(v0, channel.width, channel.times[key], channel.times[key + 1]);
    segment.inverseLength = 1 / (segment.end - segment.start);
    if (channel.interpolation == Interpolation::Step)
        return segment;
    if (channel.path != Path::Rotation) {
        for (int i = 0; i < 3; ++i)
            segment.toward[i] = v1[i] - v0[i];
        return segment;
    }
    // Slerp as a turn in the plane of the two keys, from `from` towards the unit quaternion
    // orthogonal to it, along the shorter arc so that keys on opposite hemispheres do not spin
    // the long way round.
    const float inverse0 = inverseLength4(v0), inverse1 = inverseLength4(v1);
    float to[4];
    for (int i = 0; i < 4; ++i) {
        segment.from[i] = v0[i] * inverse0;
        to[i] = v1[i] * inverse1;
    }
    float cosAngle = dot4(segment.from, to);
    const float sign = cosAngle < 0 ? -1.0f : 1.0f;
    cosAngle *= sign;
    for (int i = 0; i < 4; ++i)
        to[i] *= sign;
    // Nearly parallel keys leave no plane to speak of: a normalised straight blend is as close.
    if (cosAngle < 0.9995f) {
        segment.angle = arcCosine(cosAngle);
        const float inverseSine = 1 / std::sqrt(1 - cosAngle * cosAngle);
        for (int i = 0; i < 4; ++i)
            segment.toward[i] = (to[i] - cosAngle * segment.from[i]) * inverseSine;
    } else {
        for (int i = 0; i < 4; ++i)
            segment.toward[i] = to[i] - segment.from[i];
    }
    return segment;
}

// The track's segments: the first key held, each interval, the last key held from its time on.
void appendSegments(const Channel& channel, std::vector<AnimationSegment>& segments)
{
    const int lastKey = channel.keyCount - 1;
    segments.push_back(heldSegment(keyValue(channel, 0), channel.width, channel.times[0], channel.times[0]));
    for (int key = 0; key < lastKey; ++key)
        segments.push_back(intervalSegment(channel, key));
    segments.push_back(heldSegment(keyValue(channel, lastKey), channel.width, channel.times[lastKey],
                                   std::numeric_limits<float>::infinity()));
}

// The key at or before `time`, for a time strictly inside the keys' range, tried first at
// `hint` and the key after it.
int findKey(const float* times, int keyCount, int hint, float time)
{
    hint = std::clamp(hint, 0, keyCount - 2);
    if (times[hint] <= time) {
        if (time < times[hint + 1])
            return hint;
        // Playing forwards usually lands in the next interval.
        if (hint + 2 < keyCount && time < times[hint + 2])
            return hint + 1;
    }
    return int(std::upper_bound(times, times + keyCount, time) - times) - 1;
}

// The key held for `time` outside the keys' range (written so that NaN holds the first key),
// else -1.
int heldKey(const float* times, int keyCount, float time)
{
    if (keyCount == 1 || !(time > times[0]))
        return 0;
    return time >= times[keyCount - 1] ? keyCount - 1 : -1;
}

// Moves the track to the segment holding `time`, which its current one does not; true when that
// holds a key, where the fraction is 0 whatever the time (infinite ones too).
bool changeSegment(AnimationTrack& track, const AnimationSegment* segments, float time)
{
    if (track.next.start <= time && time < track.next.end) {
        ++track.segment;
        track.current = track.next;
    } else {
        const int held = heldKey(track.times, track.keyCount, time);
        track.segment = held < 0 ? 1 + findKey(track.times, track.keyCount, track.segment - 1, time) : held == 0 ? 0 : track.keyCount;
        track.current = track.at(segments, track.segment);
    }
    // Read ahead: nothing waits for it until the next change of interval.
    track.next = track.at(segments, std::min(track.segment + 1, track.keyCount));
    return track.segment == 0 || track.segment == track.keyCount;
}

// Brings the track to the segment holding `time` and returns the fraction of it that has passed.
// Kept small, so that it is inlined in the sampling loops and only a change of interval costs a call.
inline float locate(AnimationTrack& track, const AnimationSegment* segments, float time)
{
    const bool inside = track.current.start <= time && time < track.current.end;
    if (!inside && changeSegment(track, segments, time))
        return 0;
    return (time - track.current.start) * track.current.inverseLength;
}

void hold(Channel& channel, int key)
{
    channel.held = true;
    channel.key = key;
    channel.start = channel.end = 0; // an empty interval, so every sample comes back here
}

// Brings the channel to the interval holding `time` and returns the fraction of it that has passed.
float locate(Channel& channel, float time)
{
    if (!(channel.start <= time && time < channel.end)) {
        const int held = heldKey(channel.times, channel.keyCount, time);
        if (held >= 0) {
            hold(channel, held);
            return 0;
        }
        const int key = findKey(channel.times, channel.keyCount, channel.key, time);
        channel.held = false;
        channel.key = key;
        channel.start = channel.times[key];
        channel.end = channel.times[key + 1];
        channel.inverseLength = 1 / (channel.end - channel.start);
    }
    return (time - channel.start) * channel.inverseLength;
}

// Cubic splines and morph weights, straight from the keys.
void evaluateFromKeys(const Channel& channel, float s, float* out)
{
    const int width = channel.width;
    const float* v0 = keyValue(channel, channel.key);
    if (channel.held || channel.interpolation == Interpolation::Step) {
        std::copy_n(v0, width, out);
        return;
    }
    const float* v1 = keyValue(channel, channel.key + 1);
    if (channel.interpolation == Interpolation::Linear) {
        for (int i = 0; i < width; ++i)
            out[i] = v0[i] + s * (v1[i] - v0[i]);
        return;
    }
    // Hermite basis; tangents are per second, so they scale with the interval.
    const float interval = channel.end - channel.start;
    const float s2 = s * s, s3 = s2 * s;
    const float h00 = 2 * s3 - 3 * s2 + 1, h10 = (s3 - 2 * s2 + s) * interval;
    const float h01 = -2 * s3 + 3 * s2, h11 = (s3 - s2) * interval;
    const float* outTangent0 = v0 + width;
    const float* inTangent1 = v1 - width;
    for (int i = 0; i < width; ++i)
        out[i] = h00 * v0[i] + h10 * outTangent0[i] + h01 * v1[i] + h11 * inTangent1[i];
}

// Fills `channel` from `source`, or says why it cannot be played.
QString checkChannel(const SceneData& scene, const SceneData::Animation& animation,
                     const SceneData::Animation::Channel& source, Channel& channel)
{
    if (source.sampler < 0 || source.sampler >= int(animation.samplers.size()))
        return QStringLiteral("sampler %1 does not exist").arg(source.sampler);
    if (source.node < 0 || source.node >= int(scene.nodes.size()))
        return QStringLiteral("node %1 does not exist").arg(source.node);
    if (scene.nodes[size_t(source.node)].hasMatrix)
        return QStringLiteral("node %1 is placed by a matrix, which cannot be animated").arg(source.node);
    static const QString paths[] = {QStringLiteral("translation"), QStringLiteral("rotation"), QStringLiteral("scale"),
                                    QStringLiteral("weights")};
    const auto path = std::find(std::begin(paths), std::end(paths), source.path);
    if (path == std::end(paths))
        return QStringLiteral("unknown path \"%1\"").arg(source.path);

    const SceneData::Animation::Sampler& sampler = animation.samplers[size_t(source.sampler)];
    // No interpolation named means linear.
    if (sampler.interpolation.isEmpty() || sampler.interpolation == QLatin1String("LINEAR"))
        channel.interpolation = Interpolation::Linear;
    else if (sampler.interpolation == QLatin1String("STEP"))
        channel.interpolation = Interpolation::Step;
    else if (sampler.interpolation == QLatin1String("CUBICSPLINE"))
        channel.interpolation = Interpolation::CubicSpline;
    else
        return QStringLiteral("unknown interpolation \"%1\"").arg(sampler.interpolation);

    const size_t keys = sampler.input.size();
    if (keys == 0 || keys > size_t(std::numeric_limits<int>::max() / 3))
        return QStringLiteral("sampler %1 has %2 keys").arg(source.sampler).arg(keys);
    if (!std::isfinite(sampler.input[0]))
        return QStringLiteral("sampler %1 starts at a time that is not a number").arg(source.sampler);
    for (size_t k = 1; k < keys; ++k) {
        // Written so that a NaN fails too.
        if (!(sampler.input[k] > sampler.input[k - 1]) || !std::isfinite(sampler.input[k]))
            return QStringLiteral("sampler %1's key times do not strictly increase at key %2").arg(source.sampler).arg(k);
    }

    channel.path = Path(path - std::begin(paths));
    const size_t elementsPerKey = channel.interpolation == Interpolation::CubicSpline ? 3 : 1;
    const size_t elements = keys * elementsPerKey;
    size_t width = channel.path == Path::Rotation ? 4 : 3;
    if (channel.path == Path::Weights) {
        // One scalar per morph target and element; the count of targets follows from the length.
        width = sampler.outputComponents == 1 && sampler.output.size() % elements == 0 ? sampler.output.size() / elements : 0;
        if (width == 0 || width > size_t(std::numeric_limits<int>::max()))
            return QStringLiteral("sampler %1 has %2 scalar outputs of %3 components, not a whole number of weights for %4 elements")
                .arg(source.sampler).arg(sampler.output.size()).arg(sampler.outputComponents).arg(elements);
    } else if (size_t(sampler.outputComponents) != width || sampler.output.size() != elements * width) {
        return QStringLiteral("sampler %1 gives %2 floats in groups of %3 where %4 %5 keys need %6 in groups of %7")
            .arg(source.sampler).arg(sampler.output.size()).arg(sampler.outputComponents).arg(keys)
            .arg(elementsPerKey == 3 ? QStringLiteral("cubic spline ") + source.path : source.path)
            .arg(elements * width).arg(width);
    }
    channel.times = sampler.input.data();
    channel.values = sampler.output.data();
    channel.keyCount = int(keys);
    channel.width = int(width);
    channel.node = source.node;
    return {};
}

} // namespace

AnimationSampler::AnimationSampler(const SceneData& scene, int animationIndex)
    : _scene(scene)
{
    if (animationIndex < 0 || animationIndex >= int(scene.animations.size())) {
        _warnings << QStringLiteral("Animation %1 does not exist").arg(animationIndex);
        return;
    }
    const SceneData::Animation& animation = scene.animations[size_t(animationIndex)];
    // One bit per path and node: a property driven twice would have no defined value.
    std::vector<unsigned char> driven(scene.nodes.size(), 0);
    std::vector<Channel> rotations, vectors;
    for (size_t c = 0; c < animation.channels.size(); ++c) {
        Channel channel{};
        QString problem = checkChannel(scene, animation, animation.channels[c], channel);
        if (problem.isEmpty()) {
            unsigned char& bits = driven[size_t(channel.node)];
            const unsigned char bit = 1u << int(channel.path);
            if (bits & bit)
                problem = QStringLiteral("node %1 already has a %2 channel").arg(channel.node).arg(animation.channels[c].path);
            bits |= bit;
        }
        if (!problem.isEmpty()) {
            _warnings << QStringLiteral("Animation %1, channel %2 is ignored: %3").arg(animationIndex).arg(c).arg(problem);
            continue;
        }
        if (channel.path == Path::Weights) {
            channel.firstWeight = int(_weightTotal);
            _weightTotal += size_t(channel.width);
        }
        _duration = std::max(_duration, channel.times[channel.keyCount - 1]);
        _animatedNodes.push_back(channel.node);
        if (channel.path == Path::Weights || channel.interpolation == Interpolation::CubicSpline) {
            hold(channel, 0);
            _channels.push_back(channel);
            continue;
        }
        (channel.path == Path::Rotation ? rotations : vectors).push_back(channel);
    }
    layOutTracks(rotations, _rotations);
    layOutTracks(vectors, _vectors);
    std::sort(_animatedNodes.begin(), _animatedNodes.end());
    _animatedNodes.erase(std::unique(_animatedNodes.begin(), _animatedNodes.end()), _animatedNodes.end());
}

void AnimationSampler::layOutTracks(const std::vector<AnimationChannel>& channels, std::vector<AnimationTrack>& tracks)
{
    // Groups of channels with equal key times, in the order of their first channel.
    std::vector<std::vector<const Channel*>> groups;
    QMultiHash<size_t, size_t> groupsByTimes;
    for (const Channel& channel : channels) {
        const size_t hash = qHashBits(channel.times, size_t(channel.keyCount) * sizeof(float));
        const auto sameTimes = [&](size_t g) {
            const Channel& first = *groups[g].front();
            return first.keyCount == channel.keyCount && std::equal(channel.times, channel.times + channel.keyCount, first.times);
        };
        const QList<size_t> candidates = groupsByTimes.values(hash);
        const auto group = std::find_if(candidates.begin(), candidates.end(), sameTimes);
        if (group != candidates.end()) {
            groups[*group].push_back(&channel);
        } else {
            groupsByTimes.insert(hash, groups.size());
            groups.push_back({&channel});
        }
    }
    std::vector<AnimationSegment> own;
    for (const std::vector<const Channel*>& group : groups) {
        const size_t base = _segments.size(), stride = group.size();
        _segments.resize(base + size_t(group.front()->keyCount + 1) * stride);
        for (size_t t = 0; t < stride; ++t) {
            const Channel& channel = *group[t];
            own.clear();
            appendSegments(channel, own);
            for (size_t i = 0; i < own.size(); ++i)
                _segments[base + i * stride + t] = own[i];
            AnimationTrack track{own[0], own[1], channel.times, channel.keyCount, channel.node, base + t, stride, 0, nullptr};
            if (channel.path != Path::Rotation)
                track.vector = channel.path == Path::Translation ? &AnimationPose::Node::translation : &AnimationPose::Node::scale;
            tracks.push_back(track);
        }
    }
}

AnimationSampler::AnimationSampler(const AnimationSampler&) = default;
AnimationSampler::AnimationSampler(AnimationSampler&&) noexcept = default;
AnimationSampler::~AnimationSampler() = default;

int AnimationSampler::channelCount() const
{
    return int(_channels.size() + _rotations.size() + _vectors.size());
}

AnimationPose AnimationSampler::makePose() const
{
    AnimationPose pose;
    pose.nodes.resize(_scene.nodes.size());
    for (size_t n = 0; n < pose.nodes.size(); ++n) {
        const SceneData::Node& rest = _scene.nodes[n];
        pose.nodes[n].translation = rest.translation;
        pose.nodes[n].rotation = rest.rotation;
        pose.nodes[n].scale = rest.scale;
    }
    pose.weights.assign(_weightTotal, 0.0f);
    for (const Channel& channel : _channels) {
        if (channel.path != Path::Weights)
            continue;
        pose.nodes[size_t(channel.node)].firstWeight = channel.firstWeight;
        pose.nodes[size_t(channel.node)].weightCount = channel.width;
        // At rest: the node's weights, else its mesh's defaults, as far as they go.
        const SceneData::Node& node = _scene.nodes[size_t(channel.node)];
        const std::vector<float>* rest = &node.weights;
        if (rest->empty() && node.mesh >= 0)
            rest = &_scene.meshes[size_t(node.mesh)].weights;
        std::copy_n(rest->begin(), std::min(rest->size(), size_t(channel.width)), pose.weights.begin() + channel.firstWeight);
    }
    return pose;
}

const std::vector<int>& AnimationSampler::sample(float time, AnimationPose& pose)
{
    if (pose.nodes.size() != _scene.nodes.size() || pose.weights.size() != _weightTotal)
        return kNoNodes;
    // Rotations, vectors and the rest in loops of their own, so that no sample branches on its kind.
    const AnimationSegment* segments = _segments.data();
    for (AnimationTrack& track : _rotations) {
        const float s = locate(track, segments, time);
        const AnimationSegment& segment = track.current;
        float q[4];
        if (segment.angle > 0) {
            // Unit by construction: from and toward are orthonormal.
            const float a = cosine(s * segment.angle), b = sine(s * segment.angle);
            for (int i = 0; i < 4; ++i)
                q[i] = a * segment.from[i] + b * segment.toward[i];
        } else {
            for (int i = 0; i < 4; ++i)
                q[i] = segment.from[i] + s * segment.toward[i];
            normalise4(q);
        }
        pose.nodes[size_t(track.node)].rotation = QQuaternion(q[3], q[0], q[1], q[2]); // keys are stored x, y, z, w
    }
    for (AnimationTrack& track : _vectors) {
        const float s = locate(track, segments, time);
        const float *from = track.current.from, *toward = track.current.toward;
        pose.nodes[size_t(track.node)].*track.vector =
            QVector3D(from[0] + s * toward[0], from[1] + s * toward[1], from[2] + s * toward[2]);
    }
    for (Channel& channel : _channels) {
        const float s = locate(channel, time);
        if (channel.path == Path::Weights) {
            evaluateFromKeys(channel, s, pose.weights.data() + channel.firstWeight);
            continue;
        }
        float v[4];
        evaluateFromKeys(channel, s, v);
        AnimationPose::Node& node = pose.nodes[size_t(channel.node)];
        if (channel.path == Path::Rotation) {
            normalise4(v);
            node.rotation = QQuaternion(v[3], v[0], v[1], v[2]);
        } else {
            (channel.path == Path::Translation ? node.translation : node.scale) = QVector3D(v[0], v[1], v[2]);
        }
    }
    return _animatedNodes;
}

} // namespace Tavren::Vyx
