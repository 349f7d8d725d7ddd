#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "support/messagecapture.h"

#include <QVector4D>

#include <gtest/gtest.h>

#include <utility>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::MessageCapture;
using Type = InstanceDataPlan::DataType;

namespace {

struct LayoutCase
{
    bool vec4Storage;
    std::vector<std::pair<Type, const char*>> members;
    std::vector<int> offsets;
    size_t total;
};

InstanceDataPlan* registered(InstanceDataPlan* plan)
{
    InstanceDataRegistry::Instance().registerPlan(plan);
    return plan;
}

} // namespace

TEST(InstanceDataPlan, PacksBoolsIntoWordsAlignsBySizeAndSeparatesKindsForVec4Storage)
{
    const std::vector<LayoutCase> cases = {
        // bools share a word; the token waits for 8; a vec3 takes 16; a float after it starts a new slot.
        {false,
         {{InstanceDataPlan::eBool, "a"}, {InstanceDataPlan::eBVec2, "b"}, {InstanceDataPlan::eTexture, "t"},
          {InstanceDataPlan::eVec3, "v"}, {InstanceDataPlan::eFloat, "f"}, {InstanceDataPlan::eBool, "c"}},
         {0, 2, 8, 16, 32, 36},
         48},
        // The same members with vec4 storage: the float cannot join the token's unsigned slot.
        {true,
         {{InstanceDataPlan::eBool, "a"}, {InstanceDataPlan::eTexture, "t"}, {InstanceDataPlan::eFloat, "f"},
          {InstanceDataPlan::eInt, "i"}, {InstanceDataPlan::eInt, "j"}, {InstanceDataPlan::eMat4, "m"}},
         {0, 8, 16, 32, 36, 48},
         112},
        {false, {{InstanceDataPlan::eMat4, "ModelMatrix"}}, {0}, 64},
    };
    for (const LayoutCase& c : cases) {
        InstanceDataPlan plan("Layout");
        plan.setUseVec4Storage(c.vec4Storage);
        for (const auto& member : c.members)
            plan.addMember(member.first, member.second);
        registered(&plan);
        std::vector<int> offsets;
        for (const auto& member : c.members)
            offsets.push_back(plan.offset(member.second));
        EXPECT_EQ(offsets, c.offsets) << "vec4 storage " << c.vec4Storage;
        EXPECT_EQ(plan.totalDataSize(), c.total);
    }
}

TEST(InstanceDataPlan, FinalisingWithoutGLWarnsKeepsUniformSizesAndAssumes2048Texels)
{
    InstanceDataPlan uniform("Uni"), texture("Txt");
    texture.setMechanism(InstanceDataPlan::eTextureBuffer);
    for (InstanceDataPlan* plan : {&uniform, &texture}) {
        plan->addMember(InstanceDataPlan::eVec4, "colour");
        plan->addMember(InstanceDataPlan::eFloat, "weight");
    }
    MessageCapture capture;
    EXPECT_EQ(uniform.arraySize(), InstanceDataPlan::kDefaultArraySize);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{assertionText("true == _finalised", "InstanceDataPlan::arraySize() can only be called after "
                                                              "the plan has been finalised")});
    capture.clear();
    registered(&uniform);
    registered(&texture);
    EXPECT_EQ(capture.bodies(QtWarningMsg).size(), 2);
    EXPECT_TRUE(capture.bodies(QtWarningMsg)[1].startsWith("OpenGL has not been initialised."));
    EXPECT_EQ(uniform.arraySizeMax(), 150u);
    EXPECT_EQ(texture.arraySize(), 150u);
    EXPECT_EQ(texture.arraySizeMax(), 2048u * 16u / 32u);

    // Finalised plans refuse every change.
    capture.clear();
    texture.setArraySize(5);
    texture.setMechanism(InstanceDataPlan::eUniformBlock);
    texture.setUseVec4Storage(true);
    texture.addMember(InstanceDataPlan::eInt, "late");
    EXPECT_EQ(capture.bodies(QtCriticalMsg).size(), 4);
    EXPECT_EQ(texture.arraySize(), 150u);
    EXPECT_EQ(texture.mechanism(), InstanceDataPlan::eTextureBuffer);
    EXPECT_FALSE(texture.contains("late"));

    // Bad names never reach the generated GLSL.
    InstanceDataPlan names("Names");
    names.addMember(InstanceDataPlan::eInt, "value");
    for (const char* bad : {"Value", "2d", "_dummy4", "gl_x", "a b"})
        names.addMember(InstanceDataPlan::eInt, bad);
    names.addMember(Type(18), "odd");
    EXPECT_EQ(names.memberNames(), QList<QString>{"value"});
    EXPECT_EQ(names.dataType("odd"), Type(18));
}

TEST(InstanceDataPlan, InstanceDataDirectiveInsertsTheRegisteredDeclarations)
{
    InstanceDataPlan plain("Plain"), textured("Textured");
    plain.addMember(InstanceDataPlan::eMat4, "modelMatrix");
    textured.addMember(InstanceDataPlan::eTexture, "albedo");
    registered(&plain);
    registered(&textured);
    EXPECT_EQ(plain.glslh(), "#ifndef VYX_INSTANCEDATAPLAN_Plain_GLSLH\n#define VYX_INSTANCEDATAPLAN_Plain_GLSLH\n"
                             "mat4 getModelMatrix( uint Index);\nmat4 getModelMatrix(void);\n"
                             "#define Plain_ARRAY_SIZE 150\n#endif // VYX_INSTANCEDATAPLAN_Plain\n");
    EXPECT_FALSE(plain.glslc().contains("TextureManager.glslh"));
    EXPECT_TRUE(textured.glslh().contains("#include \"TextureManager.glslh\"\nVyxTextureToken getAlbedo( uint Index);"));

    GLSLMacroProcessor mp;
    const QString shader = GLSLMacroProcessor::process("#version 150\n#instancedata \"Plain\"\nvoid main() {}", &mp);
    EXPECT_EQ(shader, "#version 150\n" + plain.glslh() + "\nvoid main() {}\n");

    MessageCapture capture;
    EXPECT_EQ(GLSLMacroProcessor::process("#instancedata \"Missing\"", &mp), "#instancedata \"Missing\"\n");
    EXPECT_EQ(capture.bodies(QtWarningMsg),
              QStringList{"InstanceDataRegistry::getPlan() : Specified instanceData plan does not exist : Missing"});
    EXPECT_EQ(InstanceDataRegistry::Instance().getPlan("Missing"), nullptr);
}

TEST(InstanceDataPlan, MisuseOfRecordsAndCollectionsIsReportedAndChangesNothing)
{
    InstanceDataPlan plan("Misuse");
    plan.addMember(InstanceDataPlan::eVec4, "colour");
    plan.addMember(InstanceDataPlan::eTexture, "albedo");
    plan.setArraySize(2);
    registered(&plan);

    InstanceData record("Misuse");
    InstanceDataCollection collection(&plan, 2);
    const float value[] = {1, 2, 3, 4};
    const float tooLarge[5] = {};
    ASSERT_TRUE(record.set("colour", QVector4D(1, 2, 3, 4)));
    ASSERT_TRUE(collection.set(1, "colour", value, sizeof(value)));
    const QByteArray recordBefore = record.dataArray(), collectionBefore = collection.dataArray();

    MessageCapture capture;
    EXPECT_FALSE(record.set("missing", value, sizeof(value)));
    EXPECT_FALSE(record.set("colour", tooLarge, sizeof(tooLarge)));
    EXPECT_FALSE(record.set(28, value, sizeof(value)));
    EXPECT_FALSE(collection.set(0, "missing", value, sizeof(value)));
    EXPECT_FALSE(collection.set(0, "colour", tooLarge, sizeof(tooLarge)));
    EXPECT_FALSE(collection.set(2, "colour", value, sizeof(value)));
    EXPECT_FALSE(collection.set(-1, "colour", value, sizeof(value)));
    EXPECT_EQ(capture.bodies(QtCriticalMsg).size(), 7);
    EXPECT_EQ(record.dataArray(), recordBefore);
    EXPECT_EQ(collection.dataArray(), collectionBefore);

    // A texture member takes tokens; raw bytes are reported but still written.
    capture.clear();
    const quint64 raw = 7;
    EXPECT_TRUE(record.set("albedo", &raw, sizeof(raw)));
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{assertionText("InstanceDataPlan::eTexture != _plan->dataType(dataName)",
                                        "InstanceData::set( 'albedo') call on data type 0")});
    EXPECT_TRUE(record.setToken("albedo", TextureToken(0x1234567890ull)));
    EXPECT_EQ(record.textureTokens(), QSet<TextureToken>{TextureToken(0x1234567890ull)});

    // A list longer than the table is reported but kept; a record of another plan is refused.
    capture.clear();
    InstanceDataCollection listed("Misuse", {record, record, record});
    EXPECT_EQ(listed.size(), 3);
    EXPECT_EQ(listed.textureTokens(), record.textureTokens());
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{assertionText("size_t(instanceDataDataList.size()) <= _plan->arraySize()",
                                        "List 3 too big, max 2 plan 'Misuse'")});
    EXPECT_FALSE(listed.update({record, InstanceData()}));
    EXPECT_EQ(listed.size(), 3);
    EXPECT_FALSE(InstanceData().set("colour", value, sizeof(value)));
}

// A token for a member that is not a texture: the type is reported first and the call goes on;
// the token goes in only where its 8 bytes fit.
TEST(InstanceDataPlan, TokensForOtherMembersAreReportedByTypeThenStoredWhereTheyFit)
{
    InstanceDataPlan plan("Tokens");
    plan.addMember(InstanceDataPlan::eFloat, "f");
    plan.addMember(InstanceDataPlan::eVec2, "uv");
    plan.addMember(InstanceDataPlan::eTexture, "albedo");
    registered(&plan);
    const char* typeCheck = "InstanceDataPlan::eTexture == _plan->dataType(dataName)";
    struct Case { const char* member; bool stored; QStringList reports; };
    const Case cases[] = {
        {"f", false,
         {assertionText(typeCheck, "InstanceData::setTexture( 'f') call on data type 13"),
          assertionText("size > 0 && size <= member->size",
                        "InstanceData::setTexture( 'f') : 8 bytes do not fit a member of 4 bytes")}},
        {"uv", true, {assertionText(typeCheck, "InstanceData::setTexture( 'uv') call on data type 14")}},
        {"albedo", true, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.member);
        InstanceData record("Tokens");
        MessageCapture capture;
        EXPECT_EQ(record.setToken(c.member, TextureToken(0x1234567890ull)), c.stored);
        EXPECT_EQ(capture.bodies(QtCriticalMsg), c.reports);
        EXPECT_EQ(record.textureTokens().size(), c.stored ? 1 : 0);
        quint64 token = 0;
        if (c.stored && record.get(c.member, &token, sizeof(token)))
            EXPECT_EQ(token, 0x1234567890ull);
    }
}
