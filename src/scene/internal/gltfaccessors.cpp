#include "scene/internal/gltfaccessors.h"

#include <tiny_gltf.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace Tavren::Vyx {

namespace {

// Larger accessors are taken for corrupt counts rather than scenes.
constexpr size_t kMaxElements = size_t(1) << 28;
// An accessor without a buffer view is zeros that no bytes of the file pay for, so its size is
// capped lower: a few bytes of JSON must not claim gigabytes.
constexpr size_t kMaxZeroComponents = size_t(1) << 24;

template <typename T>
T load(const unsigned char* p)
{
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

template <typename T>
float plain(const unsigned char* p)
{
    return float(load<T>(p));
}

template <typename T>
float normalised(const unsigned char* p)
{
    return std::max(float(load<T>(p)) / float(std::numeric_limits<T>::max()), -1.0f);
}

template <typename T>
quint32 widened(const unsigned char* p)
{
    return quint32(load<T>(p));
}

using FloatLoad = float (*)(const unsigned char*);
using UnsignedLoad = quint32 (*)(const unsigned char*);

FloatLoad floatLoad(int componentType, bool normalise)
{
    switch (componentType) {
    case TINYGLTF_COMPONENT_TYPE_FLOAT: return &load<float>;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: return normalise ? &normalised<quint8> : &plain<quint8>;
    case TINYGLTF_COMPONENT_TYPE_BYTE: return normalise ? &normalised<qint8> : &plain<qint8>;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: return normalise ? &normalised<quint16> : &plain<quint16>;
    case TINYGLTF_COMPONENT_TYPE_SHORT: return normalise ? &normalised<qint16> : &plain<qint16>;
    default: return nullptr;
    }
}

UnsignedLoad unsignedLoad(int componentType)
{
    switch (componentType) {
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: return &widened<quint8>;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: return &widened<quint16>;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT: return &widened<quint32>;
    default: return nullptr;
    }
}

} // namespace

bool GLTFAccessorReader::fail(const QString& message)
{
    if (error.isEmpty())
        error = message;
    return false;
}

// Finds `count` elements of `elementBytes` at `byteOffset` in a buffer view, at the view's stride or
// tightly packed, and checks that all of them lie inside the view and the view inside its buffer.
bool GLTFAccessorReader::block(const QString& what, int viewIndex, size_t byteOffset, size_t elementBytes,
                               bool useViewStride, size_t count, Block& out)
{
    if (viewIndex < 0 || viewIndex >= int(_gltf.bufferViews.size()))
        return fail(QStringLiteral("%1 uses buffer view %2, which does not exist").arg(what).arg(viewIndex));
    const tinygltf::BufferView& view = _gltf.bufferViews[size_t(viewIndex)];
    // Views are decompressed before anything is read; one that still has the extension failed,
    // which was reported then.
    if (view.extensions.count("EXT_meshopt_compression")) {
        if (error.isEmpty())
            compressedDataLost = true;
        return fail(QStringLiteral("%1 uses buffer view %2, whose compressed data could not be decompressed").arg(what).arg(viewIndex));
    }
    if (view.buffer < 0 || view.buffer >= int(_gltf.buffers.size()))
        return fail(QStringLiteral("Buffer view %1 uses buffer %2, which does not exist").arg(viewIndex).arg(view.buffer));
    const std::vector<unsigned char>& data = _gltf.buffers[size_t(view.buffer)].data;
    if (view.byteOffset > data.size() || view.byteLength > data.size() - view.byteOffset)
        return fail(QStringLiteral("Buffer view %1 reaches past the end of buffer %2 (%3 bytes)")
                        .arg(viewIndex).arg(view.buffer).arg(data.size()));
    const size_t stride = useViewStride && view.byteStride ? view.byteStride : elementBytes;
    if (stride < elementBytes)
        return fail(QStringLiteral("Buffer view %1 has a stride below its element size").arg(viewIndex));
    // Written so that no product or sum can overflow, whatever the file claims.
    const size_t length = view.byteLength;
    if (count > 0 && (byteOffset > length || elementBytes > length - byteOffset ||
                      count - 1 > (length - byteOffset - elementBytes) / stride))
        return fail(QStringLiteral("%1 reaches past the end of its buffer").arg(what));
    out.base = data.data() + view.byteOffset + byteOffset;
    out.stride = stride;
    return true;
}

template <typename T, typename Decode>
bool GLTFAccessorReader::read(int index, std::initializer_list<int> allowedComponents, int* componentsOut,
                              std::vector<T>& out, const Decode& decode)
{
    if (index < 0 || index >= int(_gltf.accessors.size()))
        return fail(QStringLiteral("Accessor %1 does not exist").arg(index));
    const tinygltf::Accessor& accessor = _gltf.accessors[size_t(index)];
    const QString what = QStringLiteral("Accessor %1").arg(index);
    const int componentBytes = tinygltf::GetComponentSizeInBytes(uint32_t(accessor.componentType));
    const int components = tinygltf::GetNumComponentsInType(uint32_t(accessor.type));
    if (componentBytes <= 0 ||
        std::find(allowedComponents.begin(), allowedComponents.end(), components) == allowedComponents.end())
        return fail(QStringLiteral("Accessor %1 has %2 components of an unusable type, %3 wanted")
                        .arg(index).arg(components).arg(*allowedComponents.begin()));
    const auto load = decode(accessor.componentType);
    if (!load)
        return false;
    const size_t count = accessor.count, width = size_t(components), elementBytes = size_t(componentBytes) * width;
    const auto found = _decoded ? _decoded->find(index) : DecodedAccessors::const_iterator();
    const bool decoded = _decoded && found != _decoded->end();
    if (count > kMaxElements || (accessor.bufferView < 0 && !decoded && count * width > kMaxZeroComponents))
        return fail(QStringLiteral("Accessor %1 has too many elements (%2)").arg(index).arg(count));

    const auto copy = [&](const Block& from, size_t element, size_t to) {
        const unsigned char* p = from.base + element * from.stride;
        for (size_t c = 0; c < width; ++c)
            out[to * width + c] = load(p + c * size_t(componentBytes));
    };
    out.assign(count * width, T(0));
    if (decoded) {
        // The decoder's own check, repeated here where the bytes are read.
        if (found->second.size() != count * elementBytes)
            return fail(QStringLiteral("Accessor %1 does not match its decoded data").arg(index));
        const Block values{found->second.data(), elementBytes};
        for (size_t i = 0; i < count; ++i)
            copy(values, i, i);
    } else if (accessor.bufferView >= 0) {
        Block values;
        if (!block(what, accessor.bufferView, accessor.byteOffset, elementBytes, true, count, values))
            return false;
        for (size_t i = 0; i < count; ++i)
            copy(values, i, i);
    }

    if (accessor.sparse.isSparse) {
        const auto& sparse = accessor.sparse;
        const QString sparseWhat = QStringLiteral("The sparse substitution of accessor %1").arg(index);
        if (sparse.count < 1 || size_t(sparse.count) > count)
            return fail(QStringLiteral("Accessor %1 substitutes %2 of its %3 elements").arg(index).arg(sparse.count).arg(count));
        const UnsignedLoad indexLoad = unsignedLoad(sparse.indices.componentType);
        if (!indexLoad)
            return fail(QStringLiteral("%1 has indices that are not unsigned integers").arg(sparseWhat));
        if (sparse.indices.byteOffset < 0 || sparse.values.byteOffset < 0)
            return fail(QStringLiteral("%1 has a negative byte offset").arg(sparseWhat));
        const size_t substitutions = size_t(sparse.count);
        Block indices, values;
        if (!block(sparseWhat, sparse.indices.bufferView, size_t(sparse.indices.byteOffset),
                   size_t(tinygltf::GetComponentSizeInBytes(uint32_t(sparse.indices.componentType))), false, substitutions,
                   indices) ||
            !block(sparseWhat, sparse.values.bufferView, size_t(sparse.values.byteOffset), elementBytes, false,
                   substitutions, values))
            return false;
        for (size_t s = 0; s < substitutions; ++s) {
            const quint32 target = indexLoad(indices.base + s * indices.stride);
            if (target >= count)
                return fail(QStringLiteral("%1 replaces element %2 of %3").arg(sparseWhat).arg(target).arg(count));
            copy(values, s, target);
        }
    }
    if (componentsOut)
        *componentsOut = components;
    return true;
}

bool GLTFAccessorReader::readFloats(int index, std::initializer_list<int> allowedComponents, std::vector<float>& out,
                                    int* componentsOut, Integers integers)
{
    const bool normalise =
        integers == Integers::Normalised || (index >= 0 && index < int(_gltf.accessors.size()) && _gltf.accessors[size_t(index)].normalized);
    return read(index, allowedComponents, componentsOut, out, [&](int componentType) {
        const FloatLoad load = floatLoad(componentType, normalise);
        if (!load)
            fail(QStringLiteral("Accessor %1 holds no floats or 8- or 16-bit integers").arg(index));
        return load;
    });
}

bool GLTFAccessorReader::readUnsigned(int index, int components, std::vector<quint32>& out)
{
    return read(index, {components}, nullptr, out, [&](int componentType) {
        const UnsignedLoad load = unsignedLoad(componentType);
        if (!load)
            fail(components == 1 ? QStringLiteral("Index accessor %1 is not unsigned").arg(index)
                                 : QStringLiteral("Accessor %1 holds no unsigned integers").arg(index));
        return load;
    });
}

} // namespace Tavren::Vyx
