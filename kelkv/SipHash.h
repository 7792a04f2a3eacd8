#pragma once

#include <boost/endian/conversion.hpp>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string_view>

namespace KelKv {

/// A hash that nobody can foresee who does not know its key: so nobody can choose texts that all fall
/// together in a table. With few rounds, as is usual for tables; what a walk shows of hashes does not help.
///
/// From: Jean-Philippe Aumasson, Daniel J. Bernstein, "SipHash: a fast short-input PRF", 2012. The rounds are
/// those of a word of eight bytes, and those at the end.
template <int rounds = 1, int lastRounds = 3> class SipHash {
  public:
    struct Key {
        std::uint64_t first;
        std::uint64_t second;
    };

    explicit SipHash(Key key) : key_(key) {}

    std::uint64_t operator()(std::string_view text) const {
        State state(key_);
        auto const* at = reinterpret_cast<unsigned char const*>(text.data());
        auto const* const end = at + text.size();
        for (; end - at >= 8; at += 8)
            state.take(boost::endian::load_little_u64(at));
        std::uint64_t last = 0;
        for (int shift = 0; at != end; ++at, shift += 8)
            last |= std::uint64_t{*at} << shift;
        state.take(last | std::uint64_t{text.size()} << 56);
        return state.end();
    }

  private:
    class State {
      public:
        explicit State(Key const& key)
            : v0_(key.first ^ 0x736f6d6570736575), v1_(key.second ^ 0x646f72616e646f6d),
              v2_(key.first ^ 0x6c7967656e657261), v3_(key.second ^ 0x7465646279746573) {}
        void take(std::uint64_t word) {
            v3_ ^= word;
            for (int i = 0; i < rounds; ++i)
                round();
            v0_ ^= word;
        }
        std::uint64_t end() {
            v2_ ^= 0xff;
            for (int i = 0; i < lastRounds; ++i)
                round();
            return v0_ ^ v1_ ^ v2_ ^ v3_;
        }

      private:
        void round() {
            v0_ += v1_, v1_ = std::rotl(v1_, 13) ^ v0_, v0_ = std::rotl(v0_, 32);
            v2_ += v3_, v3_ = std::rotl(v3_, 16) ^ v2_;
            v0_ += v3_, v3_ = std::rotl(v3_, 21) ^ v0_;
            v2_ += v1_, v1_ = std::rotl(v1_, 17) ^ v2_, v2_ = std::rotl(v2_, 32);
        }

        std::uint64_t v0_, v1_, v2_, v3_;
    };

    Key const key_;
};

/// The key of one that no other process has.
inline SipHash<>::Key randomHashKey() {
    std::random_device random;
    auto const word = [&random] { return std::uint64_t{random()} << 32 | random(); };
    return {word(), word()};
}

} // namespace KelKv
