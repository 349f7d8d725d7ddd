#include "gl/bindable.h"
#include "gl/glcontexttracker.h"
#include "gl/glloader.h"
#include "gl/glutilities.h"
#include "support/callrecorder.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <QRegularExpression>
#include <QSet>

#include <cstdlib>
#include <cstring>
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

std::deque<GLenum>& pendingErrors()
{
    static std::deque<GLenum> errors;
    return errors;
}

GLenum VYX_APIENTRY fakeGetError()
{
    if (pendingErrors().empty())
        return GL_NO_ERROR;
    const GLenum code = pendingErrors().front();
    pendingErrors().pop_front();
    return code;
}

GLenum VYX_APIENTRY sentinelGetError()
{
    return GL_NO_ERROR;
}

} // namespace

TEST_F(GLTest, LoaderResolvesEveryCoreEntryPointAndFlagsFollowTheDriver)
{
    EXPECT_EQ(ogl_LoadFunctions(), 1);
    const QSet<QByteArray> listed = driverExtensions();
    const struct
    {
        const char* name;
        int flag;
        void* firstEntryPoint;
    } rows[] = {
        {"GL_ARB_draw_indirect", ogl_ext_ARB_draw_indirect, reinterpret_cast<void*>(_ptrc_glDrawArraysIndirect)},
        {"GL_ARB_multi_draw_indirect", ogl_ext_ARB_multi_draw_indirect,
         reinterpret_cast<void*>(_ptrc_glMultiDrawArraysIndirect)},
        {"GL_ARB_tessellation_shader", ogl_ext_ARB_tessellation_shader,
         reinterpret_cast<void*>(_ptrc_glPatchParameteri)},
        {"GL_ARB_texture_cube_map_array", ogl_ext_ARB_texture_cube_map_array, nullptr},
        {"GL_ARB_shader_atomic_counters", ogl_ext_ARB_shader_atomic_counters,
         reinterpret_cast<void*>(_ptrc_glGetActiveAtomicCounterBufferiv)},
        {"GL_ARB_shader_image_load_store", ogl_ext_ARB_shader_image_load_store,
         reinterpret_cast<void*>(_ptrc_glBindImageTexture)},
    };
    for (const auto& row : rows) {
        const bool present = listed.contains(row.name);
        EXPECT_EQ(row.flag, present ? 1 : 0) << row.name;
        if (row.flag > 1 || std::strcmp(row.name, "GL_ARB_texture_cube_map_array") == 0)
            continue;
        // A listed extension with flag 1 had every entry point found.
        EXPECT_EQ(row.firstEntryPoint != nullptr, present) << row.name;
    }
    if (isReducedProfileRun()) {
        EXPECT_EQ(ogl_ext_ARB_draw_indirect, 0);
        EXPECT_EQ(ogl_ext_ARB_shader_image_load_store, 0);
    }
}

TEST_F(GLTest, VersionComparisonRunsTheOppositeWayToItsName)
{
    if (isReducedProfileRun()) {
        EXPECT_EQ(ogl_GetMajorVersion(), 3);
        EXPECT_EQ(ogl_IsVersionGEQ(3, 2), 1);
        EXPECT_EQ(ogl_IsVersionGEQ(3, 1), 0);
        EXPECT_EQ(ogl_IsVersionGEQ(4, 0), 1);
        EXPECT_FALSE(openGlVersionSupported(4, 0));
    } else {
        EXPECT_EQ(ogl_GetMajorVersion(), 4);
        EXPECT_EQ(ogl_GetMinorVersion(), 5);
        EXPECT_EQ(ogl_IsVersionGEQ(3, 2), 0);
        EXPECT_EQ(ogl_IsVersionGEQ(4, 6), 1);
        EXPECT_EQ(ogl_IsVersionGEQ(4, 5), 1);
        EXPECT_EQ(ogl_IsVersionGEQ(4, 4), 0);
        EXPECT_TRUE(openGlVersionSupported(4, 5));
        EXPECT_FALSE(openGlVersionSupported(4, 6));
    }
    EXPECT_TRUE(openGlVersionSupported(3, 2));
    EXPECT_TRUE(openGlVersionSupported(2, 9));
    EXPECT_FALSE(openGlVersionSupported(5, 0));
}

TEST_F(GLTest, ProcAddressIsNullForWhatTheContextLacks)
{
    MessageCapture capture;
    void* bufferStorage = getGLProcAddress("glBufferStorage", false);
    EXPECT_EQ(bufferStorage != nullptr, !isReducedProfileRun());
    // Removed from the core profile: the driver's dispatch stub must not leak through.
    EXPECT_EQ(getGLProcAddress("glBegin", false), nullptr);
    EXPECT_EQ(getGLProcAddress("glNoSuchEntryPoint", true), nullptr);
    QStringList expected;
    if (isReducedProfileRun())
        expected << "Failed to obtain 'glBufferStorage'";
    expected << "Failed to obtain 'glBegin'";
    EXPECT_EQ(capture.bodies(QtDebugMsg), expected);
    EXPECT_EQ(getGLProcAddress("glGetStringi", true), reinterpret_cast<void*>(_ptrc_glGetStringi));
    // Hidden extensions are absent to lookups and queries alike.
    EXPECT_EQ(getGLProcAddress("glNamedBufferData", true) != nullptr, !isReducedProfileRun());
    EXPECT_EQ(hasGLExtension("GL_ARB_direct_state_access"), !isReducedProfileRun());
}

TEST_F(GLTest, ExtensionNamesWithAndWithoutPrefixAreTheSameQuery)
{
    const bool listed = driverExtensions().contains("GL_ARB_get_program_binary");
    EXPECT_EQ(hasGLExtension("GL_ARB_get_program_binary"), listed);
    EXPECT_EQ(hasGLExtension("ARB_get_program_binary"), listed);
    EXPECT_EQ(hasGLExtension("GL_ARB_draw_indirect"), !isReducedProfileRun());
    EXPECT_EQ(hasGLExtension("ARB_draw_indirect"), !isReducedProfileRun());
    EXPECT_FALSE(hasGLExtension("GL_VYX_no_such_extension"));
    EXPECT_FALSE(hasGLExtension("GL_"));
    EXPECT_FALSE(hasGLExtension(""));
}

TEST_F(GLTest, NoExtensionsVariableSilencesAContextForGood)
{
    setenv("VYX_NO_GL_EXTENSIONS", "", 1);
    EXPECT_FALSE(hasGLExtension("GL_KHR_debug"));
    EXPECT_FALSE(hasGLExtension("KHR_debug"));
    unsetenv("VYX_NO_GL_EXTENSIONS");
    EXPECT_FALSE(hasGLExtension("GL_KHR_debug"));
}

TEST_F(GLTest, ExtensionSetsAreKeptPerContext)
{
    ASSERT_TRUE(hasGLExtension("GL_KHR_debug"));
    void* first = GLContextTracker::currentContext();

    HeadlessGLContext second;
    ASSERT_TRUE(second.create());
    ASSERT_TRUE(second.makeCurrent());
    EXPECT_NE(GLContextTracker::currentContext(), first);
    setenv("VYX_NO_GL_EXTENSIONS", "1", 1);
    EXPECT_FALSE(hasGLExtension("GL_KHR_debug"));

    ASSERT_TRUE(context.makeCurrent());
    EXPECT_EQ(GLContextTracker::currentContext(), first);
    EXPECT_TRUE(hasGLExtension("GL_KHR_debug"));
    unsetenv("VYX_NO_GL_EXTENSIONS");

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
    VyxTest::PointerSwap<PFNVYXGLGETERRORPROC> swap(_ptrc_glGetError, fakeGetError);
    pendingErrors().assign(12, GL_INVALID_OPERATION);
    MessageCapture capture;
    const int line = __LINE__ + 1;
    EXPECT_TRUE(hasGLError(__FILE__, line));
    const QStringList warnings = capture.texts(QtWarningMsg);
    ASSERT_EQ(warnings.size(), 10);
    EXPECT_EQ(warnings.front(), QString("[test_glutilities.cpp:%1] glError: 0x502 'invalid operation' caught").arg(line));
    EXPECT_EQ(pendingErrors().size(), 2u);

    capture.clear();
    pendingErrors().assign({0x0503, 0x0506, 0x0500});
    checkGLError("src/x.cpp", 7);
    EXPECT_EQ(capture.texts(QtWarningMsg),
              (QStringList{"[x.cpp:7] glError: 0x503 'unknown error' caught",
                           "[x.cpp:7] glError: 0x506 'invalid framebuffer operation' caught",
                           "[x.cpp:7] glError: 0x500 'invalid enum' caught"}));
    EXPECT_FALSE(hasGLError("x.cpp", 1));
}

TEST_F(GLTest, RealErrorIsReportedOnce)
{
    MessageCapture capture;
    glEnable(0xFFFF);
    EXPECT_TRUE(hasGLError("a.cpp", 1));
    EXPECT_EQ(capture.bodies(QtWarningMsg), QStringList{"glError: 0x500 'invalid enum' caught"});
}

TEST_F(GLTest, GuardsRestoreTheStateTheyFound)
{
    glDisable(GL_BLEND);
    {
        AutoDisabler disabler(GL_BLEND);
        EXPECT_FALSE(glIsEnabled(GL_BLEND));
    }
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    {
        AutoDisabler outer(GL_BLEND);
        {
            AutoEnabler inner(GL_BLEND);
            EXPECT_TRUE(glIsEnabled(GL_BLEND));
        }
        EXPECT_FALSE(glIsEnabled(GL_BLEND));
    }
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    glEnable(GL_DEPTH_TEST);
    {
        AutoDisabler disabler(GL_DEPTH_TEST);
        EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
    }
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
}

TEST_F(GLTest, FramebufferDumpNamesBindingAndAttachments)
{
    GLuint framebuffer = 0, texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);

    MessageCapture capture;
    logGLFramebuffer();
    ASSERT_EQ(capture.texts(QtDebugMsg).size(), 1);
    const QString line = capture.texts(QtDebugMsg).front();
    const QString expectedTail =
        QString::asprintf(" [fb] %3d [0] 0x%04X %3d [d] 0x0000 0", framebuffer, GL_TEXTURE, texture);
    EXPECT_TRUE(line.startsWith("logGLFramebuffer() [")) << line.toStdString();
    EXPECT_TRUE(line.contains(QString("'%1'").arg(reinterpret_cast<const char*>(glGetString(GL_VERSION)))));
    EXPECT_TRUE(line.endsWith(expectedTail)) << line.toStdString();

    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(1, &texture);
    checkGLError(__FILE__, __LINE__);
}

TEST_F(GLTest, DebugOutputReachesQDebug)
{
    MessageCapture capture;
    ASSERT_TRUE(initializeGLDebugging());
    glEnable(GL_DEBUG_OUTPUT);
    glEnable(0xFFFF);
    glGetError();
    bool sawLine = false;
    for (const QString& text : capture.texts(QtDebugMsg))
        sawLine |= text.contains(QRegularExpression("^OGL: 0x[0-9A-F]{4} 0x[0-9A-F]{4} +\\d+ 0x[0-9A-F]+ "));
    EXPECT_TRUE(sawLine) << capture.texts().join('\n').toStdString();
}

TEST(InitializeGLFunctions, RetriesAfterAFailureThenRunsOnce)
{
    {
        MessageCapture capture;
        EXPECT_FALSE(initializeGLFunctions());
        EXPECT_EQ(capture.bodies(QtCriticalMsg), QStringList{"Failed to initialize OpenGL ''"});
    }
    HeadlessGLContext context;
    ASSERT_TRUE(context.create());
    ASSERT_TRUE(context.makeCurrent());
    EXPECT_TRUE(initializeGLFunctions());
    EXPECT_NE(_ptrc_glGetError, nullptr);
    // A repeated call must not load again: a swapped pointer survives it.
    VyxTest::PointerSwap<PFNVYXGLGETERRORPROC> swap(_ptrc_glGetError, sentinelGetError);
    EXPECT_TRUE(initializeGLFunctions());
    EXPECT_EQ(_ptrc_glGetError, &sentinelGetError);
}
