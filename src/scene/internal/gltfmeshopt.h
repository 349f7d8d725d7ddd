#pragma once

#include <QStringList>

namespace tinygltf {
class Model;
}

namespace Tavren::Vyx {

// EXT_meshopt_compression: decompresses every buffer view that carries the extension into a
// buffer of its own, which the view then points at in place of its fallback, and drops the
// extension from it. A view that cannot be decompressed keeps the extension, with a warning
// naming the view; whatever reads it then fails (GLTFAccessorReader::compressedDataLost).
void decompressMeshoptViews(tinygltf::Model& gltf, QStringList& warnings);

} // namespace Tavren::Vyx
