// The context identifier must follow every switch of the current context, however it is made:
// a stale one hands one context's texture unit or binding point to another.
#include "gl/drawing/opengldevicecontext.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/texture.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/platform/glcontexttracker.h"
#include "gl/platform/headlesscontext.h"
#include "gl/platform/internal/percontextrecords.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <EGL/egl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "gl/glloader.h"

using namespace Tavren::Vyx;

namespace {

// A texture and a uniform buffer made in one context; their GL names may equal another context's.
struct ContextObjects
{
    ContextObjects()
    {
        texture.create2D(GL_TEXTURE_2D, GL_RGBA8, 2, 2);
        const float ones[4] = {1, 1, 1, 1};
        uniforms = OpenGLDeviceContext::current()->newUniformBuffer("Colors", VyxTest::newBuffer(GL_UNIFORM_BUFFER, ones, 4));
    }

    // Binds both and expects the current context's first unit and binding point, in its GL too.
    void bindFirstFree()
    {
        ASSERT_TRUE(texture.bind());
        ASSERT_TRUE(uniforms->bind(nullptr));
        expectHeldFirst();
    }

    void expectHeldFirst()
    {
        EXPECT_EQ(texture.unit(), 0);
        EXPECT_EQ(VyxTest::glInteger(GL_TEXTURE_BINDING_2D), int(texture.textureID()));
        EXPECT_EQ(uniforms->uniformBlockBinding(), 0);
        GLint buffer = 0;
        glGetIntegeri_v(GL_UNIFORM_BUFFER_BINDING, 0, &buffer);
        EXPECT_EQ(GLuint(buffer), uniforms->bufferObject()->getBO());
    }

    void unbind()
    {
        EXPECT_TRUE(texture.unbind());
        EXPECT_TRUE(uniforms->unbind(nullptr));
    }

    Texture texture;
    QSharedPointer<UniformBufferObject> uniforms;
};

using ContextSwitchingTest = VyxTest::GLTest;

TEST_F(ContextSwitchingTest, AlternatingContextsKeepTheirUnitsAndBindingPointsApart)
{
    // Switches made through the process's EGL symbols pass through the library (it comes before
    // EGL in the search order), so the cached identifier is what is tested here.
    Dl_info definition{};
    ASSERT_TRUE(dladdr(dlsym(RTLD_DEFAULT, "eglMakeCurrent"), &definition));
    EXPECT_THAT(definition.dli_fname, ::testing::HasSubstr("libVyxGL"));

    HeadlessGLContext other;
    ASSERT_TRUE(other.create());
    const EGLDisplay display = context.nativeDisplay();
    const auto lookedUp = reinterpret_cast<PFNEGLMAKECURRENTPROC>(eglGetProcAddress("eglMakeCurrent"));
    const std::function<bool(HeadlessGLContext&)> switches[] = {
        [](HeadlessGLContext& to) { return to.makeCurrent(); },
        [&](HeadlessGLContext& to) {
            return eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, to.nativeContext()) == EGL_TRUE;
        },
        [&](HeadlessGLContext& to) {
            return lookedUp(display, EGL_NO_SURFACE, EGL_NO_SURFACE, to.nativeContext()) == EGL_TRUE;
        },
    };

    ContextObjects first;
    first.bindFirstFree();
    ASSERT_TRUE(other.makeCurrent());
    auto second = std::make_unique<ContextObjects>();
    for (const auto& switchTo : switches) {
        SCOPED_TRACE(&switchTo - switches);
        ASSERT_TRUE(switchTo(other));
        EXPECT_EQ(GLContextTracker::currentContext(), other.nativeContext());
        second->bindFirstFree();
        second->unbind();
        {
            VyxTest::MessageCapture capture;
            EXPECT_EQ(first.texture.unit(), -1) << "held in the other context only";
            EXPECT_EQ(capture.texts(QtCriticalMsg).size(), 1);
        }
        ASSERT_TRUE(switchTo(context));
        EXPECT_EQ(GLContextTracker::currentContext(), context.nativeContext());
        first.expectHeldFirst();
    }
    ASSERT_TRUE(other.makeCurrent());
    second.reset();
    other.doneCurrent();
    EXPECT_EQ(GLContextTracker::currentContext(), nullptr);
    ASSERT_TRUE(context.makeCurrent());
    first.unbind();
}

TEST_F(ContextSwitchingTest, DestroyingAContextDropsItsRecords)
{
    // Otherwise a context made later at the same address would inherit them (binding points
    // held, capability answers of another GL version).
    PerContextRecords<int> records;
    const auto read = [](int& value) { return value; };
    auto other = std::make_unique<HeadlessGLContext>();
    ASSERT_TRUE(other->create() && other->makeCurrent());
    void* const key = GLContextTracker::currentContext();
    records.withCurrent([](int& value) { return value = 42; });
    other->doneCurrent();
    EXPECT_EQ(records.with(key, read), 42) << "released, not destroyed";
    other.reset();
    EXPECT_EQ(records.with(key, read), 0);
    ASSERT_TRUE(context.makeCurrent());
}

TEST_F(ContextSwitchingTest, ThreadsWithContextsOfTheirOwnKeepThemApart)
{
    constexpr int rounds = 50;
    std::atomic<int> arrivals{0};
    std::atomic<bool> failed{false};
    // Both threads hold their unit and binding point at once in every round.
    auto meet = [&](int round) {
        arrivals.fetch_add(1);
        while (arrivals.load() < 2 * (round + 1) && !failed.load())
            std::this_thread::yield();
    };
    auto work = [&] {
        HeadlessGLContext own;
        if (!own.create() || !own.makeCurrent()) {
            failed = true;
            FAIL() << own.errorString().toStdString();
        }
        {
            ContextObjects objects;
            for (int round = 0; round < rounds; ++round) {
                EXPECT_EQ(GLContextTracker::currentContext(), own.nativeContext());
                objects.bindFirstFree();
                meet(round);
                objects.unbind();
            }
        }
        own.doneCurrent();
        EXPECT_EQ(GLContextTracker::currentContext(), nullptr);
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(GLContextTracker::currentContext(), context.nativeContext());
}

} // namespace
