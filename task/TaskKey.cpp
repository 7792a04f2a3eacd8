#include <task/TaskKey.h>

#include <kel/DisplayPointer.h>
#include <mox/Exception.h>
#include <mox/NboAttrLog.h>
#include <mox/detail/StrepCursor.h>

namespace Kel {

TaskKey::TaskKey(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end) {
    Mox::StrepCursor cursor(position, end);
    std::string_view const text = cursor.rest();
    if (std::string_view("@0x").starts_with(text))
        throw Mox::PrematureEnd();
    if (text.front() == '@') {
        auto behind = cursor.position() + 1;
        value_ = DisplayPointer(behind, end).address();
        position = behind;
        return;
    }
    if (text.front() < '0' || text.front() > '9')
        throw Mox::RangeException("not a task key: a key is a decimal number or @ and a pointer");
    cursor.read(&value_);
    position = cursor.position();
}

Mox::String8 TaskKey::toStrep() const { return "@" + DisplayPointer(value_).toStrep(); }

Mox::String valueToStrep(TaskKey const& key) { return Mox::valueToStrep(key.value()); }

Mox::Ptr<Mox::NboAttrLog::Out> const& operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                 TaskKey const& key) {
    return out << key.value_;
}

} // namespace Kel
