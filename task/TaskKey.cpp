#include <task/TaskKey.h>

#include <kel/DisplayPointer.h>
#include <mox/Exception.h>

#include <charconv>

namespace Kel {

TaskKey::TaskKey(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end) {
    if (position != end && *position == '@') {
        auto behind = position + 1;
        value_ = DisplayPointer(behind, end).address();
        position = behind;
        return;
    }
    std::string_view const text(position, end);
    auto const read = std::from_chars(text.data(), text.data() + text.size(), value_);
    if (read.ec != std::errc())
        throw Mox::RangeException("not a task key: a key is a decimal number or @ and a pointer");
    position += read.ptr - text.data();
}

Mox::String8 TaskKey::toStrep() const { return "@" + DisplayPointer(value_).toStrep(); }

} // namespace Kel
