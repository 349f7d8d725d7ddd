// Decoding speed of run-length encoded RGBE pictures: ours against stb_image's stbi_loadf.
#include "gl/textureio/hdrdecoder.h"

#include <QByteArray>
#include <QFile>

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_HDR
#include <stb/stb_image.h>

using Tavren::Vyx::HDRDecoder;

namespace {

void toRGBE(float r, float g, float b, unsigned char* out)
{
    const float largest = std::max(r, std::max(g, b));
    if (largest < 1e-32f) {
        out[0] = out[1] = out[2] = out[3] = 0;
        return;
    }
    int exponent = 0;
    const float scale = std::frexp(largest, &exponent) * 256.0f / largest;
    out[0] = (unsigned char)(r * scale);
    out[1] = (unsigned char)(g * scale);
    out[2] = (unsigned char)(b * scale);
    out[3] = (unsigned char)(exponent + 128);
}

// New-style run-length encoding of one channel: runs of 4 or more become run packets.
void encodeChannel(const unsigned char* values, int width, QByteArray& out)
{
    int x = 0;
    while (x < width) {
        int run = 1;
        while (x + run < width && run < 127 && values[x + run] == values[x])
            ++run;
        if (run >= 4) {
            out += char(128 + run);
            out += char(values[x]);
            x += run;
            continue;
        }
        int start = x;
        int count = 0;
        while (x < width && count < 128) {
            int ahead = 1;
            while (x + ahead < width && ahead < 4 && values[x + ahead] == values[x])
                ++ahead;
            if (ahead >= 4)
                break;
            ++x;
            ++count;
        }
        out += char(count);
        out.append(reinterpret_cast<const char*>(values + start), count);
    }
}

// A sky-like gradient with flat bands and a noisy strip, as an environment map would have.
QByteArray syntheticPicture(int width, int height)
{
    QByteArray file = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y " + QByteArray::number(height) + " +X " +
                      QByteArray::number(width) + "\n";
    std::vector<unsigned char> pixel(4), channels(size_t(width) * 4);
    unsigned int noise = 12345;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            float r, g, b;
            if (y < height / 3) {
                const float t = float(y) / height;
                r = 0.3f + t, g = 0.5f + t, b = 2.0f + 4.0f * t;
            } else if (x % 512 < 200) {
                r = g = b = float(x / 512 + 1) * 0.25f;
            } else {
                noise = noise * 1664525u + 1013904223u;
                const float n = float(noise >> 8) / float(1u << 24);
                r = 0.1f + n, g = 0.2f + 0.5f * n, b = 0.05f + 3.0f * n * float(x) / width;
            }
            toRGBE(r, g, b, pixel.data());
            for (int c = 0; c < 4; ++c)
                channels[size_t(c) * width + x] = pixel[c];
        }
        file += char(2);
        file += char(2);
        file += char(width >> 8);
        file += char(width & 0xFF);
        for (int c = 0; c < 4; ++c)
            encodeChannel(channels.data() + size_t(c) * width, width, file);
    }
    return file;
}

std::map<std::string, QByteArray>& pictures()
{
    static std::map<std::string, QByteArray> all;
    return all;
}

void decodeOurs(benchmark::State& state, const QByteArray* data)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data->constData());
    for (auto _ : state) {
        HDRDecoder decoder(bytes, data->size());
        float* rgb = static_cast<float*>(std::malloc(sizeof(float) * 3 * decoder.width() * decoder.height()));
        if (!decoder.decodeFloat(rgb))
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(rgb);
        std::free(rgb);
    }
    HDRDecoder decoder(bytes, data->size());
    state.SetItemsProcessed(state.iterations() * int64_t(decoder.width()) * decoder.height());
}

void decodeStb(benchmark::State& state, const QByteArray* data)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data->constData());
    int w = 0, h = 0, n = 0;
    for (auto _ : state) {
        float* rgb = stbi_loadf_from_memory(bytes, data->size(), &w, &h, &n, 3);
        if (!rgb)
            state.SkipWithError("stb failed");
        benchmark::DoNotOptimize(rgb);
        stbi_image_free(rgb);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(w) * h);
}

// Remembers megapixels per second of every run to print the ratio at the end.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    std::map<std::string, double> rates;
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            auto it = run.counters.find("items_per_second");
            if (it != run.counters.end())
                rates[run.benchmark_name()] = it->second.value / 1e6;
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    pictures()["synthetic_2048x1024"] = syntheticPicture(2048, 1024);
    // The shared test data sits beside the checkout, as for the tests.
    QString dataDir = qEnvironmentVariable("VYX_TEST_DATA_DIR");
    if (dataDir.isEmpty())
        dataDir = QStringLiteral(VYX_BENCH_DATA_DIR);
    const char* files[] = {"loadersgl_royal_esplanade_256_latlong.hdr", "commonsimg_body_wave_blender.hdr",
                           "radiance_pinterp_nested-header.hdr", "radiance_v_gradient_noformat.hdr"};
    for (const char* file : files) {
        QFile input(dataDir + "/hdr/" + file);
        if (input.open(QIODevice::ReadOnly)) {
            QByteArray data = input.readAll();
            if (!data.contains("FORMAT="))
                data.insert(11, "FORMAT=32-bit_rle_rgbe\n"); // stb needs it
            pictures()[file] = data;
        }
    }
    for (auto& [name, data] : pictures()) {
        benchmark::RegisterBenchmark(("ours/" + name).c_str(), decodeOurs, &data)->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("stb/" + name).c_str(), decodeStb, &data)->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n%-45s %12s %12s %8s\n", "picture", "ours Mpx/s", "stb Mpx/s", "ratio");
    for (auto& [name, data] : pictures()) {
        const double ours = reporter.rates["ours/" + name], stb = reporter.rates["stb/" + name];
        if (ours > 0 && stb > 0)
            std::printf("%-45s %12.1f %12.1f %8.2f\n", name.c_str(), ours, stb, ours / stb);
    }
    benchmark::Shutdown();
    return 0;
}
