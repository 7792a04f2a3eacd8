#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Mox {

/// Whether the class of an object overrides a virtual function of its base R: the object's entry in the table
/// of virtual functions is compared with that of a plain R.
///
/// The table is read at each question and not once for an object: while constructors and destructors run it
/// is that of the class whose turn it is, and so an object that attaches in a constructor needs no care.
///
/// Where the C++ binary interface is not one on which a pointer to a virtual function holds the entry's
/// offset (Itanium C++ ABI, 2.3), where R cannot be made, and until the program's static objects are made,
/// one R for each function among them, the answer is yes, which costs a call of a function that does nothing.
template <class R, auto function> class Override {
  public:
#if defined(__GXX_ABI_VERSION) && (defined(__x86_64__) || defined(__i386__))
    static constexpr bool isKnown = std::is_default_constructible_v<R>;
#else
    static constexpr bool isKnown = false;
#endif

    static bool isIn([[maybe_unused]] R const* object) {
        if constexpr (isKnown)
            return entryOf(object) != plain_;
        else
            return true;
    }

  private:
    /// Of a pointer to a virtual member function: 1 + the entry's offset in bytes, and an adjustment of
    /// `this` that is not used here.
    struct Representation {
        std::size_t entry;
        std::ptrdiff_t adjustment;
    };

    static void const* entryOf(R const* object) {
        static_assert(sizeof(function) == sizeof(Representation));
        Representation representation;
        std::memcpy(&representation, &pointer, sizeof representation);
        if (representation.entry % 2 == 0 || representation.adjustment != 0)
            return object; // not virtual, or of another base: no entry of this table
        char const* table = nullptr;
        std::memcpy(&table, static_cast<void const*>(object), sizeof table);
        void const* entry = nullptr;
        std::memcpy(&entry, table + representation.entry - 1, sizeof entry);
        return entry;
    }
    static void const* plainEntry() {
        if constexpr (isKnown) {
            R const plain;
            void const* const entry = entryOf(&plain);
            return entry == &plain ? nullptr : entry;
        } else {
            return nullptr;
        }
    }

    static constexpr auto pointer = function;
    static inline void const* const plain_ = plainEntry();
};

} // namespace Mox
