#include <kel/DisplayPointer.h>
#include <kel/DumpContext.h>

#include <mox/Exception.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>

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

TEST(DisplayPointer, ReadsAsFarAsItGoesAndIsRefusedWhereNoneStands) {
    using Row = std::tuple<Mox::String, int, Mox::U64>;
    for (auto const& [text, length, address] : {Row{"0x0", 3, 0},
                                                {"0xffffffffffffffff", 18, ~Mox::U64{0}},
                                                {"0xA0bx", 5, 0xa0b},
                                                {"0x1 2", 3, 1},
                                                {"0x10000000000000000", 0, 0},
                                                {"0x", 0, 0},
                                                {"0xg", 0, 0},
                                                {"0x-1", 0, 0},
                                                {"0x 1", 0, 0},
                                                {"0X1", 0, 0},
                                                {"1x1", 0, 0},
                                                {"001", 0, 0},
                                                {"-0x1", 0, 0},
                                                {"", 0, 0}}) {
        auto position = text.begin();
        if (length == 0)
            EXPECT_THROW(Kel::DisplayPointer(position, text.end()), Mox::RangeException) << text;
        else
            EXPECT_EQ(address, Kel::DisplayPointer(position, text.end()).address()) << text;
        EXPECT_EQ(length, position - text.begin()) << text;
    }
}

} // namespace
