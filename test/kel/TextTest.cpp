#include <kel/DisplayPointer.h>
#include <kel/DumpContext.h>

#include <support/Names.h>
#include <support/Refusal.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace TestSupport;

// Texts are formatted on the stack up to a size, and one that is longer in memory of its own.
TEST(DumpContext, PrintsTextsOfAnyLengthWhole) {
    for (std::size_t length : {0u, 509u, 510u, 511u, 512u, 100'000u}) {
        Ptr<StringDumpContext> const context = StringDumpContext::StringDumpContextIs();
        std::string const text(length, '%');
        objDumpPrintf(context, "%s%%", text.c_str());
        EXPECT_EQ(text + '%', context->text());
    }
}

// What stands before the bar.
TEST(DisplayPointer, ReadsAsFarAsItGoesAndIsRefusedWhereNoneStands) {
    for (std::string const row :
         {"0x0|", "0xffffffffffffffff|", "0xa0b|x", "0x1| 2", "|", "|0x10000000000000000", "|0x", "|0xg",
          "|0x-1", "|0x 1", "|0X1", "|1x1", "|001", "|-0x1"}) {
        std::string const pointer = row.substr(0, row.find('|'));
        String const text = pointer + row.substr(pointer.size() + 1);
        auto position = text.begin();
        auto const read = [&] { return DisplayPointer(position, text.end()).toStrep(); };
        EXPECT_EQ(pointer.empty(), !refusal([&] { EXPECT_EQ(pointer, read()); }).empty()) << row;
        EXPECT_EQ(position - text.begin(), std::ssize(pointer)) << row;
    }
}

} // namespace
