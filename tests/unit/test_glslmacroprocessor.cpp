#include "gl/shaders/glslmacroprocessor.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <utility>

using Tavren::Vyx::GLSLMacroProcessor;
using VyxTest::MessageCapture;
using VyxTest::writeFile;

TEST(GLSLMacroProcessor, DefinesFollowTheFirstVersionLineInKeyOrder)
{
    GLSLMacroProcessor mp;
    const QString plain = "#version 150\nvoid main() {}";
    EXPECT_EQ(GLSLMacroProcessor::process(plain, nullptr), plain);
    EXPECT_EQ(GLSLMacroProcessor::process(plain, &mp), plain);
    mp.addDefine("B", "2");
    mp.addDefine("A", "1");
    EXPECT_EQ(GLSLMacroProcessor::process("#version 150\nL", &mp), "#version 150\n#define A 1\n#define B 2\nL\n");
    EXPECT_EQ(GLSLMacroProcessor::process("#version 150\n#version 330\n", &mp),
              "#version 150\n#define A 1\n#define B 2\n#version 330\n\n");
    EXPECT_EQ(GLSLMacroProcessor::process("no version", &mp), "no version\n");

    // A macro whose text is a version line counts as one; its own expansion injects the block too,
    // and GLSL accepts the identical redefinition.
    mp.addMacro("VERSION", "#version 400");
    mp.removeDefine("B");
    EXPECT_EQ(GLSLMacroProcessor::process("#macro VERSION #version 150\nL", &mp),
              "#version 400\n#define A 1\n\n#define A 1\nL\n");
}

TEST(GLSLMacroProcessor, MacrosUseTheirTextOrTheDefaultAndMayExpandToIncludes)
{
    GLSLMacroProcessor mp;
    EXPECT_EQ(GLSLMacroProcessor::process("  #macro NAME #version 150", &mp), "#version 150\n");

    mp.addMacro("NAME", "#include \"noise2D.glslh\"");
    const QString expanded = GLSLMacroProcessor::process("#macro NAME default", &mp);
    EXPECT_TRUE(expanded.startsWith("#ifndef VYX_NOISE2D_GLSLH\n")) << expanded.toStdString();
    EXPECT_TRUE(expanded.contains("float snoise(vec2 p);"));
}

TEST(GLSLMacroProcessor, MacroLinesSplitAsThePatternSaysWhateverTheWhiteSpace)
{
    GLSLMacroProcessor mp;
    mp.addMacro("M", "m");
    const std::pair<QString, QString> cases[] = {
        {"\t\v\f\r #macro M x", "m\n"},
        {"#macro\tM\tdefault words", "m\n"},
        {"#macroM x", "m\n"},
        // Without a space after it the name is empty, and the default text is what follows the keyword.
        {"#macro  M", "M\n"},
        {"#macro   ", "\n"},
        {"#macroM", "#macroM\n"},
        {"x #macro M y", "x #macro M y\n"},
        {"#macro NONE a b", "a b\n"},
        {"#macro \x1c x", "x\n"},
        // Beyond ASCII, white space is what the pattern's Unicode properties make it.
        {"#macro\u2003M x", "m\n"},
        {QChar(0x85) + QString("#macro M\u00a0x"), "m\n"},
        {QChar(0x180e) + QString("#macro M x"), "m\n"},
        {"#macro NONE d\u00e9faut", "d\u00e9faut\n"},
    };
    for (const auto& [line, expanded] : cases)
        EXPECT_EQ(GLSLMacroProcessor::process(line, &mp), expanded) << line.toStdString();
}

TEST(GLSLMacroProcessor, IncludesResolveAlongThePathsAndReportWhatTheyCannot)
{
    QTemporaryDir dir;
    writeFile(dir.filePath("Local.glslh"), "local line\n");
    GLSLMacroProcessor mp;
    mp.addIncludePath(dir.path());

    MessageCapture capture;
    // Embedded headers are found; no include-once rule.
    const QString twice = GLSLMacroProcessor::process("#include \"noise2D.glslh\"\n#include \"noise2D.glslh\"", &mp);
    EXPECT_EQ(twice.count("float snoise(vec2 p);"), 2);
    EXPECT_EQ(GLSLMacroProcessor::process("#include  \"Local.glslh\"", &mp), "local line\n\n");
    EXPECT_EQ(GLSLMacroProcessor::process("  #include \"Local.glslh\"", &mp), "  #include \"Local.glslh\"\n");
    EXPECT_TRUE(capture.texts().isEmpty());

    EXPECT_EQ(GLSLMacroProcessor::process("#include \"Missing.glslh\"", &mp), "#include \"Missing.glslh\"\n");
    EXPECT_EQ(GLSLMacroProcessor::process("#include Local.glslh", &mp), "#include Local.glslh\n");
    EXPECT_EQ(capture.texts(QtWarningMsg), QStringList({"Failed to open include file 'Missing.glslh'",
                                                        "Cannot extract include filename from '#include Local.glslh'"}));
}

TEST(GLSLMacroProcessor, CyclicIncludesAndSelfExpandingMacrosStopWithAWarning)
{
    QTemporaryDir dir;
    writeFile(dir.filePath("Self.glslh"), "self\n#include \"Self.glslh\"");
    writeFile(dir.filePath("A.glslh"), "a\n#include \"B.glslh\"");
    writeFile(dir.filePath("B.glslh"), "b\n#include \"A.glslh\"");
    GLSLMacroProcessor mp;
    mp.addIncludePath(dir.path());
    mp.addMacro("LOOP", "#macro LOOP again");

    MessageCapture capture;
    EXPECT_EQ(GLSLMacroProcessor::process("#include \"Self.glslh\"", &mp), "self\n#include \"Self.glslh\"\n\n");
    EXPECT_EQ(GLSLMacroProcessor::process("#include \"A.glslh\"", &mp), "a\nb\n#include \"A.glslh\"\n\n\n");
    EXPECT_EQ(GLSLMacroProcessor::process("#macro LOOP x", &mp), "#macro LOOP again\n\n");
    const QStringList warnings = capture.texts(QtWarningMsg);
    ASSERT_EQ(warnings.size(), 3);
    EXPECT_TRUE(warnings[0].startsWith("Recursive include ignored: '")) << warnings[0].toStdString();
    EXPECT_TRUE(warnings[0].endsWith("Self.glslh' is already being expanded"));
    EXPECT_EQ(warnings[2], "Recursive macro ignored: '#macro LOOP' is already being expanded");
}

TEST(GLSLMacroProcessor, DevicesAndDoublingExpansionsCannotMakeEndlessOutput)
{
    GLSLMacroProcessor mp;
    // Each macro expands to two copies of the next: 2^24 lines unless the output is bounded.
    for (char name = 'A'; name < 'Y'; ++name)
        mp.addMacro(QString(name), QStringLiteral("#macro %1 y\n#macro %1 y").arg(QChar(name + 1)));
    MessageCapture capture;
    EXPECT_EQ(GLSLMacroProcessor::process("#include \"/dev/zero\"", &mp), "#include \"/dev/zero\"\n");
    EXPECT_LT(GLSLMacroProcessor::process("#macro A x", &mp).size(), 5 << 20);
    const QStringList warnings = capture.texts(QtWarningMsg);
    ASSERT_EQ(warnings.size(), 2);
    EXPECT_EQ(warnings[0], "Failed to open include file '/dev/zero'");
    EXPECT_TRUE(warnings[1].contains("GLSL expansion exceeds 4194304 characters at")) << warnings[1].toStdString();

    // A smaller limit stops the expansion sooner and refuses larger include files.
    QTemporaryDir dir;
    writeFile(dir.filePath("Big.glslh"), QByteArray(1001, 'x'));
    writeFile(dir.filePath("Small.glslh"), QByteArray(1000, 'x'));
    mp.addIncludePath(dir.path());
    mp.setExpansionLimit(1000);
    EXPECT_LT(GLSLMacroProcessor::process("#macro A x", &mp).size(), 1000);
    EXPECT_EQ(GLSLMacroProcessor::process("#include \"Big.glslh\"", &mp), "#include \"Big.glslh\"\n");
    EXPECT_EQ(GLSLMacroProcessor::process("#include \"Small.glslh\"", &mp).size(), 1001);
    const QStringList limited = capture.texts(QtWarningMsg).mid(2);
    ASSERT_EQ(limited.size(), 2);
    EXPECT_TRUE(limited[0].contains("GLSL expansion exceeds 1000 characters at")) << limited[0].toStdString();
    EXPECT_TRUE(limited[1].endsWith("Big.glslh' is too large (1001 bytes)")) << limited[1].toStdString();
}

TEST(GLSLMacroProcessor, InstanceDataLinesGoThroughTheInstalledResolver)
{
    MessageCapture capture;
    EXPECT_EQ(GLSLMacroProcessor::process("#instancedata \"Plan\"", nullptr), "#instancedata \"Plan\"\n");

    GLSLMacroProcessor::setInstanceDataResolver([](const QString& name, QString* glslh) {
        if (name != "Plan")
            return false;
        *glslh = "#macro TYPE float\nTYPE getValue(void);";
        return true;
    });
    GLSLMacroProcessor mp;
    mp.addMacro("TYPE", "vec4 getValue(void);");
    EXPECT_EQ(GLSLMacroProcessor::process("#instancedata \"Plan\"", &mp), "vec4 getValue(void);\nTYPE getValue(void);\n\n");
    EXPECT_EQ(GLSLMacroProcessor::process("#instancedata \"Other\"", &mp), "#instancedata \"Other\"\n");
    GLSLMacroProcessor::setInstanceDataResolver({});
    EXPECT_TRUE(capture.texts().isEmpty());
}
