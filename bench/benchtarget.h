#pragma once

#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"

#include <benchmark/benchmark.h>

#include <QFile>
#include <QMap>
#include <QSharedPointer>
#include <QString>

#include <cstdlib>
#include <vector>

namespace VyxBench {

// An embedded GLSL source under :/GLSL/src.
inline QString resource(const QString& name)
{
    QFile file(":/GLSL/src/" + name);
    file.open(QIODevice::ReadOnly);
    return QString::fromLatin1(file.readAll());
}

// Makes the headless context current on Mesa's surfaceless platform, with GL loaded and the
// device context started afresh; false when any of that fails.
inline bool makeHeadlessCurrent(Tavren::Vyx::HeadlessGLContext& context)
{
    setenv("EGL_PLATFORM", "surfaceless", 0);
    if (!context.create() || !context.makeCurrent() || !initializeGLFunctions())
        return false;
    Tavren::Vyx::OpenGLDeviceContext::resetContext();
    return true;
}

// A current context drawing into a 1x1 target, so rasterising costs next to nothing, and one
// triangle ("va_Vertex", indices 0 1 2) for the draws to repeat.
struct TriangleTarget
{
    Tavren::Vyx::HeadlessGLContext context;
    GLuint framebuffer = 0, renderbuffer = 0;
    QSharedPointer<Tavren::Vyx::BufferObject> vertices, indices;
    QSharedPointer<Tavren::Vyx::VertexArrayObject> vao;

    TriangleTarget()
    {
        static const float triangle[] = {-1, -1, 1, -1, -1, 1};
        static const GLuint triangleIndices[] = {0, 1, 2};
        if (!makeHeadlessCurrent(context))
            std::abort();
        auto device = Tavren::Vyx::OpenGLDeviceContext::current();
        glGenRenderbuffers(1, &renderbuffer);
        glBindRenderbuffer(GL_RENDERBUFFER, renderbuffer);
        glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, 1, 1);
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, renderbuffer);
        glViewport(0, 0, 1, 1);

        vertices = device->newBuffer();
        vertices->setTarget(GL_ARRAY_BUFFER);
        vertices->bind();
        vertices->upload(triangle, 6, GL_STATIC_DRAW);
        vertices->unbind();
        indices = device->newBuffer();
        indices->setTarget(GL_ELEMENT_ARRAY_BUFFER);
        indices->bind();
        indices->uploadGLuintData(triangleIndices, 3, GL_STATIC_DRAW);
        indices->unbind();
        vao = device->newVAO();
        vao->registerBO("va_Vertex", vertices, 2, GL_FLOAT);
    }
};

// Prints as usual and keeps the CPU time of every run, by name, for a ratio table.
class CpuTimeReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (!run.error_occurred && run.iterations > 0)
                cpuTimes[QString::fromStdString(run.benchmark_name())] = run.GetAdjustedCPUTime();
        }
    }

protected:
    QMap<QString, double> cpuTimes;
};

} // namespace VyxBench
