#pragma once

#include <mox/FieldTable.h>
#include <mox/NboAttrLog.h>

namespace Mox {

/// The log form of a value with fields: theirs, in the order of its table.
template <class T> void writeFields(Ptr<NboAttrLog::Out> const& out, T const& value) {
    boost::mp11::mp_for_each<FieldsOf<T>>([&](auto field) { out << value.*field.pointer; });
}

/// On an error some of the fields may have been read already: for constructors.
template <class T> void readFields(NboAttrLog::In* in, T* value) {
    boost::mp11::mp_for_each<FieldsOf<T>>([&](auto field) { in->read(&(value->*field.pointer)); });
}

} // namespace Mox
