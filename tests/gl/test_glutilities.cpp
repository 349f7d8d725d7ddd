#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/bindable.h"
#include "gl/platform/glcontexttracker.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <QRegularExpression>
#include <QSet>

#include <cstdlib>
#include <deque>

using namespace Tavren::Vyx;
using VyxTest::GLTest;
using VyxTest::MessageCapture;

namespace {

QSet<QByteArray> driverExtensions()
{
    QSet<QByteArray> names;
    GLint count = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &count);
    for (GLint i = 0; i < count; ++i)
        names.insert(reinterpret_cast<const char*>(glGetStringi(GL_EXTENSIONS, GLuint(i))));
    return names;
}

std::deque<GLenum> pendingErrors;

GLenum VYX_APIENTRY fakeGetError()
{
    if (pendingErrors.empty())
        return GL_NO_ERROR;
    const GLenum code = pendingErrors.front();
    pendingErrors.pop_front();
    return code;
}

} // namespace

TEST_F(GLTest, LoaderResolvesEveryCoreEntryPointAndFlagsFollowTheDriver)
{
    EXPECT_EQ(ogl_LoadFunctions(), 1);
    const QSet<QByteArray> listed = driverExtensions();
    const std::tuple<const char*, int, void*> rows[] = {
        {"GL_ARB_draw_indirect", ogl_ext_ARB_draw_indirect, reinterpret_cast<void*>(_ptrc_glDrawArraysIndirect)},
        {"GL_ARB_multi_draw_indirect", ogl_ext_ARB_multi_draw_indirect, reinterpret_cast<void*>(_ptrc_glMultiDrawArraysIndirect)},
        {"GL_ARB_tessellation_shader", ogl_ext_ARB_tessellation_shader, reinterpret_cast<void*>(_ptrc_glPatchParameteri)},
        {"GL_ARB_shader_atomic_counters", ogl_ext_ARB_shader_atomic_counters,
         reinterpret_cast<void*>(_ptrc_glGetActiveAtomicCounterBufferiv)},
        {"GL_ARB_shader_image_load_store", ogl_ext_ARB_shader_image_load_store, reinterpret_cast<void*>(_ptrc_glBindImageTexture)},
    };
    // A listed extension has flag 1 and every entry point found.
    for (const auto& [name, flag, firstEntryPoint] : rows) {
        EXPECT_EQ(flag, listed.contains(name) ? 1 : 0) << name;
        EXPECT_EQ(firstEntryPoint != nullptr, listed.contains(name)) << name;
    }
    EXPECT_EQ(ogl_ext_ARB_texture_cube_map_array, listed.contains("GL_ARB_texture_cube_map_array") ? 1 : 0);
    const bool reduced = isReducedProfileRun();
    if (reduced)
        EXPECT_EQ(ogl_ext_ARB_draw_indirect + ogl_ext_ARB_shader_image_load_store, 0);

    // ogl_IsVersionGEQ answers whether the asked version is at least the context's.
    EXPECT_EQ(ogl_GetMajorVersion() * 10 + ogl_GetMinorVersion(), reduced ? 32 : 45);
    EXPECT_EQ(ogl_IsVersionGEQ(3, 2), reduced ? 1 : 0);
    EXPECT_EQ(ogl_IsVersionGEQ(3, 1), 0);
    EXPECT_EQ(ogl_IsVersionGEQ(4, 0), reduced ? 1 : 0);
    EXPECT_EQ(ogl_IsVersionGEQ(4, 5), 1);
    EXPECT_EQ(openGlVersionSupported(4, 0), !reduced);
    EXPECT_EQ(openGlVersionSupported(4, 5), !reduced);
    EXPECT_FALSE(openGlVersionSupported(4, 6));
    EXPECT_TRUE(openGlVersionSupported(3, 2) && openGlVersionSupported(2, 9));
}

TEST_F(GLTest, ProcAddressIsNullForWhatTheContextLacks)
{
    MessageCapture capture;
    EXPECT_EQ(getGLProcAddress("glBufferStorage", false) != nullptr, !isReducedProfileRun());
    // Removed from the core profile: the driver's dispatch stub must not leak through.
    EXPECT_EQ(getGLProcAddress("glBegin", false), nullptr);
    EXPECT_EQ(getGLProcAddress("glNoSuchEntryPoint", true), nullptr);
    QStringList expected;
    if (isReducedProfileRun())
        expected << "Failed to obtain 'glBufferStorage'";
    EXPECT_EQ(capture.bodies(QtDebugMsg), expected << "Failed to obtain 'glBegin'");
    EXPECT_EQ(getGLProcAddress("glGetStringi", true), reinterpret_cast<void*>(_ptrc_glGetStringi));
    // Hidden extensions are absent to lookups and queries alike.
    EXPECT_EQ(getGLProcAddress("glNamedBufferData", true) != nullptr, !isReducedProfileRun());
    EXPECT_EQ(hasGLExtension("GL_ARB_direct_state_access"), !isReducedProfileRun());

    // Names with and without the prefix are the same query.
    const bool listed = driverExtensions().contains("GL_ARB_get_program_binary");
    EXPECT_EQ(hasGLExtension("GL_ARB_get_program_binary"), listed);
    EXPECT_EQ(hasGLExtension("ARB_get_program_binary"), listed);
    EXPECT_EQ(hasGLExtension("ARB_draw_indirect"), !isReducedProfileRun());
    EXPECT_FALSE(hasGLExtension("GL_VYX_no_such_extension") || hasGLExtension("GL_") || hasGLExtension(""));
}

// Set before a context's first query, the variable silences that context for good.
TEST_F(GLTest, NoExtensionsVariableSilencesAContextForGood)
{
    setenv("VYX_NO_GL_EXTENSIONS", "", 1);
    EXPECT_FALSE(hasGLExtension("KHR_debug"));
    unsetenv("VYX_NO_GL_EXTENSIONS");
    EXPECT_FALSE(hasGLExtension("GL_KHR_debug"));
}

// Each context keeps its own extension set and capability table, answered once: what a second
// context hides stays as it was in the first.
TEST_F(GLTest, ExtensionsAndCapabilitiesAreKeptPerContext)
{
    EXPECT_EQ(hasGLCapability(GLCapability::BufferStorage), !isReducedProfileRun());
    EXPECT_EQ(glCapability(GLCapability::TransformFeedbackVaryings),
              reinterpret_cast<void*>(_ptrc_glTransformFeedbackVaryings));
    EXPECT_EQ(glCapabilityOrigin(GLCapability::BufferStorage), "GL 4.4 or GL_ARB_buffer_storage");
    EXPECT_EQ(glCapabilityOrigin(GLCapability::TextureCubeMapArray), "GL 4.0 or GL_ARB_texture_cube_map_array");
    const auto row = GLCapability::AstcLdrCompression;
    const bool first = hasGLCapability(row);
    EXPECT_EQ(first, hasGLExtension(glCapabilityRow(row).name));

    void* firstContext = GLContextTracker::currentContext();
    const QByteArray hidden = qgetenv("VYX_HIDE_GL_EXTENSIONS");
    qputenv("VYX_HIDE_GL_EXTENSIONS", hidden + " " + glCapabilityRow(row).name);
    HeadlessGLContext second;
    ASSERT_TRUE(second.create() && second.makeCurrent());
    EXPECT_NE(GLContextTracker::currentContext(), firstContext);
    EXPECT_FALSE(hasGLCapability(row) || hasGLExtension(glCapabilityRow(row).name));
    ASSERT_TRUE(context.makeCurrent());
    EXPECT_EQ(GLContextTracker::currentContext(), firstContext);
    EXPECT_EQ(hasGLCapability(row), first);
    EXPECT_EQ(hasGLExtension(glCapabilityRow(row).name), first);
    qputenv("VYX_HIDE_GL_EXTENSIONS", hidden);

    GLContextTracker tracker;
    tracker.trackCurrentContext();
    EXPECT_TRUE(tracker.check());
    ASSERT_TRUE(second.makeCurrent());
    EXPECT_FALSE(tracker.check());
    context.doneCurrent();
    EXPECT_FALSE(tracker.check());
}

TEST_F(GLTest, ErrorDrainingStopsAfterTenCodes)
{
    MessageCapture capture;
    glEnable(0xFFFF);
    EXPECT_TRUE(hasGLError("a.cpp", 1));
    EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{"[a.cpp:1] glError: 0x500 'invalid enum' caught"});

    VyxTest::PointerSwap<PFNVYXGLGETERRORPROC> swap(_ptrc_glGetError, fakeGetError);
    capture.clear();
    pendingErrors.assign(12, GL_INVALID_OPERATION);
    EXPECT_TRUE(hasGLError("src/x.cpp", 7));
    EXPECT_EQ(capture.texts(QtWarningMsg), QVector<QString>(10, "[x.cpp:7] glError: 0x502 'invalid operation' caught").toList());
    EXPECT_EQ(pendingErrors.size(), 2u);

    capture.clear();
    pendingErrors.assign({0x0503, 0x0506});
    checkGLError("x.cpp", 7);
    EXPECT_EQ(capture.texts(QtWarningMsg), (QStringList{"[x.cpp:7] glError: 0x503 'unknown error' caught",
                                                        "[x.cpp:7] glError: 0x506 'invalid framebuffer operation' caught"}));
    EXPECT_FALSE(hasGLError("x.cpp", 1));
}

TEST_F(GLTest, GuardsRestoreTheStateTheyFound)
{
    glDisable(GL_BLEND);
    glEnable(GL_DEPTH_TEST);
    {
        AutoDisabler outer(GL_BLEND);
        AutoDisabler depth(GL_DEPTH_TEST);
        EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
        {
            AutoEnabler inner(GL_BLEND);
            EXPECT_TRUE(glIsEnabled(GL_BLEND));
        }
        EXPECT_FALSE(glIsEnabled(GL_BLEND));
    }
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
}

TEST_F(GLTest, DebugOutputReachesQDebug)
{
    MessageCapture capture;
    ASSERT_TRUE(initializeGLDebugging());
    glEnable(GL_DEBUG_OUTPUT);
    glEnable(0xFFFF);
    glGetError();
    EXPECT_FALSE(capture.texts(QtDebugMsg).filter(QRegularExpression("^OGL: 0x[0-9A-F]{4} 0x[0-9A-F]{4} +\\d+ 0x[0-9A-F]+ ")).isEmpty())
        << capture.texts().join('\n').toStdString();
}

TEST(InitializeGLFunctions, RetriesAfterAFailureThenRunsOnce)
{
    {
        MessageCapture capture;
        EXPECT_FALSE(initializeGLFunctions());
        EXPECT_EQ(capture.bodies(QtCriticalMsg), QStringList{"Failed to initialize OpenGL ''"});
    }
    HeadlessGLContext context;
    ASSERT_TRUE(context.create() && context.makeCurrent());
    EXPECT_TRUE(initializeGLFunctions());
    // A repeated call must not load again: a swapped pointer survives it.
    VyxTest::PointerSwap<PFNVYXGLGETERRORPROC> swap(_ptrc_glGetError, fakeGetError);
    EXPECT_TRUE(initializeGLFunctions());
    EXPECT_EQ(_ptrc_glGetError, &fakeGetError);
}
