#include "scene/animationsampler.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavren::Vyx {

namespace {

const std::vector<int> kNoNodes;

void copy(const float* from, int width, float* to)
{
    std::copy(from, from + width, to);
}

// Along the shorter arc, so a key pair on opposite hemispheres does not spin the long way round.
void slerp(const float* a, const float* b, float s, float* out)
{
    float cosine = a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
    const float sign = cosine < 0 ? -1.0f : 1.0f;
    cosine *= sign;
    float wa = 1 - s, wb = s;
    // Nearly parallel keys: sin(theta) vanishes, and a straight blend is as close as floats get.
    if (cosine < 0.9995f) {
        const float theta = std::acos(cosine);
        const float inverseSine = 1 / std::sin(theta);
        wa = std::sin(wa * theta) * inverseSine;
        wb = std::sin(wb * theta) * inverseSine;
    }
    wb *= sign;
    for (int i = 0; i < 4; ++i)
        out[i] = wa * a[i] + wb * b[i];
}

void normalise4(float* q)
{
    const float length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    if (length > 0)
        for (int i = 0; i < 4; ++i)
            q[i] /= length;
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
    for (size_t c = 0; c < animation.channels.size(); ++c) {
        Channel channel{};
        QString problem = checkChannel(animation, animation.channels[c], channel);
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
        _channels.push_back(channel);
    }
    std::sort(_animatedNodes.begin(), _animatedNodes.end());
    _animatedNodes.erase(std::unique(_animatedNodes.begin(), _animatedNodes.end()), _animatedNodes.end());
}

QString AnimationSampler::checkChannel(const SceneData::Animation& animation, const SceneData::Animation::Channel& source,
                                       Channel& channel) const
{
    if (source.sampler < 0 || source.sampler >= int(animation.samplers.size()))
        return QStringLiteral("sampler %1 does not exist").arg(source.sampler);
    if (source.node < 0 || source.node >= int(_scene.nodes.size()))
        return QStringLiteral("node %1 does not exist").arg(source.node);
    if (_scene.nodes[size_t(source.node)].hasMatrix)
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
    for (const Channel& channel : _channels) {
        if (channel.path == Path::Weights) {
            pose.nodes[size_t(channel.node)].firstWeight = channel.firstWeight;
            pose.nodes[size_t(channel.node)].weightCount = channel.width;
        }
    }
    pose.weights.assign(_weightTotal, 0.0f);
    return pose;
}

// The key at or before `time`, for a time strictly inside the channel's range.
int AnimationSampler::findKey(Channel& channel, float time) const
{
    const float* times = channel.times;
    const int last = channel.lastKey;
    if (times[last] <= time) {
        if (time < times[last + 1])
            return last;
        // Playing forwards usually lands in the next interval.
        if (last + 2 < channel.keyCount && time < times[last + 2])
            return channel.lastKey = last + 1;
    }
    const int key = int(std::upper_bound(times, times + channel.keyCount, time) - times) - 1;
    return channel.lastKey = key;
}

void AnimationSampler::evaluate(Channel& channel, float time, float* out) const
{
    const int width = channel.width;
    const bool cubic = channel.interpolation == Interpolation::CubicSpline;
    // A cubic key's value sits between its two tangents.
    const auto value = [&](int key) { return channel.values + size_t(cubic ? 3 * key + 1 : key) * size_t(width); };
    const int lastKey = channel.keyCount - 1;
    if (lastKey == 0 || !(time > channel.times[0])) {
        copy(value(0), width, out);
    } else if (time >= channel.times[lastKey]) {
        copy(value(lastKey), width, out);
    } else {
        const int key = findKey(channel, time);
        const float t0 = channel.times[key], interval = channel.times[key + 1] - t0;
        const float s = (time - t0) / interval;
        const float *v0 = value(key), *v1 = value(key + 1);
        if (channel.interpolation == Interpolation::Step) {
            copy(v0, width, out);
        } else if (!cubic) {
            if (channel.path == Path::Rotation) {
                slerp(v0, v1, s, out);
            } else {
                for (int i = 0; i < width; ++i)
                    out[i] = v0[i] + s * (v1[i] - v0[i]);
            }
        } else {
            // Hermite basis; tangents are per second, so they scale with the interval.
            const float s2 = s * s, s3 = s2 * s;
            const float h00 = 2 * s3 - 3 * s2 + 1, h10 = (s3 - 2 * s2 + s) * interval;
            const float h01 = -2 * s3 + 3 * s2, h11 = (s3 - s2) * interval;
            const float* outTangent0 = v0 + width;
            const float* inTangent1 = v1 - width;
            for (int i = 0; i < width; ++i)
                out[i] = h00 * v0[i] + h10 * outTangent0[i] + h01 * v1[i] + h11 * inTangent1[i];
        }
    }
    if (channel.path == Path::Rotation)
        normalise4(out);
}

const std::vector<int>& AnimationSampler::sample(float time, AnimationPose& pose)
{
    if (pose.nodes.size() != _scene.nodes.size() || pose.weights.size() != _weightTotal)
        return kNoNodes;
    float v[4];
    for (Channel& channel : _channels) {
        AnimationPose::Node& node = pose.nodes[size_t(channel.node)];
        switch (channel.path) {
        case Path::Translation:
            evaluate(channel, time, v);
            node.translation = QVector3D(v[0], v[1], v[2]);
            break;
        case Path::Rotation:
            evaluate(channel, time, v);
            node.rotation = QQuaternion(v[3], v[0], v[1], v[2]); // keys are stored x, y, z, w
            break;
        case Path::Scale:
            evaluate(channel, time, v);
            node.scale = QVector3D(v[0], v[1], v[2]);
            break;
        case Path::Weights:
            evaluate(channel, time, pose.weights.data() + channel.firstWeight);
            break;
        }
    }
    return _animatedNodes;
}

} // namespace Tavren::Vyx
