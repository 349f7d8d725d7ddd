#pragma once

#include <QByteArray>
#include <QJsonObject>

#include <vector>

namespace tinygltf {
class Model;
}

namespace Tavren::Vyx {

// The parser refuses two things that compressed files legally hold: an index accessor without a
// buffer view (every Draco primitive's, whose indices the decoder gives) and a meshopt fallback
// buffer without data of its own. This hands it the file with those moved out of its way, and
// puts them back into what it parsed. Files without either pass unchanged.
class GLTFParserInput
{
public:
    // `root` is the file's JSON as Qt read it; empty when it could not, and then nothing changes.
    GLTFParserInput(const QByteArray& file, const QJsonObject& root);

    // What the parser reads.
    const QByteArray& bytes() const { return _bytes; }
    // Undoes the changes in the parsed model: hidden index accessors return to their primitives,
    // and fallback buffers are left empty (their views are decompressed from other buffers).
    void restore(tinygltf::Model& gltf) const;

private:
    QByteArray _bytes;
    bool _changed = false;
    std::vector<int> _fallbackBuffers;
};

} // namespace Tavren::Vyx
