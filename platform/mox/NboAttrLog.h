#pragma once

#include <mox/Exception.h>
#include <mox/Ptr.h>
#include <mox/String.h>

#include <boost/endian/conversion.hpp>
#include <boost/integer.hpp>

#include <concepts>
#include <cstring>
#include <limits>
#include <type_traits>

/// The binary attribute log: values one behind the other in network byte order, without names or types, so
/// that the reader asks for what the writer wrote. A number has its own width, a double its IEEE bits, a
/// string is its length as u32 and then its bytes.
///
/// A type of another library joins in by `operator<<(Mox::Ptr<Out> const&, T const&)` beside it and a
/// constructor T(In*).
namespace Mox::NboAttrLog {

template <class T>
concept Number = std::is_arithmetic_v<T> && !std::same_as<T, bool> && sizeof(T) <= 8;

/// A log being written.
class MOX_EXPORT Out : public PtrInterface {
  public:
    static Ptr<Out> OutIs();

    String const& bytes() const { return bytes_; }

    template <Number T> void write(T const& value);
    /// Throws a RangeException, and writes nothing, for a string of 2^32 bytes and more.
    void write(std::string_view value);

    Type const* fwkType() const override;
    static Type const& type();

  private:
    Out() = default;

    String bytes_;
};

/// A log being read. Whatever the bytes are, nothing behind their end is read: what does not fit is a
/// RangeException, and the log then stands before the number or string that failed.
class MOX_EXPORT In : public PtrInterface {
  public:
    static Ptr<In> InIs(String bytes);

    template <Number T> void read(T* value);
    void read(String* value);
    template <class T>
        requires std::is_class_v<T> && std::constructible_from<T, In*>
    void read(T* value) { *value = T(this); }

    std::size_t bytesLeft() const { return bytes_.size() - position_; }
    /// Throws a RangeException when bytes are left.
    void expectEnd() const;

    Type const* fwkType() const override;
    static Type const& type();

  private:
    explicit In(String bytes) : bytes_(std::move(bytes)) {}
    /// The next bytes, so many; moves behind them.
    char const* take(std::size_t bytes);

    String bytes_;
    std::size_t position_ = 0;
};

template <Number T> Ptr<Out> const& operator<<(Ptr<Out> const& out, T const& value) {
    out->write(value);
    return out;
}
inline Ptr<Out> const& operator<<(Ptr<Out> const& out, std::string_view value) {
    out->write(value);
    return out;
}

/// Reads bytes that are the log form of one value and nothing else; changes nothing when they are not.
template <class T> void bytesToValue(String const& bytes, T* value) {
    Ptr<In> const in = In::InIs(bytes);
    T read{};
    in->read(&read);
    in->expectEnd();
    *value = read;
}

static_assert(std::numeric_limits<double>::is_iec559 && sizeof(double) == 8);

/// The unsigned number of the same width, which carries any bits unharmed (an x87 register does not).
template <Number T> using Word = typename boost::uint_t<static_cast<int>(8 * sizeof(T))>::exact;

template <Number T> void Out::write(T const& value) {
    Word<T> word;
    std::memcpy(&word, &value, sizeof word);
    boost::endian::native_to_big_inplace(word);
    bytes_.append(reinterpret_cast<char const*>(&word), sizeof word);
}

template <Number T> void In::read(T* value) {
    Word<T> word;
    std::memcpy(&word, take(sizeof word), sizeof word);
    boost::endian::big_to_native_inplace(word);
    std::memcpy(value, &word, sizeof word);
}

} // namespace Mox::NboAttrLog
