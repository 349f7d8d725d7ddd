#pragma once

#include "core/vyxexport.h"
#include "scene/scenedata.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace Tavren::Vyx {

// Parses a .gltf (with its buffers) or .glb into SceneData, without GL. External images are not
// read, only resolved against the file's folder; a missing one is a warning, as is anything the
// parser passes over. A structurally broken file (bad JSON, truncated container, missing buffer,
// accessor past its buffer, index past the vertices, reference to a missing object) fails with
// errorString() set. Compressed geometry (Draco primitives, meshopt buffer views) is decoded here;
// a primitive whose compressed data cannot be decoded is left out with a warning naming it, and a
// file left with nothing to draw fails.
class VYXGL_EXPORT GLTFSceneReader
{
public:
    std::unique_ptr<SceneData> read(const QString& path);
    // .glb when the bytes start with the binary magic, else JSON; relative URIs resolve against
    // baseDirectory.
    std::unique_ptr<SceneData> readFromMemory(const QByteArray& bytes, const QString& baseDirectory);

    // The glTF extensions this reader understands. A file that requires any other fails to load;
    // one that merely uses another is read with a warning, without what the extension adds.
    static const QStringList& supportedExtensions();

    QString errorString() const { return _error; }
    QStringList warnings() const { return _warnings; }

private:
    bool checkExtensions(const QStringList& required, const QStringList& used);

    QString _error;
    QStringList _warnings;
};

} // namespace Tavren::Vyx
