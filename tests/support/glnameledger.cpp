#include "support/glnameledger.h"

#include "gl/glloader.h"
#include "gl/platform/glcontexttracker.h"

#include <map>
#include <mutex>
#include <utility>

namespace VyxTest {

using Kind = GLNameLedger::Kind;

namespace {

// Live names by kind, keyed by context too: unshared contexts hand out the same numbers.
std::map<std::pair<void*, GLuint>, int> names[GLNameLedger::KindCount];
// Tests create and delete names from threads with contexts of their own.
std::mutex namesMutex;

void made(Kind kind, GLsizei n, const GLuint* made)
{
    void* context = Tavren::Vyx::GLContextTracker::currentContext();
    const std::lock_guard<std::mutex> lock(namesMutex);
    for (GLsizei i = 0; made && i < n; ++i)
        if (made[i] != 0)
            ++names[kind][{context, made[i]}];
}

void deleted(Kind kind, GLsizei n, const GLuint* gone)
{
    void* context = Tavren::Vyx::GLContextTracker::currentContext();
    if (!context)
        return;
    const std::lock_guard<std::mutex> lock(namesMutex);
    auto& live = names[kind];
    for (GLsizei i = 0; gone && i < n; ++i) {
        auto it = live.find({context, gone[i]});
        // A context sharing the name's objects may delete it too.
        if (it == live.end())
            for (auto other = live.begin(); other != live.end() && it == live.end(); ++other)
                if (other->first.second == gone[i])
                    it = other;
        if (it != live.end() && --it->second == 0)
            live.erase(it);
    }
}

// One pair of shims per entry point; the originals are kept while the ledger is installed.
template <auto* Slot, Kind K>
struct Gen
{
    static inline std::remove_reference_t<decltype(*Slot)> original = nullptr;
    static void VYX_APIENTRY shim(GLsizei n, GLuint* out)
    {
        original(n, out);
        made(K, n, out);
    }
};

template <auto* Slot, Kind K>
struct Delete
{
    static inline std::remove_reference_t<decltype(*Slot)> original = nullptr;
    static void VYX_APIENTRY shim(GLsizei n, const GLuint* gone)
    {
        deleted(K, n, gone);
        original(n, gone);
    }
};

struct CreateProgram
{
    static inline PFNVYXGLCREATEPROGRAMPROC original = nullptr;
    static GLuint VYX_APIENTRY shim()
    {
        const GLuint program = original();
        made(GLNameLedger::Program, 1, &program);
        return program;
    }
};

struct DeleteProgram
{
    static inline PFNVYXGLDELETEPROGRAMPROC original = nullptr;
    static void VYX_APIENTRY shim(GLuint program)
    {
        deleted(GLNameLedger::Program, 1, &program);
        original(program);
    }
};

template <typename Shim, typename Pointer>
void install(Pointer& slot)
{
    Shim::original = slot;
    if (slot)
        slot = &Shim::shim;
}

template <typename Shim, typename Pointer>
void uninstall(Pointer& slot)
{
    if (slot == &Shim::shim)
        slot = Shim::original;
}

template <typename F>
void forEachShim(F&& f)
{
    f(Gen<&_ptrc_glGenBuffers, GLNameLedger::Buffer>(), _ptrc_glGenBuffers);
    f(Delete<&_ptrc_glDeleteBuffers, GLNameLedger::Buffer>(), _ptrc_glDeleteBuffers);
    f(Gen<&_ptrc_glGenTextures, GLNameLedger::Texture>(), _ptrc_glGenTextures);
    f(Delete<&_ptrc_glDeleteTextures, GLNameLedger::Texture>(), _ptrc_glDeleteTextures);
    f(Gen<&_ptrc_glGenVertexArrays, GLNameLedger::VertexArray>(), _ptrc_glGenVertexArrays);
    f(Delete<&_ptrc_glDeleteVertexArrays, GLNameLedger::VertexArray>(), _ptrc_glDeleteVertexArrays);
    f(Gen<&_ptrc_glGenFramebuffers, GLNameLedger::Framebuffer>(), _ptrc_glGenFramebuffers);
    f(Delete<&_ptrc_glDeleteFramebuffers, GLNameLedger::Framebuffer>(), _ptrc_glDeleteFramebuffers);
    f(Gen<&_ptrc_glGenRenderbuffers, GLNameLedger::Renderbuffer>(), _ptrc_glGenRenderbuffers);
    f(Delete<&_ptrc_glDeleteRenderbuffers, GLNameLedger::Renderbuffer>(), _ptrc_glDeleteRenderbuffers);
    f(CreateProgram(), _ptrc_glCreateProgram);
    f(DeleteProgram(), _ptrc_glDeleteProgram);
}

} // namespace

const char* GLNameLedger::kindName(Kind kind)
{
    static const char* const text[KindCount] = {"buffer", "texture", "vertex array", "framebuffer", "renderbuffer",
                                                "program"};
    return text[kind];
}

GLNameLedger::GLNameLedger()
{
    for (auto& live : names)
        live.clear();
    forEachShim([](auto shim, auto& slot) { install<decltype(shim)>(slot); });
}

GLNameLedger::~GLNameLedger()
{
    forEachShim([](auto shim, auto& slot) { uninstall<decltype(shim)>(slot); });
}

std::array<int, GLNameLedger::KindCount> GLNameLedger::live() const
{
    std::array<int, KindCount> counts{};
    const std::lock_guard<std::mutex> lock(namesMutex);
    for (int kind = 0; kind < KindCount; ++kind)
        for (const auto& entry : names[kind])
            counts[std::size_t(kind)] += entry.second;
    return counts;
}

} // namespace VyxTest
