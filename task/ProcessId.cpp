#include <task/ProcessId.h>

#include <mox/NboAttrLog.h>

namespace Kel {

ProcessId::ProcessId(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end) {
    Mox::U64 number = 0;
    Mox::sequenceToValue(position, end, &number);
    value_ = static_cast<Mox::S64>(number);
}

Mox::String valueToStrep(ProcessId const& id) { return Mox::valueToStrep(static_cast<Mox::U64>(id.value())); }

Mox::Ptr<Mox::NboAttrLog::Out> const& operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                 ProcessId const& id) {
    return out << static_cast<Mox::U64>(id.value_);
}

} // namespace Kel
