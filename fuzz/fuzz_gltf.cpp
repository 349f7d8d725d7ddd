#include "gl/drawing/opengldevicecontext.h"
#include "gl/model/gpumodel.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"

#include "quiet.h"

#include <QByteArray>
#include <QDir>

#include <cstdint>
#include <cstdlib>

using namespace Tavren::Vyx;

// Import builds GL buffers, so one headless context serves every input.
static bool contextReady()
{
    static HeadlessGLContext* context = [] {
        auto* made = new HeadlessGLContext;
        if (!made->create() || !made->makeCurrent() || !initializeGLFunctions())
            std::abort();
        OpenGLDeviceContext::resetContext();
        return made;
    }();
    return context != nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    contextReady();
    static SamplerTextureManager manager;
    static QObject lights;
    GPUModel model;
    GLTFImporter importer(&manager);
    // External files resolve against an empty folder, so inputs cannot reach the file system.
    importer.loadFromMemory(QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size)),
                            QDir::tempPath() + QStringLiteral("/vyx-fuzz-gltf-none"), model, &lights);
    model.clear();
    qDeleteAll(lights.children());
    manager.clear();
    return 0;
}
