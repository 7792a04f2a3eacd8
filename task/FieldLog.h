#pragma once

#include <mox/NboAttrLog.h>
#include <task/FieldTable.h>

namespace Kel {

/// The log form of a value with fields: theirs, in the order of its table.
template <class T> void writeFields(Mox::Ptr<Mox::NboAttrLog::Out> const& out, T const& value) {
    boost::mp11::mp_for_each<FieldsOf<T>>([&](auto field) { out << value.*field.pointer; });
}

/// On an error some of the fields may have been read already: for constructors.
template <class T> void readFields(Mox::NboAttrLog::In* in, T* value) {
    boost::mp11::mp_for_each<FieldsOf<T>>([&](auto field) { in->read(&(value->*field.pointer)); });
}

} // namespace Kel
