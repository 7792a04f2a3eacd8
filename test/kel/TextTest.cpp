#include <kel/DisplayPointer.h>
#include <kel/DumpContext.h>

#include <mox/Exception.h>

#include <gtest/gtest.h>

#include <sstream>

namespace {

// Texts are formatted on the stack up to a size, and one that is longer in memory of its own.
TEST(DumpContext, PrintsTextsOfAnyLengthWhole) {
    Mox::Ptr<Kel::StringDumpContext> const context = Kel::StringDumpContext::StringDumpContextIs();
    std::string wanted;
    for (std::size_t length : {0u, 508u, 509u, 510u, 511u, 100'000u}) {
        std::string const text = "%d" + std::string(length, 'x');
        Kel::objDumpPrintf(context, "%s%%", text.c_str());
        wanted += text + '%';
    }
    EXPECT_EQ(wanted, context->text());
}

TEST(DisplayPointer, PrintsAndParsesBackAndRejectsWhatIsNone) {
    for (std::string const pointer : {"0x0", "0xdeadbeef", "0xffffffffffffffff"}) {
        Mox::String const text = pointer + " and more";
        Mox::String::IteratorConst at = text.begin();
        EXPECT_EQ(pointer, Kel::DisplayPointer(at, text.end()).toStrep());
        EXPECT_EQ(" and more", std::string(at, text.end()));
    }
    for (Mox::String const text :
         {"", "0", "0x", "0xg", "1234", "0X12", "0x-1", " 0x1", "0x12345678912345678"}) {
        Mox::String::IteratorConst at = text.begin();
        EXPECT_THROW(Kel::DisplayPointer(at, text.end()), Mox::RangeException) << text;
        EXPECT_EQ(text.begin(), at) << text;
    }
}

} // namespace
