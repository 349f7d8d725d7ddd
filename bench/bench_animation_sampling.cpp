// Sampling a 1,000-channel animation once per frame, against a loop that only reads the two keys
// around each channel's time: the ratio is what finding keys and interpolating adds to the memory
// traffic any player pays. The argument is frames per key interval: 2 is 60 frames a second over
// 30 keys a second, so every other frame moves every channel to its next interval.

#include "benchtarget.h"
#include "scene/animationsampler.h"

#include <QRandomGenerator>

#include <algorithm>
#include <chrono>

using namespace Tavren::Vyx;

namespace {

constexpr int kChannels = 1000;
constexpr int kKeys = 60;
constexpr float kKeyInterval = 1.0f / 30;

// Translation, rotation and scale of one node after another, every sampler LINEAR with keys at
// the same times; rotations are random, so slerp takes its trigonometric path.
const SceneData& syntheticScene()
{
    static const SceneData scene = [] {
        SceneData s;
        s.nodes.resize((kChannels + 2) / 3);
        QRandomGenerator random(7);
        SceneData::Animation animation;
        for (int c = 0; c < kChannels; ++c) {
            const char* const paths[] = {"translation", "rotation", "scale"};
            const int components = c % 3 == 1 ? 4 : 3;
            SceneData::Animation::Sampler sampler{{}, {}, components, "LINEAR"};
            for (int k = 0; k < kKeys; ++k) {
                sampler.input.push_back(k * kKeyInterval);
                QVector4D value(float(random.generateDouble()), float(random.generateDouble()),
                                float(random.generateDouble()), float(random.generateDouble()));
                if (components == 4)
                    value.normalize();
                for (int i = 0; i < components; ++i)
                    sampler.output.push_back(value[i]);
            }
            animation.samplers.push_back(std::move(sampler));
            animation.channels.push_back({c, c / 3, paths[c % 3]});
        }
        s.animations.push_back(std::move(animation));
        return s;
    }();
    return scene;
}

float frameTime(int64_t frame, int64_t framesPerKey)
{
    return float(frame % ((kKeys - 1) * framesPerKey)) * kKeyInterval / float(framesPerKey);
}

// Each channel's two keys around the frame's time, found by arithmetic on the regular key times,
// added into an output of its own so that no channel waits for another.
void readKeys(const SceneData::Animation& animation, int64_t frame, int64_t framesPerKey, std::vector<float>& out)
{
    const size_t key = size_t(frame % ((kKeys - 1) * framesPerKey) / framesPerKey);
    float* target = out.data();
    for (const SceneData::Animation::Sampler& sampler : animation.samplers) {
        const size_t width = size_t(sampler.outputComponents);
        const float* values = sampler.output.data() + key * width;
        for (size_t i = 0; i < width; ++i)
            target[i] = values[i] + values[width + i];
        target += 4;
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
}

// Blocks of baseline frames and of sampled frames, one after the other, each timed on its own:
// a slow spell of this shared machine then slows both sides alike instead of one run of them.
void SampleAgainstReadKeys(benchmark::State& state)
{
    constexpr int kBlock = 32;
    const int64_t framesPerKey = state.range(0);
    const SceneData::Animation& animation = syntheticScene().animations[0];
    AnimationSampler sampler(syntheticScene(), 0);
    if (sampler.channelCount() != kChannels) {
        state.SkipWithError("synthetic channels were refused");
        return;
    }
    AnimationPose pose = sampler.makePose();
    std::vector<float> out(size_t(kChannels) * 4);
    using Clock = std::chrono::steady_clock;
    Clock::duration baseline{}, sampled{};
    int64_t frame = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < kBlock; ++i)
            readKeys(animation, frame + i, framesPerKey, out);
        const Clock::time_point middle = Clock::now();
        for (int i = 0; i < kBlock; ++i) {
            benchmark::DoNotOptimize(sampler.sample(frameTime(frame + i, framesPerKey), pose).data());
            benchmark::ClobberMemory();
        }
        baseline += middle - start;
        sampled += Clock::now() - middle;
        frame += kBlock;
    }
    const double frames = double(frame);
    state.counters["read_ns"] = std::chrono::duration<double, std::nano>(baseline).count() / frames;
    state.counters["sample_ns"] = std::chrono::duration<double, std::nano>(sampled).count() / frames;
    state.counters["ratio"] = double(sampled.count()) / double(std::max<Clock::rep>(baseline.count(), 1));
}

BENCHMARK(SampleAgainstReadKeys)->Arg(2)->Arg(8)->MinTime(3.0);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
