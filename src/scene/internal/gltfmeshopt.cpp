#include "scene/internal/gltfmeshopt.h"

#include "scene/internal/gltfvalues.h"

#include <meshoptimizer.h>
#include <tiny_gltf.h>

#include <initializer_list>
#include <utility>

namespace Tavren::Vyx {

namespace {

constexpr char kExtension[] = "EXT_meshopt_compression";
// The codecs spend at least two bits on every 16 bytes they produce (a group of zero deltas), so
// a stream decodes to at most 64 times its length; a view that claims more is corrupt, and is
// refused before anything is allocated for it.
constexpr size_t kMaxExpansion = 64;

enum class Mode { Attributes, Triangles, Indices };
enum class Filter { None, Octahedral, Quaternion, Exponential };

struct Compressed
{
    size_t buffer = 0, byteOffset = 0, byteLength = 0, byteStride = 0, count = 0;
    Mode mode = Mode::Attributes;
    Filter filter = Filter::None;
};

// A string member; `fallback` when absent, "?" when of another kind.
std::string name(const tinygltf::Value& object, const char* key, const char* fallback)
{
    const tinygltf::Value& value = gltfMember(object, key);
    return value.IsString() ? value.Get<std::string>() : object.Has(key) ? "?" : fallback;
}

template <typename E>
bool lookUp(const std::string& name, std::initializer_list<std::pair<const char*, E>> names, E& out)
{
    for (const auto& [candidate, value] : names)
        if (name == candidate)
            return out = value, true;
    return false;
}

// Reads the extension object and checks it against itself and its view, as the extension
// requires; the empty string when it holds, else the reason.
QString parse(const tinygltf::Model& gltf, size_t fileBuffers, const tinygltf::BufferView& view, const tinygltf::Value& object,
              Compressed& out)
{
    if (!object.IsObject())
        return QStringLiteral("its extension is not an object");
    for (const auto& [key, into, required] : {std::tuple<const char*, size_t*, bool>{"buffer", &out.buffer, true},
                                              {"byteOffset", &out.byteOffset, false},
                                              {"byteLength", &out.byteLength, true},
                                              {"byteStride", &out.byteStride, true},
                                              {"count", &out.count, true}})
        if ((required || object.Has(key)) && !gltfSize(object, key, *into))
            return QStringLiteral("its %1 is missing or not a count").arg(QLatin1String(key));
    const std::string mode = name(object, "mode", "");
    if (!lookUp(mode, {{"ATTRIBUTES", Mode::Attributes}, {"TRIANGLES", Mode::Triangles}, {"INDICES", Mode::Indices}}, out.mode))
        return QStringLiteral("its mode '%1' is none of ATTRIBUTES, TRIANGLES and INDICES").arg(QString::fromStdString(mode));
    const std::string filter = name(object, "filter", "NONE");
    if (!lookUp(filter, {{"NONE", Filter::None}, {"OCTAHEDRAL", Filter::Octahedral}, {"QUATERNION", Filter::Quaternion},
                         {"EXPONENTIAL", Filter::Exponential}}, out.filter))
        return QStringLiteral("its filter '%1' is unknown").arg(QString::fromStdString(filter));

    const size_t stride = out.byteStride;
    if (out.mode == Mode::Attributes && (stride == 0 || stride % 4 != 0 || stride > 256))
        return QStringLiteral("its byte stride %1 is not a multiple of 4 up to 256").arg(stride);
    if (out.mode != Mode::Attributes && stride != 2 && stride != 4)
        return QStringLiteral("its index size %1 is neither 2 nor 4").arg(stride);
    if (out.mode == Mode::Triangles && out.count % 3 != 0)
        return QStringLiteral("its %1 triangle indices are not a multiple of 3").arg(out.count);
    if (out.filter != Filter::None &&
        (out.mode != Mode::Attributes || (out.filter == Filter::Octahedral && stride != 4 && stride != 8) ||
         (out.filter == Filter::Quaternion && stride != 8)))
        return QStringLiteral("its filter '%1' does not fit its mode and byte stride %2").arg(QString::fromStdString(filter)).arg(stride);
    if (view.byteStride != 0 && view.byteStride != stride)
        return QStringLiteral("its byte stride %1 differs from the view's %2").arg(stride).arg(view.byteStride);
    if (out.count > view.byteLength / stride || out.count * stride != view.byteLength)
        return QStringLiteral("%1 elements of %2 bytes do not fill the view's %3 bytes").arg(out.count).arg(stride).arg(view.byteLength);

    if (out.buffer >= fileBuffers)
        return QStringLiteral("its buffer %1 does not exist").arg(out.buffer);
    const size_t available = gltf.buffers[out.buffer].data.size();
    if (out.byteOffset > available || out.byteLength > available - out.byteOffset)
        return QStringLiteral("its %1 bytes at %2 reach past the end of buffer %3 (%4 bytes)")
            .arg(out.byteLength).arg(out.byteOffset).arg(out.buffer).arg(available);
    if (view.byteLength / kMaxExpansion > out.byteLength)
        return QStringLiteral("%1 compressed bytes cannot hold %2").arg(out.byteLength).arg(view.byteLength);
    return {};
}

QString decompress(const tinygltf::Model& gltf, const Compressed& c, std::vector<unsigned char>& out)
{
    out.assign(c.count * c.byteStride, 0);
    const unsigned char* source = gltf.buffers[c.buffer].data.data() + c.byteOffset;
    int result = 0;
    switch (c.mode) {
    case Mode::Attributes: result = meshopt_decodeVertexBuffer(out.data(), c.count, c.byteStride, source, c.byteLength); break;
    case Mode::Triangles: result = meshopt_decodeIndexBuffer(out.data(), c.count, c.byteStride, source, c.byteLength); break;
    case Mode::Indices: result = meshopt_decodeIndexSequence(out.data(), c.count, c.byteStride, source, c.byteLength); break;
    }
    if (result != 0)
        return QStringLiteral("the decoder refused its data (error %1)").arg(result);
    switch (c.filter) {
    case Filter::None: break;
    case Filter::Octahedral: meshopt_decodeFilterOct(out.data(), c.count, c.byteStride); break;
    case Filter::Quaternion: meshopt_decodeFilterQuat(out.data(), c.count, c.byteStride); break;
    case Filter::Exponential: meshopt_decodeFilterExp(out.data(), c.count, c.byteStride); break;
    }
    return {};
}

} // namespace

void decompressMeshoptViews(tinygltf::Model& gltf, QStringList& warnings)
{
    const size_t fileBuffers = gltf.buffers.size();
    for (size_t v = 0; v < gltf.bufferViews.size(); ++v) {
        tinygltf::BufferView& view = gltf.bufferViews[v];
        const auto found = view.extensions.find(kExtension);
        if (found == view.extensions.end())
            continue;
        Compressed compressed;
        tinygltf::Buffer decoded;
        QString why = parse(gltf, fileBuffers, view, found->second, compressed);
        if (why.isEmpty())
            why = decompress(gltf, compressed, decoded.data);
        if (!why.isEmpty()) {
            warnings << QStringLiteral("Buffer view %1 cannot be decompressed: %2").arg(v).arg(why);
            continue;
        }
        view.buffer = int(gltf.buffers.size());
        view.byteOffset = 0;
        view.extensions.erase(found);
        gltf.buffers.push_back(std::move(decoded));
    }
}

} // namespace Tavren::Vyx
