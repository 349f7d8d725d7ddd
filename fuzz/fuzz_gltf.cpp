#include "scene/gltfscenereader.h"

#include "quiet.h"

#include <QByteArray>
#include <QDir>

#include <cstdint>

using namespace Tavren::Vyx;

// The parsing step alone: no GL, so no context.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    GLTFSceneReader reader;
    // External files resolve against an empty folder, so inputs cannot reach the file system.
    reader.readFromMemory(QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size)),
                          QDir::tempPath() + QStringLiteral("/vyx-fuzz-gltf-none"));
    return 0;
}
