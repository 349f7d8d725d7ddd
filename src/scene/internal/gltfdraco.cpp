#include "scene/internal/gltfdraco.h"

#include "scene/internal/gltfvalues.h"

#include <draco/compression/decode.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace Tavren::Vyx {

namespace {

// Every value of the attribute, point by point, as `components` values of T: draco's conversion
// turns normalised integers into floats in [0, 1] and refuses values T cannot hold.
template <typename T>
bool convert(const draco::PointAttribute& attribute, size_t points, size_t components, std::vector<unsigned char>& out)
{
    T element[16];
    const size_t elementBytes = components * sizeof(T);
    out.resize(points * elementBytes);
    for (size_t p = 0; p < points; ++p) {
        const draco::AttributeValueIndex value = attribute.mapped_index(draco::PointIndex(uint32_t(p)));
        if (value.value() >= attribute.size() || !attribute.ConvertValue<T>(value, int8_t(components), element))
            return false;
        std::memcpy(out.data() + p * elementBytes, element, elementBytes);
    }
    return true;
}

bool convert(int componentType, const draco::PointAttribute& attribute, size_t points, size_t components,
             std::vector<unsigned char>& out)
{
    switch (componentType) {
    case TINYGLTF_COMPONENT_TYPE_FLOAT: return convert<float>(attribute, points, components, out);
    case TINYGLTF_COMPONENT_TYPE_BYTE: return convert<int8_t>(attribute, points, components, out);
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: return convert<uint8_t>(attribute, points, components, out);
    case TINYGLTF_COMPONENT_TYPE_SHORT: return convert<int16_t>(attribute, points, components, out);
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: return convert<uint16_t>(attribute, points, components, out);
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT: return convert<uint32_t>(attribute, points, components, out);
    default: return false;
    }
}

template <typename T>
void storeIndices(const draco::Mesh& mesh, std::vector<unsigned char>& out)
{
    out.resize(size_t(mesh.num_faces()) * 3 * sizeof(T));
    for (uint32_t f = 0; f < mesh.num_faces(); ++f)
        for (size_t k = 0; k < 3; ++k) {
            const T index = T(mesh.face(draco::FaceIndex(f))[k].value());
            std::memcpy(out.data() + (size_t(f) * 3 + k) * sizeof(T), &index, sizeof(T));
        }
}

// The face list as the index accessor's type, which must hold every point index.
bool indices(const tinygltf::Accessor& accessor, const draco::Mesh& mesh, std::vector<unsigned char>& out, QString& error)
{
    const uint32_t points = mesh.num_points();
    for (uint32_t f = 0; f < mesh.num_faces(); ++f)
        for (const draco::PointIndex& point : mesh.face(draco::FaceIndex(f)))
            if (point.value() >= points)
                return error = QStringLiteral("its Draco triangle %1 uses point %2 of %3").arg(f).arg(point.value()).arg(points), false;
    const uint32_t largest = points == 0 ? 0 : points - 1;
    switch (accessor.componentType) {
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE:
        if (largest <= 0xff)
            return storeIndices<uint8_t>(mesh, out), true;
        break;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT:
        if (largest <= 0xffff)
            return storeIndices<uint16_t>(mesh, out), true;
        break;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT: return storeIndices<uint32_t>(mesh, out), true;
    default: break;
    }
    return error = QStringLiteral("its index accessor's component type %1 cannot hold %2 points").arg(accessor.componentType).arg(points), false;
}

// The compressed bytes, checked against their view and buffer.
bool compressedBytes(const tinygltf::Model& gltf, const tinygltf::Value& extension, const unsigned char*& data, size_t& size,
                     QString& error)
{
    const tinygltf::Value& viewValue = gltfMember(extension, "bufferView");
    if (!viewValue.IsInt() || viewValue.GetNumberAsInt() < 0 || viewValue.GetNumberAsInt() >= int(gltf.bufferViews.size()))
        return error = QStringLiteral("its Draco extension names no buffer view that exists"), false;
    const int viewIndex = viewValue.GetNumberAsInt();
    const tinygltf::BufferView& view = gltf.bufferViews[size_t(viewIndex)];
    if (view.extensions.count("EXT_meshopt_compression"))
        return error = QStringLiteral("its Draco data is in buffer view %1, which could not be decompressed").arg(viewIndex), false;
    if (view.buffer < 0 || view.buffer >= int(gltf.buffers.size()))
        return error = QStringLiteral("its Draco buffer view %1 uses buffer %2, which does not exist").arg(viewIndex).arg(view.buffer), false;
    const std::vector<unsigned char>& buffer = gltf.buffers[size_t(view.buffer)].data;
    if (view.byteOffset > buffer.size() || view.byteLength > buffer.size() - view.byteOffset)
        return error = QStringLiteral("its Draco buffer view %1 reaches past the end of buffer %2 (%3 bytes)")
                           .arg(viewIndex).arg(view.buffer).arg(buffer.size()),
               false;
    data = buffer.data() + view.byteOffset;
    size = view.byteLength;
    return true;
}

std::unique_ptr<draco::Mesh> decodeMesh(const unsigned char* data, size_t size, QString& error)
{
    draco::DecoderBuffer buffer;
    buffer.Init(reinterpret_cast<const char*>(data), size);
    const auto type = draco::Decoder::GetEncodedGeometryType(&buffer);
    if (!type.ok())
        return error = QStringLiteral("its Draco data cannot be decoded: %1").arg(QString::fromStdString(type.status().error_msg_string())), nullptr;
    if (type.value() != draco::TRIANGULAR_MESH)
        return error = QStringLiteral("its Draco data holds no triangle mesh"), nullptr;
    try {
        draco::Decoder decoder;
        auto decoded = decoder.DecodeMeshFromBuffer(&buffer);
        if (!decoded.ok())
            return error = QStringLiteral("its Draco data cannot be decoded: %1").arg(QString::fromStdString(decoded.status().error_msg_string())),
                   nullptr;
        return std::move(decoded).value();
    } catch (const std::exception&) { // allocations sized by corrupt counts
        return error = QStringLiteral("its Draco data claims more than memory holds"), nullptr;
    }
}

} // namespace

bool decodeDracoPrimitive(const tinygltf::Model& gltf, const tinygltf::Primitive& primitive, const tinygltf::Value& extension,
                          DecodedAccessors& out, QString& error)
{
    const auto accessorFor = [&](int index, const QString& what, const tinygltf::Accessor*& accessor) {
        if (index < 0 || index >= int(gltf.accessors.size()))
            return error = QStringLiteral("its %1 accessor %2 does not exist").arg(what).arg(index), false;
        accessor = &gltf.accessors[size_t(index)];
        return true;
    };
    if (primitive.mode != TINYGLTF_MODE_TRIANGLES && primitive.mode != TINYGLTF_MODE_TRIANGLE_STRIP)
        return error = QStringLiteral("it is Draco compressed but not made of triangles"), false;
    const tinygltf::Accessor* indexAccessor = nullptr;
    if (primitive.indices < 0)
        return error = QStringLiteral("it is Draco compressed but has no index accessor"), false;
    if (!accessorFor(primitive.indices, QStringLiteral("index"), indexAccessor))
        return false;
    const tinygltf::Value& attributes = gltfMember(extension, "attributes");
    if (!attributes.IsObject())
        return error = QStringLiteral("its Draco extension maps no attributes"), false;

    const unsigned char* data = nullptr;
    size_t size = 0;
    if (!compressedBytes(gltf, extension, data, size, error))
        return false;
    const std::unique_ptr<draco::Mesh> mesh = decodeMesh(data, size, error);
    if (!mesh)
        return false;

    const size_t points = mesh->num_points();
    for (const std::string& name : attributes.Keys()) {
        const QString semantic = QString::fromStdString(name);
        const auto used = primitive.attributes.find(name);
        if (used == primitive.attributes.end())
            continue; // nothing would read it
        const tinygltf::Value& id = attributes.Get(name);
        const draco::PointAttribute* attribute =
            id.IsInt() && id.GetNumberAsInt() >= 0 ? mesh->GetAttributeByUniqueId(uint32_t(id.GetNumberAsInt())) : nullptr;
        if (!attribute)
            return error = QStringLiteral("its Draco data has no attribute %1 for %2").arg(id.GetNumberAsInt()).arg(semantic), false;
        const tinygltf::Accessor* accessor = nullptr;
        if (!accessorFor(used->second, semantic, accessor))
            return false;
        const int components = tinygltf::GetNumComponentsInType(uint32_t(accessor->type));
        if (accessor->count != points)
            return error = QStringLiteral("its %1 accessor %2 has %3 elements for %4 Draco points")
                               .arg(semantic).arg(used->second).arg(accessor->count).arg(points),
                   false;
        if (components != int(attribute->num_components()))
            return error = QStringLiteral("its %1 accessor %2 has %3 components, its Draco attribute %4")
                               .arg(semantic).arg(used->second).arg(components).arg(int(attribute->num_components())),
                   false;
        if (!attribute->is_mapping_identity() && attribute->indices_map_size() < points)
            return error = QStringLiteral("its Draco attribute %1 does not cover every point").arg(semantic), false;
        if (!convert(accessor->componentType, *attribute, points, size_t(components), out[used->second]))
            return error = QStringLiteral("its Draco %1 values do not fit the component type of accessor %2")
                               .arg(semantic).arg(used->second),
                   false;
    }

    // Draco decodes a strip as the triangles it makes; the primitive is read as that list.
    if (indexAccessor->count != size_t(mesh->num_faces()) * 3)
        return error = QStringLiteral("its index accessor %1 has %2 elements for %3 Draco triangles")
                           .arg(primitive.indices).arg(indexAccessor->count).arg(mesh->num_faces()),
               false;
    return indices(*indexAccessor, *mesh, out[primitive.indices], error);
}

} // namespace Tavren::Vyx
