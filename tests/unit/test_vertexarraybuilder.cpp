#include "gl/objects/vertexarraybuilder.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

using namespace Tavren::Vyx;

TEST(VertexArrayBuilder, ShortPushesArePaddedWithZero)
{
    VertexArrayBuilder builder;
    builder.setVertexSpec(3, 3);
    builder.setColorSpec(4, 3);
    for (int i = 0; i < 3; ++i) {
        builder.glVertex2f(float(i), 1.0f);
        builder.glColor3f(0.5f, 0.25f, float(i));
    }
    EXPECT_EQ(builder.getColorData(), (QVector<float>{0.5f, 0.25f, 0, 0, 0.5f, 0.25f, 1, 0, 0.5f, 0.25f, 2, 0}));
    EXPECT_EQ(builder.getVertexData(), (QVector<float>{0, 1, 0, 1, 1, 0, 2, 1, 0}));
    EXPECT_EQ(builder.getVertexCount(), 3);

    builder.setVertexAttribSpec(5, 2, 1);
    builder._ptrc_glVertexAttrib2f(5, 7, 8);
    EXPECT_EQ(builder.getVertexAttribData(5), (QVector<float>{7, 8}));
    EXPECT_EQ(builder.getVertexAttribStorage(5).getSize(), 1);
}

TEST(VertexArrayBuilder, MisuseIsReportedAndCarriesOn)
{
    VyxTest::MessageCapture capture;
    VertexArrayBuilderStorage storage;
    EXPECT_EQ(storage.getSize(), 0);
    storage.setSpec(2, 0);
    storage.setSpec(3, 0);
    EXPECT_EQ(storage.getComponentCount(), 3u);
    storage.pushData(1, 2, 3, 4);
    EXPECT_EQ(storage.getData().size(), 4);
    EXPECT_EQ(storage.getSize(), 1);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{VyxTest::assertionText("0 != this->_componentCount", "Component Count must be setup before size is obtained"),
                           VyxTest::assertionText("0 == this->_componentCount", "Component Count already set to 2. Try to reset to 3"),
                           VyxTest::assertionText("4 <= this->_componentCount",
                                     "Component Count is not large enough for the data being pushed"),
                           VyxTest::assertionText("0 == (this->_data.size() \\% this->_componentCount)",
                                     "Component Count and array Size do not match.")}));

    capture.clear();
    VertexArrayBuilder builder;
    builder.setVertexSpec(3, 2);
    builder.setNormalSpec(3, 2);
    builder.glVertex3f(0, 0, 0);
    builder.glVertex3f(1, 0, 0);
    builder.glNormal3f(0, 0, 1);
    EXPECT_EQ(builder.getVertexCount(), 2);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{VyxTest::assertionText("this->_normal.getComponentCount() == 0 || count == this->_normal.getSize()",
                                    "Normal count must match vertex count")});

    // Absent attribute streams are answered empty and not created.
    EXPECT_EQ(builder.getVertexAttribStorage(7).getComponentCount(), 0u);
    EXPECT_TRUE(builder.getVertexAttribData(7).isEmpty());
    builder.setVertexAttribSpec(7, 2, 0);
    EXPECT_EQ(capture.bodies(QtCriticalMsg).size(), 1);
}
