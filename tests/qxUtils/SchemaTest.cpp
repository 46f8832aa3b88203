#include "qxUtils/Schema.h"

#include "qxUtils/Exceptions.h"
#include "tests/qxUtils/ByteSink.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

Bytes Tag(int schema) {
    return Written([schema](Archive& ar) { SerialiseSchema(ar, schema); });
}

std::string TextOfRefusal(int stored, int latest) {
    const Bytes bytes = Tag(stored);
    int schema = 0;
    try {
        DeserialiseSchema(bytes.data(), latest, schema);
    } catch (const RecordException& e) {
        return e.what();
    }
    return "";
}

TEST(Schema, ATagIsTheVariableLengthFormOfItsNumber) {
    EXPECT_EQ((Bytes{1}), Tag(1));
    EXPECT_EQ((Bytes{2}), Tag(2));
    EXPECT_EQ((Bytes{0x80, 0x80}), Tag(128));
}

TEST(Schema, TheReaderGetsTheRecordsNumberAndTheAdvancedCursor) {
    for (int stored = 1; stored <= 3; ++stored) {
        const Bytes bytes = Tag(stored);
        int schema = 0;
        const InputArchive end = DeserialiseSchema(bytes.data(), 3, schema);
        EXPECT_EQ(stored, schema);
        EXPECT_EQ(bytes.data() + bytes.size(), end.ptr());
    }
}

TEST(Schema, ANewerSchemaIsRefusedNamingBothNumbers) {
    const std::string text = TextOfRefusal(17, 2);
    EXPECT_NE(std::string::npos, text.find("17")) << text;
    EXPECT_NE(std::string::npos, text.find("2")) << text;
}

TEST(Schema, ASchemaBelowOneIsRefused) {
    const std::string text = TextOfRefusal(0, 2);
    EXPECT_NE(std::string::npos, text.find("0")) << text;
    EXPECT_NE(std::string::npos, text.find("2")) << text;
    EXPECT_NE("", TextOfRefusal(-1, 2));
}

} // namespace
} // namespace quna
