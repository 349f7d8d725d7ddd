// vyxgl inspect: what a texture file or a glTF scene holds.
#include "commands.h"

#include "core/memory.h"
#include "gl/model/gpumodel.h"
#include "gl/platform/headlesscontext.h"
#include "gl/textureio/astcfile.h"
#include "gl/textureio/hdrdecoder.h"
#include "gl/textureio/ktx2parser.h"
#include "gl/textureio/ktxparser.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "scene/animationsampler.h"
#include "scene/gltfscenereader.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>

#include <algorithm>
#include <cstdio>
#include <cstring>

using namespace Tavren::Vyx;

namespace {

void printInspectUsage()
{
    std::printf("usage: vyxgl inspect FILE\n"
                "  KTX 1 and 2: header, levels and key/values; Radiance HDR: header; "
                "ASTC: footprint and size;\n"
                "  other images: what Qt's reader sees; .gltf/.glb: nodes, "
                "meshes, materials,\n"
                "  textures, cameras, lights and bounds\n");
}

void printVector(const char* label, const QVector3D& v)
{
    std::printf("%s(%g, %g, %g)\n", label, double(v.x()), double(v.y()), double(v.z()));
}

int inspectKTX(Memory& memory)
{
    KTXParser ktx(&memory);
    if (!ktx.headerReadable()) {
        std::fprintf(stderr, "vyxgl inspect: the KTX header cannot be read\n");
        return 1;
    }
    const KTXHeader& h = ktx.header();
    std::printf("KTX 1%s\n", ktx.byteSwapped() ? " (opposite byte order)" : "");
    std::printf("  size:            %u x %u x %u, %u array elements, %u faces\n", h.pixelWidth, h.pixelHeight,
                h.pixelDepth, h.numberOfArrayElements, h.numberOfFaces);
    std::printf("  glType 0x%04x, glFormat 0x%04x, glInternalFormat 0x%04x, base "
                "0x%04x%s\n",
                h.glType, h.glFormat, h.glInternalFormat, h.glBaseInternalFormat,
                ktx.isCompressed() ? " (compressed)" : "");
    std::printf("  mipmap levels:   %u\n", h.numberOfMipmapLevels);
    std::printf("  key/values:      %u (%u bytes)\n", ktx.numMetadataEntries(), h.bytesOfKeyValueData);
    for (unsigned i = 0; i < ktx.numMetadataEntries(); ++i)
        std::printf("    %s = %s\n", qPrintable(ktx.key(i)), ktx.valueBytes(i).toHex(' ').left(96).constData());
    if (!ktx.parseImages()) {
        std::fprintf(stderr, "vyxgl inspect: the KTX image data is truncated or malformed\n");
        return 1;
    }
    for (const KTXImage& image : ktx.images())
        if (image.face == 0)
            std::printf("  level %u: %u x %u x %u, %u bytes per face at offset %llu\n", image.level, image.width,
                        image.height, image.depth, image.size, static_cast<unsigned long long>(image.offset));
    return 0;
}

// Skins, morph targets and animations, from the GL-free reading of the file.
void printAnimation(const QString& path)
{
    GLTFSceneReader reader;
    const std::unique_ptr<SceneData> scene = reader.read(path);
    if (!scene)
        return;
    for (size_t s = 0; s < scene->skins.size(); ++s)
        std::printf("  skin %zu:     '%s', %zu joints\n", s, qPrintable(scene->skins[s].name), scene->skins[s].joints.size());
    for (size_t m = 0; m < scene->meshes.size(); ++m) {
        size_t targets = 0;
        for (const SceneData::Primitive& p : scene->meshes[m].primitives)
            targets = std::max(targets, p.targets.size());
        if (targets > 0)
            std::printf("  morph:      mesh %zu '%s', %zu targets\n", m, qPrintable(scene->meshes[m].name), targets);
    }
    for (size_t a = 0; a < scene->animations.size(); ++a) {
        const AnimationSampler sampler(*scene, int(a));
        std::printf("  animation %zu: '%s', %d channels, %.3f s\n", a, qPrintable(scene->animations[a].name),
                    sampler.channelCount(), double(sampler.duration()));
    }
}

// Key/values print as text when they are text (one trailing NUL allowed), else as hex.
QByteArray printableValue(QByteArray value)
{
    if (value.endsWith('\0'))
        value.chop(1);
    const bool text = std::all_of(value.begin(), value.end(), [](char c) { return c >= 0x20 || c == '\t'; });
    return text ? value.left(96) : value.toHex(' ').left(96);
}

int inspectKTX2(Memory& memory)
{
    KTX2Parser ktx(&memory);
    if (!ktx.valid()) {
        std::fprintf(stderr, "vyxgl inspect: the KTX 2 header cannot be read\n");
        return 1;
    }
    const KTX2Header& h = ktx.header();
    const KTX2DataFormat& dfd = ktx.dataFormat();
    std::printf("KTX 2\n");
    std::printf("  size:             %u x %u x %u, %u layers, %u faces\n", h.pixelWidth, h.pixelHeight,
                h.pixelDepth, h.layerCount, h.faceCount);
    std::printf("  vkFormat:         %s (%u), typeSize %u\n", KTX2Parser::formatName(h.vkFormat).constData(),
                h.vkFormat, h.typeSize);
    std::printf("  supercompression: %s (%u)%s\n", KTX2Parser::supercompressionName(h.supercompressionScheme),
                h.supercompressionScheme, ktx.isBasisUniversal() ? ", Basis Universal: not supported" : "");
    if (dfd.present)
        std::printf("  data format:      %s colour model, %s transfer, primaries %u, %ux%ux%u blocks, %u samples\n",
                    KTX2Parser::colorModelName(dfd.colorModel), KTX2Parser::transferFunctionName(dfd.transferFunction),
                    dfd.colorPrimaries, dfd.blockDimensions[0], dfd.blockDimensions[1], dfd.blockDimensions[2],
                    dfd.samples);
    std::printf("  levels:           %u%s\n", h.levelCount, h.levelCount == 0 ? " (made on load)" : "");
    for (size_t i = 0; i < ktx.levels().size(); ++i) {
        const KTX2Level& l = ktx.levels()[i];
        std::printf("    level %zu: %llu bytes at offset %llu, %llu uncompressed\n", i,
                    static_cast<unsigned long long>(l.byteLength), static_cast<unsigned long long>(l.byteOffset),
                    static_cast<unsigned long long>(l.uncompressedByteLength));
    }
    std::printf("  supercompression global data: %llu bytes\n", static_cast<unsigned long long>(h.sgdByteLength));
    std::printf("  key/values:       %u (%u bytes)\n", ktx.numMetadataEntries(), h.kvdByteLength);
    for (unsigned i = 0; i < ktx.numMetadataEntries(); ++i)
        std::printf("    %s = %s\n", qPrintable(ktx.key(i)), printableValue(ktx.valueBytes(i)).constData());
    // A Basis payload is described above; its levels need a transcoder to be checked.
    if (!ktx.isBasisUniversal() && !ktx.parseImages()) {
        std::fprintf(stderr, "vyxgl inspect: the KTX 2 image data cannot be read\n");
        return 1;
    }
    return 0;
}

int inspectScene(const QString& path)
{
    return runWithContext([&path] {
        int status = 0;
        {
            SamplerTextureManager manager;
            GPUModel model;
            QObject lights;
            GLTFImporter importer(&manager);
            if (!importer.load(path, model, &lights)) {
                std::fprintf(stderr, "vyxgl inspect: %s\n", qPrintable(importer.errorString()));
                status = 1;
            } else {
                int commands = 0;
                for (int d = 0; d < model.numDrawables(); ++d)
                    commands += model.drawable(d).transformRefs.size();
                std::printf("glTF scene\n  nodes:      %d\n  drawables:  %d (%d draw "
                            "commands)\n",
                            model.transformCount(), model.numDrawables(), commands);
                std::printf("  objects:    %s\n", qPrintable(model.objectNames().join(QStringLiteral(", ")).left(400)));
                std::printf("  materials:  %s\n",
                            qPrintable(model.materialNames().join(QStringLiteral(", ")).left(400)));
                std::printf("  images:     %d\n", importer.imageCount());
                std::printf("  cameras:    %s\n", qPrintable(model.getCameraNames().join(QStringLiteral(", "))));
                std::printf("  lights:     %d\n", model.lightCount());
                const BoundingBox bounds = model.sceneBounds();
                printVector("  bounds min: ", bounds.minimum());
                printVector("  bounds max: ", bounds.maximum());
                printAnimation(path);
                for (const QString& warning : importer.warnings())
                    std::printf("  warning:    %s\n", qPrintable(warning));
                model.clear();
            }
            manager.clear();
        }
        return status;
    });
}

} // namespace

int runInspect(int argc, char** argv)
{
    if (argc != 1 || isHelp(argv[0])) {
        printInspectUsage();
        return argc == 1 ? 0 : 2;
    }
    const QString path = QString::fromLocal8Bit(argv[0]);
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == QLatin1String("gltf") || suffix == QLatin1String("glb"))
        return inspectScene(path);

    MemoryMappedFile memory(path);
    const uint64_t size = memory.size();
    unsigned char* head = size >= 16 ? memory.get(0, 16) : nullptr;
    if (!head) {
        std::fprintf(stderr, "vyxgl inspect: cannot read '%s'\n", argv[0]);
        return 1;
    }
    const bool ktx = KTXParser::hasIdentifier(head, 16);
    const bool ktx2 = KTX2Parser::hasIdentifier(head, 16);
    const bool astc = ASTCFile::hasMagic(head, 16);
    const bool hdr = std::memcmp(head, "#?", 2) == 0;
    memory.release(head);
    if (ktx)
        return inspectKTX(memory);
    if (ktx2)
        return inspectKTX2(memory);
    if (astc) {
        ASTCFile file(&memory);
        if (!file.valid()) {
            std::fprintf(stderr, "vyxgl inspect: not a readable ASTC file\n");
            return 1;
        }
        std::printf("ASTC\n  footprint: %u x %u x %u\n  size:      %u x %u x %u\n  "
                    "blocks:    %llu%s\n",
                    file.blockWidth(), file.blockHeight(), file.blockDepth(), file.width(), file.height(), file.depth(),
                    static_cast<unsigned long long>(file.blockCount()), file.hasHDRBlocks() ? " (HDR endpoints)" : "");
        return 0;
    }
    if (hdr) {
        HDRDecoder decoder(&memory);
        if (!decoder.valid()) {
            std::fprintf(stderr, "vyxgl inspect: not a readable Radiance HDR file\n");
            return 1;
        }
        std::printf("Radiance HDR\n  size:     %u x %u\n  format:   %s\n  "
                    "exposure: %g\n  axes:     %c%c %c%c\n",
                    decoder.width(), decoder.height(),
                    decoder.format() == 1   ? "32-bit_rle_rgbe"
                    : decoder.format() == 2 ? "32-bit_rle_xyze"
                                            : "(none)",
                    double(decoder.exposure()), decoder.firstSign(), decoder.firstAxis(), decoder.secondSign(),
                    decoder.secondAxis());
        return 0;
    }
    QImageReader reader(path);
    const QByteArray format = reader.format();
    const QImage image = reader.read();
    if (image.isNull()) {
        std::fprintf(stderr, "vyxgl inspect: '%s' is no texture or scene this tool reads: %s\n", argv[0],
                     qPrintable(reader.errorString()));
        return 1;
    }
    std::printf("Image (%s)\n  size:   %d x %d\n  format: QImage::Format %d, %d "
                "bits per pixel%s\n",
                format.constData(), image.width(), image.height(), int(image.format()), image.depth(),
                image.hasAlphaChannel() ? ", alpha" : "");
    return 0;
}
