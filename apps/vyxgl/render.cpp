// vyxgl render: a scene (or the built-in demo) to a PNG, headless.
#include "commands.h"

#include "gl/drawing/camera.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/platform/headlesscontext.h"
#include "gl/drawing/opengldevicecontext.h"
#include "render/demoscene.h"
#include "gl/objects/texture.h"
#include "gl/textureio/textureio.h"
#include "gl/textureio/textureutilities.h"
#include "render/gltfimporter.h"
#include "render/postprocess.h"
#include "render/sceneanimator.h"
#include "render/sceneframing.h"
#include "render/scenerenderer.h"
#include "viewport/viewerscene.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>

#include <cmath>
#include <memory>
#include <cstdio>
#include <cstring>

using namespace Tavren::Vyx;

namespace {

void printRenderUsage()
{
    std::printf(
        "usage: vyxgl render [SCENE] [--env FILE] [--size WxH] [--camera N|auto] [--exposure EV] [--aa MODE]\n"
        "                    [--animation N|NAME] [--time SECONDS | --frames FIRST:LAST:FPS] [-o out.png]\n"
        "  SCENE          a .gltf or .glb file; without one, the built-in demo scene\n"
        "  --env FILE     environment picture (lat-long; .hdr, .ktx or any Qt image);\n"
        "                 default: a procedural sky\n"
        "  --size WxH     image size (default 1280x720)\n"
        "  --camera N     the scene's camera N (default: its first, else one framing the scene);\n"
        "                 auto: one framing the scene from the front, whatever cameras it has\n"
        "  --exposure EV  exposure in stops (default 0)\n"
        "  --aa MODE      screen-space anti-aliasing: none (default), fxaa or smaa\n"
        "  --samples N    multisampling samples per pixel (default 4; 1 = off)\n"
        "  --animation A  pose the scene by its animation A (number or name; default: the first\n"
        "                 when --time or --frames is given, else the rest pose)\n"
        "  --time S       the instant of the animation, in seconds (default 0)\n"
        "  --frames F:L:R a sequence from F to L seconds at R frames a second; the output name\n"
        "                 holds the frame number as %%d or %%04d (default vyxgl-frame-%%04d.png)\n"
        "  --timing       print the import, first-frame and warm-frame times, and the warm frame's\n"
        "                 passes on the CPU and the GPU, then once more waiting for the GPU after each\n"
        "  -o FILE        output PNG (default vyxgl-render.png)\n");
}

struct Options
{
    QString scene, environment, output = QStringLiteral("vyxgl-render.png");
    QSize size{1280, 720};
    int camera = -1; // -1 its first camera, if any; kAutomatic one framing the scene
    static constexpr int kAutomatic = -2;
    int samples = 4;
    float exposure = 0.0f;
    PostProcess::Mode antiAliasing = PostProcess::eNone;
    bool timing = false;
    bool reportCoverage = false; // for sweeps over many scenes; not in the usage text
    bool outputGiven = false;
    QString animation; // empty: the rest pose, unless a time or frames are given
    bool animated = false;
    float time = 0.0f;
    float firstTime = 0.0f, lastTime = 0.0f, rate = 0.0f; // rate 0: one picture at `time`
};

// 0 on success, else the exit status after printing why.
int parse(int argc, char** argv, Options& o)
{
    for (int i = 0; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        const bool hasValue = i + 1 < argc;
        const QString value = hasValue ? QString::fromLocal8Bit(argv[i + 1]) : QString();
        bool ok = true;
        if (isHelp(argv[i])) {
            printRenderUsage();
            return -1;
        } else if (arg == QLatin1String("--timing")) {
            o.timing = true;
            continue;
        } else if (arg == QLatin1String("--report-coverage")) {
            o.reportCoverage = true;
            continue;
        } else if (arg.startsWith(QLatin1Char('-')) && !hasValue) {
            std::fprintf(stderr, "vyxgl render: %s needs a value\n", argv[i]);
            return 2;
        } else if (arg == QLatin1String("--env")) {
            o.environment = value;
        } else if (arg == QLatin1String("-o")) {
            o.output = value;
            o.outputGiven = true;
        } else if (arg == QLatin1String("--animation")) {
            o.animation = value;
            o.animated = true;
        } else if (arg == QLatin1String("--time")) {
            o.time = value.toFloat(&ok);
            ok = ok && std::isfinite(o.time);
            o.animated = true;
        } else if (arg == QLatin1String("--frames")) {
            const QStringList parts = value.split(QLatin1Char(':'));
            bool a = false, b = false, c = false;
            if (parts.size() == 3) {
                o.firstTime = parts[0].toFloat(&a);
                o.lastTime = parts[1].toFloat(&b);
                o.rate = parts[2].toFloat(&c);
            }
            ok = a && b && c && std::isfinite(o.firstTime) && std::isfinite(o.lastTime) && o.lastTime >= o.firstTime &&
                 o.rate > 0 && o.rate <= 1000 && (o.lastTime - o.firstTime) * o.rate < 100000;
            o.animated = true;
        } else if (arg == QLatin1String("--camera")) {
            o.camera = value == QLatin1String("auto") ? Options::kAutomatic : value.toInt(&ok);
            ok = ok && (o.camera >= 0 || o.camera == Options::kAutomatic);
        } else if (arg == QLatin1String("--samples")) {
            o.samples = value.toInt(&ok);
            ok = ok && o.samples >= 1 && o.samples <= 16;
        } else if (arg == QLatin1String("--aa")) {
            o.antiAliasing = PostProcess::modeFromString(value, &ok);
        } else if (arg == QLatin1String("--exposure")) {
            o.exposure = value.toFloat(&ok);
            ok = ok && std::isfinite(o.exposure);
        } else if (arg == QLatin1String("--size")) {
            const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("^(\\d{1,5})x(\\d{1,5})$")).match(value);
            o.size = m.hasMatch() ? QSize(m.captured(1).toInt(), m.captured(2).toInt()) : QSize();
            ok = o.size.width() >= 1 && o.size.height() >= 1 && o.size.width() <= 8192 && o.size.height() <= 8192;
        } else if (!arg.startsWith(QLatin1Char('-')) && o.scene.isEmpty()) {
            o.scene = arg;
            continue;
        } else {
            std::fprintf(stderr, "vyxgl render: unknown argument '%s' (see vyxgl render --help)\n", argv[i]);
            return 2;
        }
        if (!ok) {
            std::fprintf(stderr, "vyxgl render: bad value '%s' for %s\n", argv[i + 1], argv[i]);
            return 2;
        }
        ++i;
    }
    if (o.rate > 0 && !o.outputGiven)
        o.output = QStringLiteral("vyxgl-frame-%04d.png");
    if (o.rate > 0 && !o.output.contains(QRegularExpression(QStringLiteral("%0?\\d*d")))) {
        std::fprintf(stderr, "vyxgl render: with --frames the output name needs %%d or %%04d for the frame number\n");
        return 2;
    }
    return 0;
}

// The output name with the frame number in place of its %d or %0Nd.
QString frameName(const QString& pattern, int frame)
{
    const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("%(0?)(\\d*)d")).match(pattern);
    if (!m.hasMatch())
        return pattern;
    const int width = m.captured(2).isEmpty() ? 0 : std::min(m.captured(2).toInt(), 12);
    const QString number = QString::number(frame).rightJustified(width, m.captured(1).isEmpty() ? QLatin1Char(' ') : QLatin1Char('0'));
    return QString(pattern).replace(m.capturedStart(), m.capturedLength(), number);
}

void showProgress(int done, int total)
{
    constexpr int kWidth = 30;
    const int filled = total > 0 ? done * kWidth / total : kWidth;
    std::fprintf(stderr, "\r[%.*s%*s] %d/%d frames", filled, "##############################", kWidth - filled, "", done, total);
    if (done == total)
        std::fprintf(stderr, "\n");
    std::fflush(stderr);
}

// The scene's camera N (its planes widened if they would show nothing), else one framing the
// whole scene.
Camera chooseCamera(GPUModel& model, int index, float aspect)
{
    const BoundingBox bounds = model.sceneBounds();
    if (index >= 0)
        return SceneFraming::enclosingPlanes(model.getCamera(index), model.getCameraWorldSpaceMatrix(index), bounds);
    const float extent = bounds.size().length() + bounds.center().length();
    if ((bounds.isEmpty() || !std::isfinite(extent)) && !model.isDrawablesEmpty())
        std::fprintf(stderr, "vyxgl: warning: the scene has no finite bounds; the camera looks at the origin\n");
    return SceneFraming::framingCamera(bounds, aspect);
}

// Pixels where the scene changed the picture: those that differ from the sky alone; -1 when
// the sky could not be drawn.
qint64 coveredPixels(const QImage& picture, const QImage& sky)
{
    if (sky.isNull() || picture.size() != sky.size())
        return -1;
    const QImage a = picture.convertToFormat(QImage::Format_RGBA8888);
    const QImage b = sky.convertToFormat(QImage::Format_RGBA8888);
    qint64 covered = 0;
    for (int y = 0; y < a.height(); ++y) {
        const uchar* p = a.constScanLine(y);
        const uchar* q = b.constScanLine(y);
        for (int x = 0; x < a.width() * 4; x += 4) {
            // A few levels of rounding apart is still sky.
            const bool differs = std::abs(p[x] - q[x]) > 2 || std::abs(p[x + 1] - q[x + 1]) > 2 ||
                                 std::abs(p[x + 2] - q[x + 2]) > 2;
            covered += differs ? 1 : 0;
        }
    }
    return covered;
}

// Says why a picture shows no part of the scene; the picture is still written.
void warnIfBlank(const GPUModel& model, qint64 covered)
{
    if (model.isDrawablesEmpty())
        std::fprintf(stderr, "vyxgl: warning: the scene has nothing to draw\n");
    else if (model.isDrawEmpty(0, 0))
        std::fprintf(stderr, "vyxgl: warning: every part of the scene is hidden or outside the camera's view\n");
    else if (covered == 0)
        std::fprintf(stderr, "vyxgl: warning: the scene was drawn but no part of it shows in the picture\n");
}

// The finished picture through FXAA or SMAA: uploaded, processed on the GPU and read back.
QImage antiAliased(const QImage& image, PostProcess::Mode mode)
{
    if (mode == PostProcess::eNone)
        return image;
    const std::unique_ptr<Texture> source(QImageToTexture(image.convertToFormat(QImage::Format_ARGB32), false, TextureFileInfo()));
    const std::unique_ptr<Texture> destination(source ? WritableCopyOfTexture(source.get(), GL_RGBA8, 0) : nullptr);
    PostProcess post;
    if (!destination || !post.apply(mode, source.get(), destination.get()) || !destination->bind())
        return QImage();
    QImage result(image.size(), QImage::Format_RGBA8888);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_UNSIGNED_BYTE, result.bits());
    destination->unbind();
    return result;
}

int renderWithContext(const Options& options)
{
    QElapsedTimer timer;
    timer.start();
    GPUModel model;
    QObject lights;
    GLTFImporter importer;
    const bool imported = options.scene.isEmpty()
                              ? importer.loadFromMemory(DemoScene::glb(), QString(), model, &lights)
                              : importer.load(options.scene, model, &lights);
    if (!imported) {
        std::fprintf(stderr, "vyxgl render: %s: %s\n",
                     qPrintable(options.scene.isEmpty() ? QStringLiteral("demo scene") : options.scene),
                     qPrintable(importer.errorString()));
        return 1;
    }
    const qint64 importTime = timer.nsecsElapsed();
    const std::unique_ptr<SceneAnimator> animator = importer.takeAnimator();
    int animation = -1;
    if (options.animated) {
        const QString wanted = options.animation.isEmpty() ? QStringLiteral("0") : options.animation;
        animation = animator ? animator->findAnimation(wanted) : -1;
        if (animation < 0) {
            std::fprintf(stderr, "vyxgl render: the scene has no animation '%s' (it has %d)\n", qPrintable(wanted),
                         animator ? animator->animationCount() : 0);
            return 2;
        }
        if (!animator->setTime(animation, options.rate > 0 ? options.firstTime : options.time)) {
            std::fprintf(stderr, "vyxgl render: the animation could not be posed\n");
            return 1;
        }
        for (const QString& warning : animator->warnings())
            std::fprintf(stderr, "vyxgl: warning: %s\n", qPrintable(warning));
    }
    ViewerScene::addDefaultSunIfUnlit(model, &lights);
    const float aspect = float(options.size.width()) / float(options.size.height());
    if (options.camera >= model.getCameraCount()) {
        std::fprintf(stderr, "vyxgl render: camera %d does not exist (the scene has %d)\n", options.camera,
                     model.getCameraCount());
        return 2;
    }
    const int cameraIndex = options.camera != -1 ? options.camera : (model.getCameraCount() > 0 ? 0 : -1);
    const Camera camera = chooseCamera(model, cameraIndex, aspect);

    SceneRenderer renderer;
    renderer.setExposure(options.exposure);
    renderer.setSamples(options.samples);
    if (!options.environment.isEmpty() &&
        !renderer.setEnvironmentFile(options.environment, OkuImageCubemapUtils::SourceLatLong)) {
        std::fprintf(stderr, "vyxgl render: %s\n", qPrintable(renderer.errorString()));
        return 1;
    }
    timer.restart();
    QImage image = renderer.renderToImage(model, camera, options.size);
    glFinish();
    const qint64 firstFrame = timer.nsecsElapsed();
    if (image.isNull()) {
        std::fprintf(stderr, "vyxgl render: %s\n", qPrintable(renderer.errorString()));
        return 1;
    }
    if (options.timing) {
        renderer.setTimingEnabled(true);
        timer.restart();
        image = renderer.renderToImage(model, camera, options.size);
        glFinish();
        std::printf("import %.1f ms, first frame %.1f ms, warm frame %.1f ms\n", importTime / 1e6, firstFrame / 1e6,
                    timer.nsecsElapsed() / 1e6);
        // Read after glFinish, so the GPU's figures are in.
        std::printf("passes: %s\n", qPrintable(renderer.lastFrameTimings().toString()));
        // Software rasterisers draw at the next flush, out of the queries' sight: a frame that
        // waits at each pass puts every pass's drawing in its CPU figure.
        renderer.setTimingWaitsForGPU(true);
        image = renderer.renderToImage(model, camera, options.size);
        std::printf("passes, waiting for the GPU after each: %s\n", qPrintable(renderer.lastFrameTimings().toString()));
        renderer.setTimingWaitsForGPU(false);
        renderer.setTimingEnabled(false);
    }
    // A model that drew nothing (culling above left no command) covers nothing; otherwise the
    // sky alone from the same camera tells which pixels the scene took.
    const bool drawEmpty = model.isDrawablesEmpty() || model.isDrawEmpty(0, 0);
    GPUModel nothing;
    const qint64 covered = drawEmpty ? 0 : coveredPixels(image, renderer.renderToImage(nothing, camera, options.size));
    warnIfBlank(model, covered);
    if (options.reportCoverage && covered >= 0)
        std::printf("coverage: %lld of %lld pixels\n", static_cast<long long>(covered),
                    static_cast<long long>(image.width()) * image.height());
    image = antiAliased(image, options.antiAliasing);
    if (image.isNull()) {
        std::fprintf(stderr, "vyxgl render: the anti-aliasing pass failed\n");
        return 1;
    }
    const GLenum error = glGetError();
    if (error != GL_NO_ERROR) {
        std::fprintf(stderr, "vyxgl render: GL error 0x%04x while rendering\n", error);
        return 1;
    }
    const QString output = options.rate > 0 ? frameName(options.output, 0) : options.output;
    if (!image.save(output, "PNG")) {
        std::fprintf(stderr, "vyxgl render: cannot write '%s'\n", qPrintable(output));
        return 1;
    }
    if (options.rate <= 0) {
        std::printf("%s\n", qPrintable(QFileInfo(options.output).absoluteFilePath()));
        model.clear();
        return 0;
    }
    // The rest of the sequence; the first picture is the one written above.
    const int frames = int(std::floor((options.lastTime - options.firstTime) * options.rate + 1e-4f)) + 1;
    showProgress(1, frames);
    for (int frame = 1; frame < frames; ++frame) {
        const QString name = frameName(options.output, frame);
        image = animator->setTime(animation, options.firstTime + float(frame) / options.rate)
                    ? antiAliased(renderer.renderToImage(model, camera, options.size), options.antiAliasing)
                    : QImage();
        if (image.isNull() || !image.save(name, "PNG")) {
            std::fprintf(stderr, "\nvyxgl render: frame %d could not be rendered or written to '%s': %s\n", frame,
                         qPrintable(name), qPrintable(renderer.errorString()));
            return 1;
        }
        showProgress(frame + 1, frames);
    }
    std::printf("%s\n", qPrintable(QFileInfo(frameName(options.output, 0)).absoluteFilePath()));
    model.clear();
    return 0;
}

} // namespace

int runRender(int argc, char** argv)
{
    Options options;
    const int parsed = parse(argc, argv, options);
    if (parsed)
        return parsed < 0 ? 0 : parsed;
    return runWithContext([&options] { return renderWithContext(options); });
}
