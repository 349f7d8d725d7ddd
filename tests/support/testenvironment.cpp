#include "support/testenvironment.h"

#include <QFile>
#include <QImage>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cstdlib>

namespace VyxTest {

const char* reducedProfileExtensionOverride()
{
    return "-GL_ARB_draw_indirect -GL_ARB_multi_draw_indirect -GL_ARB_tessellation_shader "
           "-GL_ARB_shader_atomic_counters -GL_ARB_shader_image_load_store -GL_ARB_base_instance "
           "-GL_ARB_shader_draw_parameters -GL_ARB_buffer_storage "
           "-GL_ARB_texture_filter_anisotropic -GL_EXT_texture_filter_anisotropic "
           "-GL_KHR_texture_compression_astc_ldr -GL_KHR_texture_compression_astc_hdr "
           "-GL_KHR_texture_compression_astc_sliced_3d";
}

const char* hiddenExtensions()
{
    return "GL_ARB_direct_state_access GL_ARB_multi_bind GL_ARB_parallel_shader_compile "
           "GL_KHR_parallel_shader_compile";
}

void applyReducedProfile()
{
    setenv("MESA_GL_VERSION_OVERRIDE", "3.2", 1);
    setenv("MESA_GLSL_VERSION_OVERRIDE", "150", 1);
    setenv("MESA_EXTENSION_OVERRIDE", reducedProfileExtensionOverride(), 1);
    // The driver will not drop these (and naming them above spoils the whole override),
    // so the library is told to look past them.
    setenv("VYX_HIDE_GL_EXTENSIONS", hiddenExtensions(), 1);
}

void applyCommonEnvironment()
{
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    setenv("EGL_PLATFORM", "surfaceless", 0);
}

QString testDataPath(const QString& relative)
{
    return QStringLiteral(VYX_TEST_DATA_DIR "/") + relative;
}

QString testSourcePath(const QString& relative)
{
    return QStringLiteral(VYX_TEST_SOURCE_DIR "/") + relative;
}

QString glTestProgram()
{
    return QStringLiteral(VYX_TEST_HELPER_PROCESS);
}

QByteArray readTestData(const QString& relative)
{
    QFile file(testDataPath(relative));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(bytes);
    return path;
}

std::vector<unsigned char> referenceASTCDecode(const QString& astcPath, bool bottomRowFirst)
{
    const QString tool = QStandardPaths::findExecutable("astcenc");
    QTemporaryDir dir;
    if (tool.isEmpty() || QProcess::execute(tool, {"-dl", astcPath, dir.filePath("a.png"), "-silent"}) != 0)
        return {};
    const QImage image = QImage(dir.filePath("a.png")).convertToFormat(QImage::Format_RGBA8888).mirrored(false, bottomRowFirst);
    return std::vector<unsigned char>(image.constBits(), image.constBits() + image.sizeInBytes());
}

} // namespace VyxTest
