#include <VyxGL.h>

#include <QGLContext>
#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include <cstdio>
#include <memory>

bool drawQtFirst(QOpenGLFunctions* qt);
bool drawVyxFirst(QOpenGLFunctions* qt);

// Links against the installed package; draws on a headless context, and through Qt's own
// wrappers too where the Qt platform can make a context (it needs a display server).
int main(int argc, char** argv)
{
    Tavren::Vyx::GLContextTracker tracker;
    if (!tracker.check() || vyxGetMemory() != 0)
        return 1;

    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext qtContext;
    QOpenGLFunctions* qt = nullptr;
    std::unique_ptr<Tavren::Vyx::HeadlessGLContext> headless;
    if (qtContext.create() && qtContext.makeCurrent(&surface)) {
        qt = qtContext.functions();
    } else {
        headless = std::make_unique<Tavren::Vyx::HeadlessGLContext>();
        if (!headless->create() || !headless->makeCurrent()) {
            std::printf("no GL context: %s\n", qPrintable(headless->errorString()));
            return 1;
        }
    }
    if (!initializeGLFunctions())
        return 1;
    const bool drawn = drawQtFirst(qt) && drawVyxFirst(qt);
    std::printf("Qt wrappers %s, library %s\n", qt ? "called" : "not available here", drawn ? "drew" : "failed");
    return drawn ? 0 : 1;
}
