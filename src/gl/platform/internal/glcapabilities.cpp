#include "gl/platform/internal/glcapabilities.h"

#include "gl/platform/glentrypoints.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/percontextrecords.h"

#include <QStringList>

#include <array>
#include <cstring>

namespace Tavren::Vyx {

namespace {

constexpr int rowCount = int(GLCapability::Count);

// In the order of GLCapability.
const GLCapabilityRow rows[] = {
    {"glBufferStorage", "immutable storage buffers (BufferObject::useStorageBuffer)", true},
    {"glNamedBufferData", "uploads without binding (BufferObject)", true},
    {"glNamedBufferStorage", "immutable storage without binding (BufferObject::useStorageBuffer)", true},
    {"glNamedBufferSubData", "storage-buffer uploads (BufferObject)", true},
    {"glCreateBuffers", "buffer names ready for uploads without binding (BufferObject)", true},
    {"glBindBuffersBase", "one call per uniform-buffer batch (UniformBufferObject::bindBatchFlush)", false},
    {"glBindFragDataLocationIndexed", "dual-source fragment outputs (ShaderProgram::linkPre)", true},
    {"glTransformFeedbackVaryings", "transform feedback varyings (ShaderProgram::linkPre)", true},
    {"glDrawArraysInstancedBaseInstance", "draw id from the base instance, arrays (DrawBuffers)", true},
    {"glDrawElementsInstancedBaseVertexBaseInstance", "draw id from the base instance, elements (DrawBuffers)",
     true},
    {"glMultiDrawElementsIndirect", "one call per command list (DrawBuffers::setMultiDrawIndirect)", true},
    {"glGetProgramBinary", "program-binary cache (ShaderProgram::cachedLoadLink)", false},
    {"glProgramBinary", "program-binary cache (ShaderProgram::cachedLoadLink)", false},
    {"glProgramParameteri", "program-binary cache (ShaderProgram::cachedLoadLink)", false},
    {"glGetProgramBinaryOES", "looked up only: binaries need glProgramParameteri too", false},
    {"glProgramBinaryOES", "looked up only: binaries need glProgramParameteri too", false},
    {"GL_ARB_get_program_binary", "the program-binary entry points above", false},
    {"GL_OES_get_program_binary", "the OES program-binary entry points above", false},
    {"GL_ARB_parallel_shader_compile", "asynchronous linking (ShaderProgram::linkPreWait)", false},
    {"GL_KHR_parallel_shader_compile", "asynchronous linking (ShaderProgram::linkPreWait)", false},
    {"GL_ARB_shader_draw_parameters", "gl_BaseInstanceARB in shaders (DrawBuffers)", false},
    {"GL_KHR_texture_compression_astc_ldr", "ASTC blocks uploaded as they are (ASTC reader)", false},
    {"GL_KHR_texture_compression_astc_hdr", "ASTC files with HDR blocks uploaded as they are (ASTC reader)", false},
    {"glCopyImageSubData", "layer copies on the GPU, else through the CPU (Array2DTextureManager)", true},
    {"GL_ARB_texture_query_lod", "textureQueryLod in the array shader (Array2DTextureManager)", false, 40},
    {"GL_ARB_texture_cube_map_array", "one cube map array for all prefiltered levels (cube map conversions)", false,
     40},
    {"GL_ARB_shader_image_load_store", "the visibility buffer, with atomic counters (VisibilityBuffer)", false, 42},
    {"GL_ARB_shader_atomic_counters", "the visibility buffer, with image load/store (VisibilityBuffer)", false, 42},
    {"GL_ARB_bindless_texture", "ARB bindless handles in shaders (BindlessTextureManager)", false},
    {"GL_NV_bindless_texture", "NV bindless handles in shaders (BindlessTextureManager)", false},
    {"glGetTextureHandleARB", "bindless textures through the ARB calls (BindlessTextureManager)", true},
    {"glMakeTextureHandleResidentARB", "bindless textures through the ARB calls (BindlessTextureManager)", true},
    {"glMakeTextureHandleNonResidentARB", "bindless textures through the ARB calls (BindlessTextureManager)", true},
    {"glGetTextureHandleNV", "bindless textures through the NV calls (BindlessTextureManager)", true},
    {"glMakeTextureHandleResidentNV", "bindless textures through the NV calls (BindlessTextureManager)", true},
    {"glMakeTextureHandleNonResidentNV", "bindless textures through the NV calls (BindlessTextureManager)", true},
};

static_assert(std::size(rows) == rowCount, "one row for each GLCapability");

bool isExtension(const GLCapabilityRow& row)
{
    return std::strncmp(row.name, "GL_", 3) == 0;
}

// One context's answers; a row is asked for once there.
struct Answers
{
    std::array<void*, rowCount> values{};
    std::array<bool, rowCount> known{};
};

PerContextRecords<Answers>& answers()
{
    static PerContextRecords<Answers> records;
    return records;
}

void* ask(const GLCapabilityRow& row)
{
    if (!isExtension(row))
        return getGLProcAddress(row.name, row.quiet);
    // Any non-null value says "present".
    const bool inCore = row.coreVersion != 0 && openGlVersionSupported(row.coreVersion / 10, row.coreVersion % 10);
    return inCore || hasGLExtension(row.name) ? const_cast<GLCapabilityRow*>(&row) : nullptr;
}

} // namespace

const GLCapabilityRow& glCapabilityRow(GLCapability capability)
{
    return rows[int(capability)];
}

QString glCapabilityOrigin(GLCapability capability)
{
    const GLCapabilityRow& row = glCapabilityRow(capability);
    if (isExtension(row) && row.coreVersion)
        return QStringLiteral("GL %1.%2 or %3")
            .arg(row.coreVersion / 10)
            .arg(row.coreVersion % 10)
            .arg(QLatin1String(row.name));
    if (isExtension(row))
        return QString::fromLatin1(row.name);
    const GLEntryPointInfo* info = findGLEntryPointInfo(row.name);
    if (!info)
        return QStringLiteral("not in desktop GL");
    QStringList origins;
    if (info->coreVersion)
        origins << QStringLiteral("GL %1.%2").arg(info->coreVersion / 10).arg(info->coreVersion % 10);
    const QString extensions = QString::fromLatin1(info->extensions);
    if (!extensions.isEmpty())
        origins << extensions.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return origins.join(QStringLiteral(" or "));
}

void* glCapability(GLCapability capability)
{
    const int index = int(capability);
    void* context = GLContextTracker::currentContext();
    void* value = nullptr;
    const bool known = answers().with(context, [&](Answers& answers) {
        value = answers.values[std::size_t(index)];
        return answers.known[std::size_t(index)];
    });
    if (known)
        return value;
    // Asked outside the lock: the extension query takes a lock of its own.
    value = ask(rows[index]);
    answers().with(context, [&](Answers& answers) {
        answers.values[std::size_t(index)] = value;
        answers.known[std::size_t(index)] = true;
        return true;
    });
    return value;
}

void* replaceGLCapability(GLCapability capability, void* value)
{
    const std::size_t index = std::size_t(capability);
    void* replaced = glCapability(capability);
    answers().with(GLContextTracker::currentContext(), [&](Answers& answers) {
        answers.values[index] = value;
        answers.known[index] = true;
        return true;
    });
    return replaced;
}

} // namespace Tavren::Vyx
