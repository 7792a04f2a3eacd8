#include <kel/DisplayPointer.h>
#include <kel/DumpContext.h>

#include <mox/Exception.h>

#include <gtest/gtest.h>

#include <string>

namespace {

// Texts are formatted on the stack up to a size, and one that is longer in memory of its own.
TEST(DumpContext, PrintsTextsOfAnyLengthWhole) {
    for (std::size_t length : {0u, 509u, 510u, 511u, 512u, 100'000u}) {
        Mox::Ptr<Kel::StringDumpContext> const context = Kel::StringDumpContext::StringDumpContextIs();
        std::string const text(length, '%');
        Kel::objDumpPrintf(context, "%s%%", text.c_str());
        EXPECT_EQ(text + '%', context->text());
    }
}

TEST(DisplayPointer, PrintsAndParsesBackAndRejectsWhatIsNone) {
    Mox::String const pointer = "0xffffffff9abcdef0 and more";
    Mox::String::IteratorConst position = pointer.begin();
    EXPECT_EQ("0xffffffff9abcdef0", Kel::DisplayPointer(position, pointer.end()).toStrep());
    EXPECT_EQ(" and more", std::string(position, pointer.end()));
    for (Mox::String const text : {"", "0x", "0xg", "1234", "0X12", "0x-1", " 0x1", "0x12345678912345678"}) {
        Mox::String::IteratorConst at = text.begin();
        EXPECT_THROW(Kel::DisplayPointer(at, text.end()), Mox::RangeException) << text;
        EXPECT_EQ(text.begin(), at) << text;
    }
}

} // namespace
