#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/shaders/glslmacroprocessor.h"

#include "quiet.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;

// Input: NUL-separated sections. The first is the shader source; each later one starts with a
// letter saying what it adds to the processor:
//   m NAME TEXT     a macro            d NAME VALUE   a define
//   i NAME\nTEXT    an include file    p NAME TOKENS  an instance-data plan, whose tokens are
//                   "tb" (texture buffer), "v4" (vec4 storage), "nDIGITS" (array size) and
//                   "T:member" with T a letter choosing the member's type.
namespace {

QString text(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes);
}

// Include files go into one scratch folder under names that cannot leave it.
QString fileName(const QByteArray& name)
{
    QString safe;
    for (char c : name.left(40))
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.')
            safe += QLatin1Char(c);
    return safe.isEmpty() || safe.startsWith(QLatin1Char('.')) ? QString() : safe;
}

std::unique_ptr<InstanceDataPlan> makePlan(const QByteArray& description)
{
    const QList<QByteArray> tokens = description.split(' ');
    auto plan = std::make_unique<InstanceDataPlan>(text(tokens.value(0)));
    for (int i = 1; i < tokens.size(); ++i) {
        const QByteArray& token = tokens[i];
        if (token == "tb")
            plan->setMechanism(InstanceDataPlan::eTextureBuffer);
        else if (token == "v4")
            plan->setUseVec4Storage(true);
        else if (token.startsWith('n'))
            plan->setArraySize(token.mid(1, 6).toULong());
        else if (token.size() > 2 && token[1] == ':')
            plan->addMember(InstanceDataPlan::DataType(uint8_t(token[0]) % InstanceDataPlan::eDataTypeCount),
                            text(token.mid(2)));
    }
    return plan;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    // tmpfs when there is one: include files come and go with every input.
    static QTemporaryDir scratch(QDir(QStringLiteral("/dev/shm")).exists()
                                     ? QStringLiteral("/dev/shm/vyx-fuzz-glsl-XXXXXX")
                                     : QDir::tempPath() + QStringLiteral("/vyx-fuzz-glsl-XXXXXX"));
    static GLSLMacroProcessor prototype = [] {
        GLSLMacroProcessor made;
        made.addIncludePath(scratch.path());
        // Inputs are a few kilobytes; a doubling expansion reaches this limit as surely as the
        // library's own, without spending seconds of sanitized time on one input.
        made.setExpansionLimit(qint64(16) << 10);
        return made;
    }();
    const QList<QByteArray> sections =
        QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size)).split('\0').mid(0, 24);

    GLSLMacroProcessor mp = prototype;
    QStringList files;
    std::vector<std::unique_ptr<InstanceDataPlan>> plans;
    for (int i = 1; i < sections.size(); ++i) {
        const QByteArray& section = sections[i];
        const QByteArray body = section.mid(1);
        const int space = body.indexOf(' '), newline = body.indexOf('\n');
        switch (section.isEmpty() ? 0 : section[0]) {
        case 'm': mp.addMacro(text(body.left(space)), space < 0 ? QString() : text(body.mid(space + 1))); break;
        case 'd': mp.addDefine(text(body.left(space)), space < 0 ? QString() : text(body.mid(space + 1))); break;
        case 'i': {
            const QString name = fileName(body.left(newline));
            QFile file(scratch.filePath(name));
            if (!name.isEmpty() && file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
                file.write(newline < 0 ? QByteArray() : body.mid(newline + 1));
                files << file.fileName();
            }
            break;
        }
        case 'p':
            plans.push_back(makePlan(body));
            InstanceDataRegistry::Instance().registerPlan(plans.back().get());
            break;
        default: break;
        }
    }

    // A bare source also goes through the default processor a null one stands for.
    GLSLMacroProcessor::process(text(sections.value(0)), sections.size() == 1 && size % 2 ? nullptr : &mp);

    for (const auto& plan : plans)
        InstanceDataRegistry::Instance().unregisterPlan(plan->name());
    for (const QString& file : files)
        QFile::remove(file);
    return 0;
}
