#include <mox/AttributeText.h>

#include <array>
#include <charconv>

namespace Mox {

String referenceToStrep(PtrInterface const* entity) {
    if (!entity)
        return "None";
    std::array<char, 16> digits;
    auto const end =
        std::to_chars(digits.begin(), digits.end(), reinterpret_cast<std::uintptr_t>(entity), 16);
    return valueToStrep(std::string(entity->fwkType()->name()) + "@0x" +
                        std::string(digits.begin(), end.ptr));
}

} // namespace Mox
