#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/texturemanager.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <cstring>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::CallRecorder;
using VyxTest::MessageCapture;
using Type = InstanceDataPlan::DataType;

namespace {

// Every member type, in an order that makes bools share words, tokens and vec3s leave gaps,
// and a float follow a vec3.
// Kinds: f float, i int, u unsigned, b bool.
struct Member { Type type; const char* name; char kind; int components; };
const Member kMembers[] = {
    {InstanceDataPlan::eBool, "visible", 'b', 1},   {InstanceDataPlan::eBVec2, "flagsA", 'b', 2},
    {InstanceDataPlan::eFloat, "roughness", 'f', 1}, {InstanceDataPlan::eTexture, "albedo", 'u', 2},
    {InstanceDataPlan::eBVec3, "flagsB", 'b', 3},   {InstanceDataPlan::eInt, "layer", 'i', 1},
    {InstanceDataPlan::eVec3, "emission", 'f', 3},  {InstanceDataPlan::eFloat, "opacity", 'f', 1},
    {InstanceDataPlan::eIVec2, "tile", 'i', 2},     {InstanceDataPlan::eBVec4, "flagsC", 'b', 4},
    {InstanceDataPlan::eIVec3, "cell", 'i', 3},     {InstanceDataPlan::eUInt, "mask", 'u', 1},
    {InstanceDataPlan::eUVec2, "pair", 'u', 2},     {InstanceDataPlan::eMat4, "model", 'f', 16},
    {InstanceDataPlan::eUVec3, "triple", 'u', 3},   {InstanceDataPlan::eVec2, "uv", 'f', 2},
    {InstanceDataPlan::eIVec4, "ids", 'i', 4},      {InstanceDataPlan::eUVec4, "quad", 'u', 4},
    {InstanceDataPlan::eVec4, "colour", 'f', 4},
};
constexpr int kRecords = 6;

// Output columns of a member: one per four components.
int columnsOf(const Member& member)
{
    return (member.components + 3) / 4;
}

// Distinct 32-bit words with high bits set; floats made from them are exact and finite.
quint32 word(int record, int column, int component)
{
    return 0x9E3779B9u * quint32(record * 977 + column * 31 + component + 1);
}
quint32 floatWord(quint32 bits)
{
    const float value = float(qint32(bits) >> 8) / 4096.0f;
    quint32 result;
    std::memcpy(&result, &value, 4);
    return result;
}

// An RGBA32UI and an RGBA32F colour texture side by side, bound while alive.
class RecordTarget
{
public:
    RecordTarget(int width, int height)
        : _width(width)
        , _height(height)
    {
        _framebuffer.bind();
        _textures[0].reset(_framebuffer.createTexture2D(GL_COLOR_ATTACHMENT0, GL_RGBA32UI, GL_RGBA_INTEGER,
                                                        GL_UNSIGNED_INT, width, height));
        _textures[1].reset(
            _framebuffer.createTexture2D(GL_COLOR_ATTACHMENT1, GL_RGBA32F, GL_RGBA, GL_FLOAT, width, height));
        _framebuffer.setDrawBuffers();
        clear();
    }
    ~RecordTarget()
    {
        _framebuffer.detachAll();
        _framebuffer.unbind();
    }
    void clear() const
    {
        glViewport(0, 0, _width, _height);
        const GLuint zeros[4] = {};
        glClearBufferuiv(GL_COLOR, 0, zeros);
        glClearBufferfv(GL_COLOR, 1, reinterpret_cast<const GLfloat*>(zeros));
    }
    // Every word of one texture, bottom row first; floats as their bits.
    std::vector<quint32> words(int index) const
    {
        return VyxTest::texImage<quint32>(_textures[index].get(), index == 0 ? GL_RGBA_INTEGER : GL_RGBA,
                                          index == 0 ? GL_UNSIGNED_INT : GL_FLOAT, size_t(_width) * _height * 4);
    }

private:
    int _width, _height;
    FramebufferObject _framebuffer;
    std::unique_ptr<Texture> _textures[2];
};

// Remembers the tokens it was asked to bind and unbind.
class RecordingTextureManager : public TextureManager
{
public:
    using TextureManager::bind;
    using TextureManager::unbind;
    bool bind(ShaderProgram*) override { return true; }
    bool bind(const QSet<TextureToken>& tokens) override
    {
        bound = tokens;
        return true;
    }
    bool unbind(ShaderProgram*) override { return true; }
    bool unbind(const QSet<TextureToken>& tokens) override
    {
        unbound = tokens;
        return true;
    }
    QString getShaderFile() const override { return {}; }

    QSet<TextureToken> bound, unbound;
};

class InstanceDataTest : public VyxTest::GLTest
{
protected:
    // A program whose fragment shader runs `body` with `row` and `column` set, linked with the
    // plan's implementation and the draw-ID utilities.
    std::unique_ptr<ShaderProgram> program(const InstanceDataPlan& plan, const QString& body)
    {
        auto result = std::make_unique<ShaderProgram>();
        result->addShaderFromFile(GL_VERTEX_SHADER, "passthroughVS.glslc");
        result->addShader(GL_FRAGMENT_SHADER, "#version 150\n#instancedata \"" + plan.name() +
                                                  "\"\nuniform int u_UseDrawID;\nout uvec4 o_Int;\nout vec4 o_Float;\n"
                                                  "void main() {\n    uint row = uint(gl_FragCoord.y);\n"
                                                  "    int column = int(gl_FragCoord.x);\n    o_Int = uvec4(0u);\n"
                                                  "    o_Float = vec4(0.0);\n" +
                                                  body + "}\n");
        result->addShader(GL_FRAGMENT_SHADER, plan.glslc());
        result->addShaderFromFile(GL_FRAGMENT_SHADER, "VyxUtilities.glslc");
        result->setFragDataLocations({"o_Int", "o_Float"});
        EXPECT_TRUE(result->link()) << qPrintable(result->log());
        result->bind();
        return result;
    }

    // Draws the quad over the whole target, or one row per draw with the row as draw ID.
    void draw(ShaderProgram* shader, int width, int rows, bool byDrawID)
    {
        QSharedPointer<DrawBuffers> quad = OpenGLDeviceContext::current()->fullscreenQuad();
        ASSERT_TRUE(quad->VAO()->bind());
        quad->VAO()->enableShaderProgramArrays(shader);
        glUniform1i(shader->getUniformLocation("u_UseDrawID"), byDrawID ? 1 : 0);
        for (int row = 0; row < (byDrawID ? rows : 1); ++row) {
            if (byDrawID)
                glViewport(0, row, width, 1);
            quad->setDrawIDBase(row);
            ASSERT_TRUE(quad->draw(shader));
        }
        quad->setDrawIDBase(0);
        quad->VAO()->unbind();
    }

    // Every member of several records, packed on the CPU, read back through the getters by index and
    // by draw ID, bit for bit.
    void readsEveryMemberBack(InstanceDataPlan::MechanismType mechanism, bool vec4Storage)
    {
        InstanceDataPlan plan(QStringLiteral("Every%1%2").arg(int(mechanism)).arg(int(vec4Storage)));
        SCOPED_TRACE(qPrintable(plan.name() + (vec4Storage ? ": vec4 storage" : ": natural packing")));
        plan.setMechanism(mechanism);
        plan.setUseVec4Storage(vec4Storage);
        for (const Member& member : kMembers)
            plan.addMember(member.type, member.name);
        InstanceDataRegistry::Instance().registerPlan(&plan);

        int width = 0;
        for (const Member& member : kMembers)
            width += columnsOf(member);
        std::vector<quint32> expected[2] = {std::vector<quint32>(size_t(width) * kRecords * 4),
                                            std::vector<quint32>(size_t(width) * kRecords * 4)};
        InstanceDataCollection collection(&plan, size_t(kRecords));
        QSet<TextureToken> tokens;
        QString body;
        int column = 0;
        for (const Member& member : kMembers) {
            const QString getter = InstanceDataPlan::getterName(member.name);
            const QString value = QStringLiteral("(u_UseDrawID != 0 ? %1() : %1(row))").arg(getter);
            const int attachment = member.kind == 'f' ? 1 : 0;
            QString padding;
            for (int k = member.components; k < 4; ++k)
                padding += member.kind == 'f' ? ", 0.0" : (member.kind == 'i' ? ", 0" : ", 0u");
            const QString vector = member.components == 1 ? "" : QString::number(member.components);
            for (int c = 0; c < columnsOf(member); ++c) {
                QString output = value + (member.components == 16 ? QStringLiteral("[%1]").arg(c) : "") + padding;
                if (member.kind == 'f')
                    output = "o_Float = vec4(" + output + ")";
                else if (member.kind == 'i')
                    output = "o_Int = uvec4(ivec4(" + output + "))";
                else if (member.kind == 'b')
                    output = "o_Int = uvec4(" + (vector.isEmpty() ? "uint" : "uvec" + vector) + "(" + value + ")" +
                             padding + ")";
                else
                    output = "o_Int = uvec4(" + output + ")";
                body += QStringLiteral("    if (column == %1) %2;\n").arg(column + c).arg(output);
            }
            for (int record = 0; record < kRecords; ++record) {
                std::vector<quint32> words;
                QByteArray bytes(int(plan.dataSize(member.name)), '\0');
                for (int k = 0; k < member.components; ++k) {
                    quint32 w = word(record, column, k);
                    if (member.kind == 'f')
                        w = floatWord(w);
                    else if (member.kind == 'b')
                        bytes[k] = char(w = (w >> 7) & 1u);
                    words.push_back(w);
                }
                if (member.kind != 'b')
                    std::memcpy(bytes.data(), words.data(), size_t(bytes.size()));
                ASSERT_TRUE(collection.set(record, member.name, bytes.constData(), size_t(bytes.size())));
                if (member.type == InstanceDataPlan::eTexture)
                    tokens.insert(TextureToken(quint64(words[1]) << 32 | words[0]));
                for (int k = 0; k < member.components; ++k)
                    expected[attachment][((size_t(record) * width + column + k / 4) * 4) + k % 4] = words[size_t(k)];
            }
            column += columnsOf(member);
        }

        auto shader = program(plan, body);
        ASSERT_TRUE(shader->isLinked());
        MessageCapture capture;
        EXPECT_TRUE(plan.assertShaderProgram(shader.get())) << qPrintable(capture.texts().join('\n'));
        RecordTarget target(width, kRecords);
        RecordingTextureManager manager;
        ASSERT_TRUE(collection.bind(shader.get(), &manager));
        EXPECT_EQ(manager.bound, tokens);
        for (bool byDrawID : {false, true}) {
            SCOPED_TRACE(byDrawID ? "by draw ID" : "by index");
            target.clear();
            draw(shader.get(), width, kRecords, byDrawID);
            EXPECT_EQ(target.words(0), expected[0]);
            EXPECT_EQ(target.words(1), expected[1]);
        }
        EXPECT_TRUE(collection.unbind(shader.get(), &manager));
        EXPECT_EQ(manager.unbound, tokens);
        EXPECT_TRUE(capture.texts(QtCriticalMsg).isEmpty()) << qPrintable(capture.texts().join('\n'));
    }
};

} // namespace

TEST_F(InstanceDataTest, EveryMechanismReadsEveryMemberOfEveryRecordBack)
{
    for (auto mechanism : {InstanceDataPlan::eUniformBlock, InstanceDataPlan::eTextureBuffer})
        for (bool vec4Storage : {false, true})
            readsEveryMemberBack(mechanism, vec4Storage);
}

TEST_F(InstanceDataTest, TablesPastTheUniformBlockLimitTravelAsTextureBuffers)
{
    constexpr int kSide = 100;
    constexpr size_t kTable = kSide * kSide;
    InstanceDataPlan uniformPlan("BigUniform"), texturePlan("BigTexture");
    texturePlan.setMechanism(InstanceDataPlan::eTextureBuffer);
    for (InstanceDataPlan* plan : {&uniformPlan, &texturePlan}) {
        plan->addMember(InstanceDataPlan::eUInt, "code");
        plan->addMember(InstanceDataPlan::eFloat, "weight");
        plan->setArraySize(kTable);
        InstanceDataRegistry::Instance().registerPlan(plan);
    }
    const size_t blockRecords = size_t(VyxTest::glInteger(GL_MAX_UNIFORM_BLOCK_SIZE)) / 16;
    ASSERT_LT(blockRecords, kTable);
    EXPECT_EQ(uniformPlan.arraySize(), blockRecords);
    EXPECT_EQ(uniformPlan.arraySizeMax(), blockRecords);
    EXPECT_EQ(texturePlan.arraySize(), kTable);
    EXPECT_EQ(texturePlan.arraySizeMax(), size_t(VyxTest::glInteger(GL_MAX_TEXTURE_BUFFER_SIZE)));
    {
        MessageCapture capture;
        InstanceDataCollection tooBig(&uniformPlan, kTable);
        EXPECT_EQ(capture.bodies(QtCriticalMsg),
                  QStringList{VyxTest::assertionText("numItems <= _plan->arraySize()",
                                                     "List is too big for plan 'BigUniform'")});
    }

    std::vector<quint32> records(kTable * 4, 0u), expected[2];
    for (size_t i = 0; i < kTable; ++i) {
        records[i * 4] = word(int(i), 0, 0);
        records[i * 4 + 1] = floatWord(word(int(i), 1, 0));
        for (int attachment = 0; attachment < 2; ++attachment)
            expected[attachment].insert(expected[attachment].end(), 4, records[i * 4 + size_t(attachment)]);
    }
    InstanceDataCollection collection(&texturePlan, reinterpret_cast<const char*>(records.data()),
                                      records.size() * 4);
    auto shader = program(texturePlan, QStringLiteral("    uint index = row * %1u + uint(column);\n"
                                                      "    o_Int = uvec4(getCode(index));\n"
                                                      "    o_Float = vec4(getWeight(index));\n")
                                           .arg(kSide));
    RecordTarget target(kSide, kSide);
    ASSERT_TRUE(collection.bind());
    draw(shader.get(), kSide, kSide, false);
    EXPECT_EQ(target.words(0), expected[0]);
    EXPECT_EQ(target.words(1), expected[1]);
    EXPECT_TRUE(collection.unbind());
}

TEST_F(InstanceDataTest, UploadsRewriteOnlyChangedRecordsAndReallocateOnlyForANewSize)
{
    InstanceDataPlan plan("Uploads");
    plan.setMechanism(InstanceDataPlan::eTextureBuffer);
    plan.addMember(InstanceDataPlan::eVec4, "colour");
    plan.addMember(InstanceDataPlan::eUInt, "id");
    plan.setArraySize(1000);
    InstanceDataRegistry::Instance().registerPlan(&plan);
    constexpr quint64 kRecordBytes = 32;
    InstanceDataCollection collection(&plan, 1000);
    // What the GPU buffer holds, and whether it is immutable storage.
    auto gpuCopy = [](InstanceDataCollection& c) {
        QByteArray bytes(c.dataArray().size(), '\0');
        GLint immutable = GL_FALSE;
        glBindBuffer(GL_TEXTURE_BUFFER, c.getUniformBufferObject()->bufferObject()->getBO());
        glGetBufferSubData(GL_TEXTURE_BUFFER, 0, bytes.size(), bytes.data());
        if (!isReducedProfileRun())
            glGetBufferParameteriv(GL_TEXTURE_BUFFER, GL_BUFFER_IMMUTABLE_STORAGE, &immutable);
        glBindBuffer(GL_TEXTURE_BUFFER, 0);
        EXPECT_EQ(bytes, c.dataArray());
        return immutable;
    };
    // Binds and unbinds; returns the bytes uploaded.
    auto upload = [](InstanceDataCollection& c) {
        const quint64 before = c.uploadedBytes();
        EXPECT_TRUE(c.bind());
        EXPECT_TRUE(c.unbind());
        return c.uploadedBytes() - before;
    };
    {
        CallRecorder<&_ptrc_glBufferData> allocations;
        EXPECT_EQ(upload(collection), 1000 * kRecordBytes);
        EXPECT_EQ(allocations.count(), 1u);
    }

    // 1% changed, two of them neighbours: two ranges in one mapping of the span.
    const quint32 id = 42;
    for (int record : {3, 4, 97, 250, 251, 252, 600, 777, 901, 999})
        ASSERT_TRUE(collection.set(record, "id", id));
    EXPECT_TRUE(collection.set(3, "id", id));
    {
        CallRecorder<&_ptrc_glBufferData> allocations;
        CallRecorder<&_ptrc_glMapBufferRange> mappings;
        CallRecorder<&_ptrc_glFlushMappedBufferRange> flushes;
        EXPECT_EQ(upload(collection), 10 * kRecordBytes);
        EXPECT_EQ(allocations.count(), 0u);
        EXPECT_EQ(mappings.calls(), (std::vector<std::tuple<GLenum, GLintptr, GLsizeiptr, GLbitfield>>{
                                        {GL_TEXTURE_BUFFER, GLintptr(3 * kRecordBytes), GLsizeiptr(997 * kRecordBytes),
                                         GLbitfield(GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT)}}));
        EXPECT_EQ(flushes.count(), 7u);
    }
    gpuCopy(collection);

    // A few ranges are written directly, without a mapping.
    for (int record : {10, 11, 500})
        ASSERT_TRUE(collection.set(record, "id", id));
    {
        CallRecorder<&_ptrc_glMapBufferRange> mappings;
        CallRecorder<&_ptrc_glBufferSubData> writes;
        EXPECT_EQ(upload(collection), 3 * kRecordBytes);
        EXPECT_EQ(mappings.count(), 0u);
        std::vector<std::pair<GLintptr, GLsizeiptr>> ranges;
        for (const auto& call : writes.calls())
            ranges.emplace_back(std::get<1>(call), std::get<2>(call));
        EXPECT_EQ(ranges, (std::vector<std::pair<GLintptr, GLsizeiptr>>{{10 * kRecordBytes, 2 * kRecordBytes},
                                                                         {500 * kRecordBytes, kRecordBytes}}));
    }
    gpuCopy(collection);

    // Writing what is already there changes nothing; what the host vouches for is not uploaded.
    EXPECT_TRUE(collection.set(4, "id", id));
    EXPECT_FALSE(collection.isDirty());
    EXPECT_TRUE(collection.set(5, "id", id));
    collection.clearDirtyStatus();
    EXPECT_EQ(upload(collection), 0u);

    // Every record changed: one whole rewrite, still without reallocating.
    std::vector<char> bytes(size_t(1000 * kRecordBytes), '\x7f');
    ASSERT_TRUE(collection.update(bytes.data(), bytes.size()));
    {
        CallRecorder<&_ptrc_glBufferData> allocations;
        CallRecorder<&_ptrc_glMapBuffer> mappings;
        EXPECT_EQ(upload(collection), 1000 * kRecordBytes);
        EXPECT_EQ(allocations.count(), 0u);
        EXPECT_EQ(mappings.count(), 1u);
    }
    gpuCopy(collection);

    // A new size reallocates; the views follow the buffer.
    ASSERT_TRUE(collection.update(bytes.data(), bytes.size() / 2));
    CallRecorder<&_ptrc_glBufferData> allocations;
    EXPECT_EQ(upload(collection), 500 * kRecordBytes);
    EXPECT_EQ(allocations.count(), 1u);
    gpuCopy(collection);
    EXPECT_EQ(collection.memoryEstimateGPU(), size_t(500 * kRecordBytes));

    // Immutable storage (where the driver has it) is rewritten in place, and remade for a new size.
    const GLint immutable = isReducedProfileRun() ? GL_FALSE : GL_TRUE;
    InstanceDataCollection stored(&plan, bytes.data(), bytes.size());
    stored.useStorageBuffer(GL_MAP_READ_BIT);
    EXPECT_EQ(upload(stored), 1000 * kRecordBytes);
    EXPECT_EQ(gpuCopy(stored), immutable);
    QSharedPointer<UniformBufferObject> first = stored.getUniformBufferObject();
    ASSERT_TRUE(stored.update(bytes.data(), bytes.size() / 2));
    EXPECT_EQ(upload(stored), 500 * kRecordBytes);
    EXPECT_EQ(gpuCopy(stored), immutable);
    EXPECT_EQ(stored.getUniformBufferObject() == first, immutable == GL_FALSE);
}

