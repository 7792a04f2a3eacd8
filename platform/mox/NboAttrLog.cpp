#include <mox/NboAttrLog.h>

#include <mox/Integers.h>
#include <mox/Type.h>

#include <limits>

namespace Mox::NboAttrLog {

MOX_DEFINE_TYPE(Out, "Mox::NboAttrLog::Out", &PtrInterface::type())
MOX_DEFINE_TYPE(In, "Mox::NboAttrLog::In", &PtrInterface::type())

Ptr<Out> Out::OutIs() { return new Out; }

void Out::write(std::string_view value) {
    if (value.size() > std::numeric_limits<U32>::max())
        throw RangeException("string too long for the attribute log");
    write(static_cast<U32>(value.size()));
    bytes_.append(value);
}

Ptr<In> In::InIs(String bytes) { return new In(std::move(bytes)); }

char const* In::take(std::size_t bytes) {
    if (bytes > bytesLeft())
        throw RangeException("premature end of the attribute log");
    char const* const taken = bytes_.data() + position_;
    position_ += bytes;
    return taken;
}

/// The length is read back when the bytes are missing, so that the log stands before the string as a whole.
void In::read(String* value) {
    std::size_t const start = position_;
    U32 length = 0;
    read(&length);
    if (length > bytesLeft()) {
        position_ = start;
        throw RangeException("premature end of the attribute log");
    }
    *value = std::string_view(take(length), length);
}

void In::expectEnd() const {
    if (bytesLeft() != 0)
        throw RangeException("bytes left over in the attribute log: " + std::to_string(bytesLeft()));
}

} // namespace Mox::NboAttrLog
