#include <kel/DumpContext.h>

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

} // namespace
