#include <mox/NboAttrLog.h>

#include <mox/Integers.h>
#include <support/Random.h>

#include <gmock/gmock.h>

namespace {

using namespace Mox::NboAttrLog;
using testing::HasSubstr;
using testing::ThrowsMessage;

Mox::String bytes(std::initializer_list<unsigned> codes) {
    std::string all;
    for (unsigned const code : codes)
        all += static_cast<char>(code);
    return all;
}

TEST(NboAttrLog, WritesNetworkByteOrder) {
    Mox::Ptr<Out> const out = Out::OutIs();
    out << Mox::U32{0x01020304} << Mox::S32{-2} << Mox::U64{0x0102030405060708} << Mox::S64{-3} << 1.0
        << "a\xff";
    EXPECT_EQ(
        bytes({1,    2,    3,    4,    0xff, 0xff, 0xff, 0xfe, 1, 2, 3, 4, 5, 6, 7, 8, 0xff, 0xff, 0xff,
               0xff, 0xff, 0xff, 0xff, 0xfd, 0x3f, 0xf0, 0,    0, 0, 0, 0, 0, 0, 0, 0, 2,    'a',  0xff}),
        out->bytes());
}

// Signalling NaNs included, which a detour over an x87 register would change.
TEST(NboAttrLog, EveryBitOfDoublesSurvives) {
    TestSupport::Random random;
    for (std::size_t i = 0; i < TestSupport::operations(100'000); ++i) {
        Mox::U64 bits = random.word();
        if (random.oneIn(4))
            bits |= 0x7ff0000000000000;
        double value;
        std::memcpy(&value, &bits, sizeof value);
        Mox::Ptr<Out> const out = Out::OutIs();
        out << value;
        double read = 0.0;
        bytesToValue(out->bytes(), &read);
        ASSERT_EQ(0, std::memcmp(&read, &bits, sizeof read)) << std::hex << bits;
    }
}

TEST(NboAttrLog, ShortAndOverlongInputIsRefusedAndChangesNothing) {
    Mox::Ptr<In> in = In::InIs(bytes({0, 0, 0, 3, 'a', 'b'}));
    Mox::String text = "before";
    Mox::U64 number = 5;
    EXPECT_THAT([&] { in->read(&text); }, ThrowsMessage<Mox::RangeException>(HasSubstr("premature end")));
    EXPECT_THROW(in->read(&number), Mox::RangeException);
    EXPECT_EQ("before", text);
    EXPECT_EQ(5u, number);

    Mox::U32 length = 0;
    in->read(&length); // nothing was lost by the failures
    EXPECT_EQ(3u, length);
    EXPECT_EQ(2u, in->bytesLeft());

    EXPECT_THROW(bytesToValue(bytes({0xff, 0xff, 0xff, 0xff}), &text), Mox::RangeException);
    EXPECT_THAT(
        [&] {
            bytesToValue(bytes({0, 0, 0, 0, 7}), &text);
        },
        ThrowsMessage<Mox::RangeException>(HasSubstr("left over in the attribute log: 1")));
    EXPECT_EQ("before", text);
}

} // namespace
