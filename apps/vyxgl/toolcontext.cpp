#include "commands.h"

#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/textures/texturemanager.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstring>

using namespace Tavren::Vyx;

namespace {

std::unique_ptr<HeadlessGLContext> makeToolContext()
{
    auto context = std::make_unique<HeadlessGLContext>();
    if (!context->create() || !context->makeCurrent()) {
        std::fprintf(stderr, "vyxgl: cannot create a headless GL context: %s\n",
                     context->errorString().toLocal8Bit().constData());
        return nullptr;
    }
    if (!initializeGLFunctions()) {
        std::fprintf(stderr, "vyxgl: the GL entry points could not be loaded\n");
        return nullptr;
    }
    OpenGLDeviceContext::resetContext();
    return context;
}

void releaseToolContext()
{
    if (TextureManager::hasInstance())
        TextureManager::Instance()->clear();
    OpenGLDeviceContext::resetContext();
}

} // namespace

int runWithContext(const std::function<int()>& work)
{
    int argc = 1;
    char name[] = "vyxgl";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    auto context = makeToolContext();
    if (!context)
        return 1;
    const int status = work();
    releaseToolContext();
    return status;
}

bool isHelp(const char* argument)
{
    return std::strcmp(argument, "--help") == 0 || std::strcmp(argument, "-h") == 0;
}
