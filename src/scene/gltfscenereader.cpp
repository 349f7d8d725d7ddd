#include "scene/gltfscenereader.h"

#include "scene/internal/gltfconverter.h"
#include "scene/internal/gltfmeshopt.h"
#include "scene/internal/gltfparserinput.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>

#include <tiny_gltf.h>

#include <exception>
#include <set>

namespace Tavren::Vyx {

namespace {

// The JSON of a .gltf, or the JSON chunk of a .glb; empty when the container is broken, which
// the parser then reports.
QByteArray jsonPart(const QByteArray& bytes)
{
    if (!bytes.startsWith("glTF"))
        return bytes;
    if (bytes.size() < 20)
        return {};
    const quint32 length = qFromLittleEndian<quint32>(bytes.constData() + 12);
    if (length > quint32(bytes.size() - 20))
        return {};
    return bytes.mid(20, int(length));
}

// External images are resolved and read by the upload, so the parser is handed a one-byte
// stand-in for each: it neither reads them nor reports a missing one (that is reported once,
// by us). It finds a file at its folder joined with the URI, decoded its own way.
struct FileAccess
{
    std::set<std::string> imagePaths;

    FileAccess(const QJsonObject& root, const std::string& base)
    {
        const QJsonArray images = root.value("images").toArray();
        for (const QJsonValue& image : images) {
            const QString uri = image.toObject().value("uri").toString();
            if (uri.isEmpty() || uri.startsWith(QLatin1String("data:")))
                continue;
            const std::string decoded = QByteArray::fromPercentEncoding(uri.toUtf8().replace('+', ' ')).toStdString();
            for (const std::string& folder : {base, std::string(".")})
                imagePaths.insert(folder.empty() ? decoded : folder.back() == '/' ? folder + decoded : folder + "/" + decoded);
        }
    }

    static bool exists(const std::string& path, void* user)
    {
        return static_cast<FileAccess*>(user)->imagePaths.count(path) || tinygltf::FileExists(path, nullptr);
    }
    static std::string expand(const std::string& path, void*) { return path; }
    static bool read(std::vector<unsigned char>* out, std::string* error, const std::string& path, void* user)
    {
        if (static_cast<FileAccess*>(user)->imagePaths.count(path)) {
            out->assign(1, 0);
            return true;
        }
        QFile file(QString::fromStdString(path));
        if (!file.open(QIODevice::ReadOnly)) {
            if (error)
                *error += "Cannot read '" + path + "'\n";
            return false;
        }
        const QByteArray bytes = file.readAll();
        out->assign(bytes.constBegin(), bytes.constEnd());
        return true;
    }
};

// Keeps a data URI's decoded bytes as they are; images in buffer views are taken from the view
// after it was checked, external ones are left to the upload.
bool keepEncodedBytes(tinygltf::Image* image, const int, std::string*, std::string*, int, int,
                      const unsigned char* bytes, int size, void*)
{
    if (image->bufferView < 0 && image->uri.empty() && size > 0)
        image->image.assign(bytes, bytes + size);
    return true;
}

QStringList strings(const QJsonValue& array)
{
    QStringList list;
    for (const QJsonValue& value : array.toArray())
        list << value.toString();
    return list;
}

QStringList strings(const std::vector<std::string>& names)
{
    QStringList list;
    for (const std::string& name : names)
        list << QString::fromStdString(name);
    return list;
}

} // namespace

const QStringList& GLTFSceneReader::supportedExtensions()
{
    static const QStringList extensions{
        QStringLiteral("KHR_lights_punctual"),
        QStringLiteral("KHR_mesh_quantization"),
        QStringLiteral("KHR_texture_transform"),
        QStringLiteral("KHR_texture_basisu"),
        QStringLiteral("KHR_materials_unlit"),
        QStringLiteral("KHR_materials_emissive_strength"),
        QStringLiteral("KHR_materials_clearcoat"),
        QStringLiteral("KHR_materials_specular"),
        QStringLiteral("KHR_materials_ior"),
        QStringLiteral("KHR_materials_sheen"),
        QStringLiteral("KHR_materials_transmission"),
        QStringLiteral("KHR_materials_volume"),
        QStringLiteral("KHR_materials_pbrSpecularGlossiness"),
        QStringLiteral("EXT_mesh_gpu_instancing"),
        QStringLiteral("KHR_draco_mesh_compression"),
        QStringLiteral("EXT_meshopt_compression"),
    };
    return extensions;
}

bool GLTFSceneReader::checkExtensions(const QStringList& required, const QStringList& used)
{
    for (const QString& name : required)
        if (!supportedExtensions().contains(name)) {
            _error = QStringLiteral("requires the glTF extension %1, which is not supported").arg(name);
            return false;
        }
    QStringList warned;
    for (const QString& name : used)
        if (!supportedExtensions().contains(name) && !warned.contains(name)) {
            warned << name;
            _warnings << QStringLiteral("The glTF extension %1 is not supported; what it adds is left out").arg(name);
        }
    return true;
}

std::unique_ptr<SceneData> GLTFSceneReader::read(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        _error = QStringLiteral("Cannot open '%1': %2").arg(path, file.errorString());
        _warnings.clear();
        return nullptr;
    }
    return readFromMemory(file.readAll(), QFileInfo(path).absolutePath());
}

std::unique_ptr<SceneData> GLTFSceneReader::readFromMemory(const QByteArray& bytes, const QString& baseDirectory)
{
    _error.clear();
    _warnings.clear();
    const std::string base = baseDirectory.toStdString();
    // Read once more by Qt for what the parser does not keep or checks too late: extensions are
    // judged before the parser trips over data that an unsupported one encodes.
    const QJsonObject root = QJsonDocument::fromJson(jsonPart(bytes)).object();
    if (!root.isEmpty() && !checkExtensions(strings(root.value("extensionsRequired")), strings(root.value("extensionsUsed"))))
        return nullptr;
    FileAccess files(root, base);
    const GLTFParserInput input(bytes, root);
    tinygltf::TinyGLTF loader;
    loader.SetImageLoader(&keepEncodedBytes, nullptr);
    loader.SetFsCallbacks({&FileAccess::exists, &FileAccess::expand, &FileAccess::read, &tinygltf::WriteWholeFile, &files});
    tinygltf::Model gltf;
    std::string error, warning;
    const QByteArray& parsedBytes = input.bytes();
    bool parsed = false;
    // The parser indexes some arrays with checked access, so malformed files can throw.
    try {
        parsed = parsedBytes.startsWith("glTF")
                     ? loader.LoadBinaryFromMemory(&gltf, &error, &warning,
                                                   reinterpret_cast<const unsigned char*>(parsedBytes.constData()),
                                                   unsigned(parsedBytes.size()), base)
                     : loader.LoadASCIIFromString(&gltf, &error, &warning, parsedBytes.constData(),
                                                  unsigned(parsedBytes.size()), base);
    } catch (const std::exception& thrown) {
        error = std::string("The glTF parser gave up on a malformed file: ") + thrown.what();
    }
    for (const QString& line : QString::fromStdString(warning).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        _warnings << line.trimmed();
    if (!parsed) {
        _error = QString::fromStdString(error).trimmed();
        if (_error.isEmpty())
            _error = QStringLiteral("Not a readable glTF file");
        _error.replace(QLatin1Char('\n'), QLatin1String("; "));
        return nullptr;
    }
    if (root.isEmpty() && !checkExtensions(strings(gltf.extensionsRequired), strings(gltf.extensionsUsed)))
        return nullptr;
    input.restore(gltf);
    // Before any accessor is read: from here on a decompressed view is like any other.
    decompressMeshoptViews(gltf, _warnings);
    auto scene = std::make_unique<SceneData>();
    GLTFConverter converter(gltf, root, baseDirectory, _warnings, *scene);
    if (!converter.convert()) {
        _error = converter.error;
        return nullptr;
    }
    return scene;
}

} // namespace Tavren::Vyx
