#pragma once

#include <boost/describe/class.hpp>
#include <boost/describe/members.hpp>
#include <boost/describe/modifiers.hpp>
#include <boost/mp11/algorithm.hpp>

namespace Mox {

/// The fields of a value type, in the order in which its class describes them (BOOST_DESCRIBE_CLASS). What
/// walks fields, walks this list.
template <class T> using FieldsOf = boost::describe::describe_members<T, boost::describe::mod_private>;

template <class T> bool allFieldsEqual(T const& a, T const& b) {
    bool equal = true;
    boost::mp11::mp_for_each<FieldsOf<T>>(
        [&](auto field) { equal = equal && a.*field.pointer == b.*field.pointer; });
    return equal;
}

} // namespace Mox
