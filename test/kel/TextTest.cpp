#include <kel/DisplayPointer.h>
#include <kel/DumpContext.h>

#include <mox/Exception.h>

#include <gtest/gtest.h>

#include <cinttypes>
#include <sstream>

namespace {

// Texts are formatted on the stack up to a size, and one that is longer in memory of its own.
TEST(DumpContext, PrintsTextsOfAnyLengthWhole) {
    Mox::Ptr<Kel::StringDumpContext> const context = Kel::StringDumpContext::StringDumpContextIs();
    std::string wanted;
    for (std::size_t length : {0u, 1u, 510u, 511u, 512u, 513u, 100'000u}) {
        std::string const text(length, 'x');
        Kel::objDumpPrintf(context, "%s|%zu\n", text.c_str(), length);
        wanted += text + '|' + std::to_string(length) + '\n';
    }
    EXPECT_EQ(wanted, context->text());
}

TEST(DumpContext, PercentSignsInArgumentsStandForThemselves) {
    std::ostringstream stream;
    Mox::Ptr<Kel::StreamDumpContext> const context = Kel::StreamDumpContext::StreamDumpContextIs(stream);
    Kel::objDumpPrintf(context, "%s %d%% %%s\n", "100%n%s", 5);
    EXPECT_EQ("100%n%s 5% %s\n", stream.str());
}

TEST(DisplayPointer, PrintsAndParsesBack) {
    struct {
        Mox::U64 address;
        char const* text;
    } const cases[] = {
        {0, "0x0"}, {0xdeadbeef, "0xdeadbeef"}, {0x10, "0x10"}, {~Mox::U64{0}, "0xffffffffffffffff"}};
    for (auto const& c : cases) {
        EXPECT_EQ(c.text, Kel::DisplayPointer(c.address).toStrep());
        Mox::String const text = std::string(c.text) + " and more";
        Mox::String::IteratorConst at = text.begin();
        EXPECT_EQ(c.address, Kel::DisplayPointer(at, text.end()).address());
        EXPECT_EQ(" and more", std::string(at, text.end()));
    }
    int variable = 0;
    std::ostringstream stream;
    stream << Kel::DisplayPointer(&variable);
    char printed[32];
    std::snprintf(printed, sizeof printed, "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(&variable));
    EXPECT_EQ(printed, stream.str());
}

TEST(DisplayPointer, RejectsWhatIsNoPointer) {
    for (char const* text :
         {"", "0", "0x", "0xg", "1234", "x12", "0X12", "0x-1", "0x 1", " 0x1", "0x12345678912345678"}) {
        Mox::String const input = text;
        Mox::String::IteratorConst at = input.begin();
        EXPECT_THROW(Kel::DisplayPointer(at, input.end()), Mox::RangeException) << text;
        EXPECT_EQ(input.begin(), at) << text;
    }
}

} // namespace
