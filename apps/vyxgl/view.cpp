// vyxgl view: an interactive window on a scene (or the built-in demo).
#include "commands.h"

#include "gl/model/gpumodel.h"
#include "render/sceneanimator.h"
#include "render/scenerenderer.h"
#include "viewport/orbitcameracontroller.h"
#include "viewport/sceneviewport.h"

#include <QApplication>
#include <QDragEnterEvent>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QFileInfo>
#include <QKeyEvent>
#include <QMainWindow>
#include <QMessageBox>
#include <QMimeData>
#include <QRegularExpression>
#include <QStatusBar>
#include <QTimer>

#include <cmath>
#include <cstdio>

using namespace Tavren::Vyx;

namespace {

void printViewUsage()
{
    std::printf("usage: vyxgl view [SCENE] [--size WxH] [--screenshot FILE]\n"
                "  SCENE            a .gltf or .glb file; without one, the built-in demo scene\n"
                "  --size WxH       window size (default 1280x720)\n"
                "  --screenshot F   write the first full-quality frame to F (PNG) and quit\n"
                "  in the window: drag to orbit (Shift or middle button: pan, right: dolly), wheel\n"
                "  dollies towards the cursor, click picks; F frame all, G frame selection, C next\n"
                "  camera, Space play/pause, R reload, S screenshot, O or Ctrl+O open, drop files\n");
}

struct ViewOptions
{
    QString scene, screenshot;
    QSize size{1280, 720};
};

class ViewerWindow : public QMainWindow
{
public:
    explicit ViewerWindow(bool quiet)
        : _quiet(quiet)
    {
        setCentralWidget(_viewport = new SceneViewport(this));
        setAcceptDrops(true);
        _viewport->setFocus();
        // Emitted from paintGL, with the context current and the frame finished, so the GPU's
        // figures are ready to read without waiting.
        connect(_viewport, &SceneViewport::frameRendered, this, [this](double) {
            if (SceneRenderer* renderer = _viewport->renderer()) {
                _gpuMilliseconds = gpuTotal(renderer->lastFrameTimings());
                renderer->setTimingEnabled(true);
            }
            showStatus();
        });
        connect(_viewport, &SceneViewport::selectionChanged, this, [this] { showStatus(); });
        _player.setInterval(33);
        connect(&_player, &QTimer::timeout, this, [this] { advanceAnimation(); });
    }

    SceneViewport* viewport() const { return _viewport; }

    // False after saying why; the scene on screen stays.
    bool open(const QString& path)
    {
        const bool loaded = path.isEmpty() ? _viewport->loadDemoScene() : _viewport->loadScene(path);
        if (!loaded) {
            report(_viewport->errorString());
            return false;
        }
        _camera = _viewport->model()->getCameraCount() > 0 ? 0 : -1;
        _player.stop();
        _animationTime = 0;
        setWindowTitle(QStringLiteral("vyxgl view - %1")
                           .arg(path.isEmpty() ? QStringLiteral("demo scene") : QFileInfo(path).fileName()));
        return true;
    }

protected:
    void keyPressEvent(QKeyEvent* event) override
    {
        switch (event->key()) {
        case Qt::Key_F:
            _viewport->frameAll();
            break;
        case Qt::Key_G:
            _viewport->frameSelection();
            break;
        case Qt::Key_C: nextCamera(); break;
        case Qt::Key_Space: togglePlay(); break;
        case Qt::Key_R: open(_viewport->scenePath()); break;
        case Qt::Key_S: screenshot(); break;
        case Qt::Key_O: {
            const QString path = QFileDialog::getOpenFileName(this, QStringLiteral("Open a scene"), QString(),
                                                              QStringLiteral("glTF scenes (*.gltf *.glb);;All files (*)"));
            if (!path.isEmpty())
                open(path);
            break;
        }
        default:
            QMainWindow::keyPressEvent(event);
        }
    }

    void dragEnterEvent(QDragEnterEvent* event) override
    {
        if (event->mimeData()->hasUrls())
            event->acceptProposedAction();
    }

    void dropEvent(QDropEvent* event) override
    {
        const QList<QUrl> urls = event->mimeData()->urls();
        if (!urls.isEmpty() && urls.first().isLocalFile())
            open(urls.first().toLocalFile());
    }

private:
    void report(const QString& message)
    {
        std::fprintf(stderr, "vyxgl view: %s\n", qPrintable(message));
        if (!_quiet && isVisible())
            QMessageBox::warning(this, QStringLiteral("vyxgl view"), message);
    }

    void showStatus()
    {
        const ViewportPick picked = _viewport->selection();
        QString text = picked.hit ? QStringLiteral("%1 (mesh %2, material %3)").arg(picked.node, picked.mesh, picked.material)
                                  : QStringLiteral("nothing selected");
        text += QStringLiteral("  |  frame %1 ms%2").arg(_viewport->lastFrameMilliseconds(), 0, 'f', 1)
                    .arg(_viewport->isInteractive() ? QStringLiteral(" (interactive)") : QString());
        if (_gpuMilliseconds >= 0)
            text += QStringLiteral(", GPU %1 ms").arg(_gpuMilliseconds, 0, 'f', 1);
        if (_player.isActive())
            text += QStringLiteral("  |  %1 s").arg(_animationTime, 0, 'f', 2);
        statusBar()->showMessage(text);
    }

    // The renderer's passes on the GPU; negative when any of them has no figure.
    static double gpuTotal(const FrameTimings& timings)
    {
        double total = 0;
        for (int p = 0; p < FrameTimings::kPassCount; ++p) {
            if (timings.ran[p] && timings.gpuMilliseconds[p] < 0)
                return -1;
            total += timings.ran[p] ? timings.gpuMilliseconds[p] : 0.0;
        }
        return timings.gpuTimingAvailable ? total : -1;
    }

    void nextCamera()
    {
        const int count = _viewport->model()->getCameraCount();
        if (count == 0) {
            statusBar()->showMessage(QStringLiteral("the scene has no cameras"), 2000);
            return;
        }
        _camera = (_camera + 1) % count;
        _viewport->showSceneCamera(_camera);
    }

    void togglePlay()
    {
        SceneAnimator* animator = _viewport->animator();
        if (!animator || animator->animationCount() == 0) {
            statusBar()->showMessage(QStringLiteral("the scene has no animation"), 2000);
            return;
        }
        if (_player.isActive()) {
            _player.stop();
            _viewport->setInteractive(false);
            return;
        }
        _clock.start();
        _startTime = _animationTime;
        _viewport->setInteractive(true);
        _player.start();
    }

    void advanceAnimation()
    {
        SceneAnimator* animator = _viewport->animator();
        if (!animator || animator->animationCount() == 0) {
            _player.stop();
            return;
        }
        const float duration = animator->duration(0);
        const float elapsed = _startTime + float(_clock.nsecsElapsed() / 1e9);
        _animationTime = duration > 0 ? std::fmod(elapsed, duration) : 0.0f;
        if (!_viewport->setAnimationTime(0, _animationTime)) {
            _player.stop();
            report(QStringLiteral("the animation could not be posed"));
        }
    }

    void screenshot()
    {
        const QString name = QStringLiteral("vyxgl-view-%1.png").arg(++_screenshots);
        if (_viewport->grabFramebuffer().save(name, "PNG"))
            statusBar()->showMessage(QStringLiteral("wrote %1").arg(QFileInfo(name).absoluteFilePath()), 3000);
        else
            report(QStringLiteral("cannot write '%1'").arg(name));
    }

    SceneViewport* _viewport;
    QTimer _player;
    double _gpuMilliseconds = -1;
    QElapsedTimer _clock;
    float _startTime = 0, _animationTime = 0;
    int _camera = -1;
    int _screenshots = 0;
    bool _quiet;
};

int parse(int argc, char** argv, ViewOptions& options)
{
    for (int i = 0; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        const QString value = i + 1 < argc ? QString::fromLocal8Bit(argv[i + 1]) : QString();
        if (isHelp(argv[i])) {
            printViewUsage();
            return -1;
        }
        if ((arg == QLatin1String("--size") || arg == QLatin1String("--screenshot")) && i + 1 >= argc) {
            std::fprintf(stderr, "vyxgl view: %s needs a value\n", argv[i]);
            return 2;
        }
        if (arg == QLatin1String("--screenshot")) {
            options.screenshot = value;
            ++i;
        } else if (arg == QLatin1String("--size")) {
            const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("^(\\d{1,5})x(\\d{1,5})$")).match(value);
            options.size = m.hasMatch() ? QSize(m.captured(1).toInt(), m.captured(2).toInt()) : QSize();
            if (options.size.width() < 32 || options.size.height() < 32 || options.size.width() > 8192 ||
                options.size.height() > 8192) {
                std::fprintf(stderr, "vyxgl view: bad value '%s' for --size\n", argv[i + 1]);
                return 2;
            }
            ++i;
        } else if (!arg.startsWith(QLatin1Char('-')) && options.scene.isEmpty()) {
            options.scene = arg;
        } else {
            std::fprintf(stderr, "vyxgl view: unknown argument '%s' (see vyxgl view --help)\n", argv[i]);
            return 2;
        }
    }
    return 0;
}

} // namespace

int runView(int argc, char** argv)
{
    ViewOptions options;
    const int parsed = parse(argc, argv, options);
    if (parsed)
        return parsed < 0 ? 0 : parsed;
    int appArgc = 1;
    char name[] = "vyxgl";
    char* appArgv[] = {name, nullptr};
    // Only this command needs a display: the others run headless.
    QApplication application(appArgc, appArgv);
    const bool oneShot = !options.screenshot.isEmpty();
    ViewerWindow window(oneShot);
    window.resize(options.size);
    window.show();
    // A grab initialises the viewport's context even before the window is first exposed.
    QApplication::processEvents();
    window.viewport()->grabFramebuffer();
    if (!window.viewport()->isValid()) {
        std::fprintf(stderr, "vyxgl view: no GL context for the window\n");
        return 1;
    }
    if (!window.open(options.scene) && oneShot)
        return 1;
    if (oneShot) {
        const QImage frame = window.viewport()->grabFramebuffer();
        if (frame.isNull() || !frame.save(options.screenshot, "PNG")) {
            std::fprintf(stderr, "vyxgl view: cannot write '%s'\n", qPrintable(options.screenshot));
            return 1;
        }
        std::printf("%s\n", qPrintable(QFileInfo(options.screenshot).absoluteFilePath()));
        return 0;
    }
    return application.exec();
}
