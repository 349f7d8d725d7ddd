#include <VyxGL.h>

#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include <cstdio>
#include <memory>

static_assert(QT_VERSION_MAJOR == VYX_EXPECTED_QT_MAJOR, "the package brought another Qt than the library's");

bool drawQtFirst(QOpenGLFunctions* qt);
bool drawVyxFirst(QOpenGLFunctions* qt);

namespace {

// A context of Qt's own, when there is a display server to make one on.
struct QtContext
{
    QtContext(int& argc, char** argv) : application(argc, argv) { surface.create(); }
    QGuiApplication application;
    QOffscreenSurface surface;
    QOpenGLContext context;
};

} // namespace

// Links against the installed package and draws: on a headless context, and through Qt's own
// wrappers as well where Qt can make a context.
int main(int argc, char** argv)
{
    Tavren::Vyx::GLContextTracker tracker;
    if (!tracker.check() || vyxGetMemory() != 0)
        return 1;

    std::unique_ptr<QtContext> qtContext;
    QOpenGLFunctions* qt = nullptr;
    if (qEnvironmentVariableIsSet("DISPLAY")) {
        qtContext = std::make_unique<QtContext>(argc, argv);
        if (qtContext->context.create() && qtContext->context.makeCurrent(&qtContext->surface))
            qt = qtContext->context.functions();
    }
    Tavren::Vyx::HeadlessGLContext headless;
    if (!qt && !(headless.create() && headless.makeCurrent())) {
        std::printf("no GL context: %s\n", qPrintable(headless.errorString()));
        return 1;
    }
    if (!initializeGLFunctions())
        return 1;
    const bool drawn = drawQtFirst(qt) && drawVyxFirst(qt);
    std::printf("Qt wrappers %s, library %s\n", qt ? "called" : "not available here", drawn ? "drew" : "failed");
    return drawn ? 0 : 1;
}
